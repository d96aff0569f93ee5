#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "base/handles.h"
#include "core/console.h"
#include "core/mainloop.h"
#include "core/options.h"
#include "core/sysinfo.h"
#include "platform/clock.h"
#include "support/manual_clock.h"
#include "support/testutil.h"

using namespace korvo;

namespace {

struct Parsed {
  ParseResult result;
  Options opt;
  std::string out, err;
};

// A stream that collects what is written to it; text() closes it.
struct MemFile {
  char* buf = nullptr;
  size_t len = 0;
  FileHandle f{open_memstream(&buf, &len)};
  std::string text() { f.reset(); return {buf, len}; }
  ~MemFile() { f.reset(); free(buf); }
};

Parsed parse(std::vector<std::string> args) {
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  Parsed p;
  MemFile out, err;
  Settings s;
  initSettings(&s);
  p.result = parseOptions(static_cast<int>(args.size()), argv.data(), p.opt, s, out.f.get(), err.f.get());
  p.out = out.text();
  p.err = err.text();
  return p;
}

TEST(Options, ValuesAndBaseDir) {
  Parsed p = parse({"korvo", "-N", "8080", "-H", "-p", "-K", "out.xsnd", "-s", "sets/"});
  EXPECT_FALSE(p.result.exit);
  EXPECT_EQ(p.opt.httpPort, 8080);
  EXPECT_EQ(p.opt.enableHttpService, 1);
  EXPECT_EQ(p.opt.xsndFile, "out.xsnd");
  EXPECT_EQ(p.opt.stripPaths, 1);
  EXPECT_EQ(p.opt.baseDir, "sets");
}

TEST(Options, UsageVersionAndBadOptions) {
  Parsed shortHelp = parse({"korvo", "-h"});
  EXPECT_TRUE(shortHelp.result.exit);
  EXPECT_EQ(shortHelp.result.exitCode, 1);
  EXPECT_NE(shortHelp.err.find("\t-w: wire protocol. can be one of DATAEAST WPC DATAEAST2 DATAEAST3 SYS11 WPCDCS "
                               "DATAEAST_X WHITESTAR . default DATAEAST.\n"),
            std::string::npos);
  EXPECT_EQ(shortHelp.err.find("\t-I:"), std::string::npos);
  EXPECT_NE(shortHelp.err.find("\t-N: http port to listen (defailt 31008).\n"), std::string::npos);
  EXPECT_TRUE(shortHelp.err.ends_with("\tpath: base path for sound sets (see doc), w/o trailing slash.\n"
                                      "\nversion: 1.30rc24.\n"));

  Parsed longHelp = parse({"korvo", "-hh"});
  EXPECT_NE(longHelp.err.find("\t-R: record current session.\n\t-I: start only hardware IO testing (no sounds at "
                              "all).\n\t-J: copy local config from sound data path.\n"),
            std::string::npos);
  EXPECT_NE(longHelp.err.find("\t-a: run without audio (debugging only).\n\t-A: set audio device for alsa.\n"),
            std::string::npos);

  Parsed version = parse({"korvo", "-v"});
  EXPECT_EQ(version.out, "korvo\n\rversion: 1.30rc24\n");
  EXPECT_EQ(version.result.exitCode, 1);

  Parsed bad = parse({"korvo", "-x"});
  EXPECT_EQ(bad.err, "Unknown option `-x'.\n");
  EXPECT_EQ(bad.result.exitCode, 1);
  Parsed nonPrintable = parse({"korvo", "-\x01"});
  EXPECT_EQ(nonPrintable.err, "Unknown option character `\\x1'.\n");

  Parsed c = parse({"korvo", "-c", "x", "dir"});
  EXPECT_TRUE(c.result.exit);
  EXPECT_EQ(c.result.exitCode, 1);

  Parsed none = parse({"korvo"});
  EXPECT_EQ(none.result.exitCode, 1);
  EXPECT_EQ(none.err, shortHelp.err);
}

TEST(Console, DigitsThenEnterSendACommandAndEnterAloneAPlaysRandomSample) {
  std::vector<unsigned> sent;
  int quits = 0;
  ConsoleActions a;
  a.soundHandler = [&](unsigned id) { sent.push_back(id); };
  a.randomSampleId = [] { return 77; };
  a.quit = [&] { ++quits; };
  KeyboardConsole console(a);
  test::LogCapture cap;
  console.handleKey('1');
  console.handleKey('2');
  console.handleKey('\r');
  console.handleKey('p');
  console.handleKey(3);  // Ctrl-C in raw mode goes through the digit rule
  EXPECT_EQ(console.pendingNumber(), 3 - '0');
  console.handleKey('m');  // no sound engine wired: logged, nothing else
  console.handleKey('q');
  EXPECT_EQ(sent, (std::vector<unsigned>{12, 77}));
  EXPECT_EQ(quits, 1);
}

TEST(Button, DurationRangesOverlapAtThreeHundredAndLeaveAGap) {
  test::LogCapture cap;
  ButtonActions at300 = buttonActionsFor(300);
  EXPECT_TRUE(at300.cycleSoundSet && at300.cycleAudioDevice && !at300.reboot);
  ButtonActions mid = buttonActionsFor(1500);
  EXPECT_FALSE(mid.cycleSoundSet || mid.cycleAudioDevice || mid.reboot);
  EXPECT_TRUE(buttonActionsFor(2000).reboot);
  EXPECT_TRUE(buttonActionsFor(100).cycleSoundSet);
  EXPECT_TRUE(buttonActionsFor(1000).cycleAudioDevice);
}

TEST(MainLoop, StopDeadlineEndsTheLoopOnTheManualClock) {
  test::ManualClock manual(5'000'000);
  MainLoop loop;
  loop.stopMainLoop(0, 2);
  loop.checkStopTime(millis());
  EXPECT_TRUE(loop.keepRunning());  // strictly greater than the stop time
  clock::advanceMillis(1);
  loop.checkStopTime(millis());
  EXPECT_FALSE(loop.keepRunning());
  EXPECT_EQ(loop.exitCode(), 2);

  MainLoop later;
  later.stopMainLoop(1000, 0);
  clock::advanceMillis(1000);
  later.checkStopTime(millis());
  EXPECT_TRUE(later.keepRunning());
  clock::advanceMillis(1);
  later.checkStopTime(millis());
  EXPECT_FALSE(later.keepRunning());
}

TEST(SysInfo, SerialFromCpuinfoOrEthernetAddress) {
  test::TempDir dir;
  test::writeFile(dir / "cpuinfo", "processor\t: 0\nSerial\t\t: 10000000abcdef01\nModel\t: x\n");
  test::writeFile(dir / "eth0", "dc:a6:32:01:02:03\n");
  EXPECT_EQ(readBoardSerial((dir / "cpuinfo").string(), (dir / "eth0").string()), 0xabcdef01u);
  test::writeFile(dir / "cpuinfo", "processor\t: 0\n");
  EXPECT_EQ(readBoardSerial((dir / "cpuinfo").string(), (dir / "eth0").string()), 0x32010203u);
  EXPECT_EQ(readBoardSerial((dir / "none").string(), (dir / "none").string()), 0u);

  test::writeFile(dir / "model", std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31));
  EXPECT_EQ(readBoardModel((dir / "model").string()), "Raspberry Pi 4 Model B Rev 1.4");
  EXPECT_EQ(readBoardModel((dir / "nomodel").string()), "unknown");

  test::writeFile(dir / "asound" / "cards", " 0 [Headphones     ]: bcm2835\n");
  test::writeFile(dir / "asound" / "card0" / "pcm0p" / "info", "card: 0\r\nid: bcm2835\n");
  test::writeFile(dir / "asound" / "card0" / "pcm1p" / "info", "card: 0\nid: second\n");
  test::LogCapture cap;
  dumpAudioDevices((dir / "asound").string());
  std::string text = cap.text();
  EXPECT_NE(text.find("Info for " + (dir / "asound" / "card0" / "pcm1p" / "info").string()), std::string::npos);
  EXPECT_NE(text.find("] card: 0\n"), std::string::npos);
  EXPECT_NE(text.find("] id: second\n"), std::string::npos);
}

}  // namespace
