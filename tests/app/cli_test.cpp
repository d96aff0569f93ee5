// The daemon as a whole process: options, usage texts, exit codes, settings files,
// the keyboard console and orderly shutdown on signals.
#include <gtest/gtest.h>

#include <filesystem>

#include "daemon.h"
#include "support/loopback.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

TEST(Cli, UsageVersionAndBadOptionsExitWithOne) {
  const Exit none = runDaemon({}), h = runDaemon({"-h"}), hh = runDaemon({"-hh"}), v = runDaemon({"-v"}),
             x = runDaemon({"-x"}), c = runDaemon({"-c", "1", "/tmp"});
  for (const Exit* e : {&none, &h, &hh, &v, &x, &c}) EXPECT_EQ(e->code, 1);
  EXPECT_NE(none.err.find("\t-p: dont preload samples when initing.\n\t-m: limit sample pool size.\n"),
            std::string::npos);
  EXPECT_EQ(none.err.find("\t-K <xsnd>"), std::string::npos);
  EXPECT_EQ(h.err, none.err);
  EXPECT_NE(hh.err.find("\t-T <csv>: write meta data of sound set as csv.\n\t-K <xsnd>: write sound set as xsnd.\n"
                        "\t-s <xsnd>: strip paths when writing xsnd.\n"),
            std::string::npos);
  EXPECT_EQ(v.out, std::string(KORVO_EXE) + "\n\rversion: 1.30rc24\n");
  EXPECT_EQ(x.err, "Unknown option `-x'.\n");
}

TEST(Cli, StartsReadsSettingsAndQuitsFromTheConsole) {
  TempDir work, base;
  writeFile(base / "mellosound.ini", std::string("vendor=7\n") + kQuietIni);
  writeFile(work / "va.ini", "volume=33\nsound_set=2\n");
  Daemon d({"-d", "-w", "WHITESTAR_X", base.str()}, work.str());
  ASSERT_TRUE(d.waitForOutput("set terminal in raw mode")) << d.seen();
  ASSERT_EQ(write(d.input(), "q", 1), 1);
  const Exit r = d.finish();
  EXPECT_EQ(r.code, 0) << r.out << r.err;
  for (const char* line : {"ERROR", "invalid protocol name 'WHITESTAR_X\n", "VELT!Audio starting, version 1.30rc24, "
                           "serial: ", "read value for volume = 33", "vendor = 7", "MelloSnd [startUp]", "shutting down"})
    EXPECT_NE(r.out.find(line), std::string::npos) << line;
}

TEST(Cli, SigtermShutsDownInOrderAndLogFileIsAppended) {
  TempDir work;
  const std::string logFile = (work / "korvo.log").string();
  writeFile(logFile, "previous line\n");
  writeFile(work / "mellosound.ini", kQuietIni);
  // What an interrupted write left in the working/base directory and in a set.
  writeFile(work / "va.ini.tmpAbC123", "volume=1");
  writeFile(work / "set" / "sfx" / "10-a" / "a.txt.tmp0a0a0a", "x");
  writeFile(work / "set" / "notes.tmp", "mine");
  // -w after -f: what parsing it logs belongs in the file as well.
  Daemon d({"-f", logFile, "-w", "NOPE", "-l", "4", work.str()}, work.str());
  // Every line reaches the file as it is logged.
  ASSERT_TRUE(d.waitUntil([&] { return readFile(logFile).find("start-up done") != std::string::npos; }))
      << readFile(logFile);
  const Exit r = d.stop();
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  const std::string log = readFile(logFile);
  EXPECT_EQ(log.rfind("previous line\n", 0), 0u);
  for (const char* line : {"invalid protocol name 'NOPE", "loading settings from va.ini", "shutting down",
                           "removed stale temporary file"})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
  EXPECT_FALSE(std::filesystem::exists(work / "va.ini.tmpAbC123"));
  EXPECT_FALSE(std::filesystem::exists(work / "set" / "sfx" / "10-a" / "a.txt.tmp0a0a0a"));
  EXPECT_TRUE(std::filesystem::exists(work / "set" / "notes.tmp"));
}

TEST(Cli, RunsInitLuaAndHandsItUdpEvents) {
  TempDir work;
  writeFile(work / "mellosound.ini", kQuietIni);
  writeFile(work / "init.lua", "print('init ' .. version)\nfunction eventHandler(e) print('event: ' .. e) end\n");
  // The event service listens on the HTTP port + 1; keep clear of a daemon on this machine.
  const int httpPort = 42000 + getpid() % 2000 * 2;
  Daemon d({"-N", std::to_string(httpPort), work.str()}, work.str());
  ASSERT_TRUE(d.waitForOutput("start-up done")) << d.seen();
  for (const std::string& line : {"looking for " + work.str() + "/init.lua", std::string("init 1.30rc24"),
                                  std::string("adding lua event callback handler: eventHandler")})
    EXPECT_NE(d.seen().find(line), std::string::npos) << line;
  UdpSocket().sendTo(httpPort + 1, "tilt\n");
  EXPECT_TRUE(d.waitForOutput("event: tilt")) << d.seen();
  const Exit r = d.stop();
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.out.find("lua_exit"), std::string::npos);
}

}  // namespace
}  // namespace korvo::test
