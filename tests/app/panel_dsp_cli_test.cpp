// The daemon with the front panel and the DSP on the sim backend: -X, the DSP keys of
// "mellosound.ini", the display, and bad definition files that leave the rest running.
#include <gtest/gtest.h>

#include "daemon.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

// Runs korvo in `dir` with `args` until its log file says start-up is done, then stops
// it with SIGTERM. Returns the log.
std::string runUntilStarted(const std::vector<std::string>& args, const TempDir& dir) {
  const std::string logFile = (dir / "korvo.log").string();
  std::vector<std::string> all = {"-a", "-f", logFile, "-l", "4"};
  all.insert(all.end(), args.begin(), args.end());
  Daemon d(all, dir.str());
  EXPECT_TRUE(d.waitUntil([&] { return readFile(logFile).find("start-up done") != std::string::npos; }))
      << readFile(logFile);
  EXPECT_EQ(d.stop().code, 0);
  return readFile(logFile);
}

TEST(PanelDspCli, DefinitionSettingsComeFromMellosoundAndTheDisplayStarts) {
  TempDir dir;
  writeFile(dir / "mellosound.ini", "enable_minidisplay=1\nbass_crossover=150\nsub_gain_db=30\n_mute_all=1\n");
  const std::string xml = (sourceDir() / "demo/dsp/velt-demo.xml").string();
  const std::string log = runUntilStarted({"-X", xml, dir.str()}, dir);
  EXPECT_NE(log.find("dsp xml def set to '" + xml + "'"), std::string::npos);
  EXPECT_NE(log.find("dsp setting bass_crossover = 150Hz"), std::string::npos) << log;
  EXPECT_NE(log.find("sub_gain_db: 30 is outside -20..10, using 10"), std::string::npos);
  // A hidden setting is not in the catalogue: the file cannot change it.
  EXPECT_NE(log.find("dsp setting _mute_all = 0"), std::string::npos);
  EXPECT_NE(log.find("mini display found at 0x3c"), std::string::npos);
  EXPECT_EQ(log.find("not available in this build"), std::string::npos);
}

TEST(PanelDspCli, ABadDefinitionIsOneErrorWithItsLineAndTheDaemonRuns) {
  TempDir dir;
  writeFile(dir / "bad.xml", "<dsp>\n<setting name=\"x\" value=\"1\" min=\"0\" max=\"2\">\n"
                            "<gain address=\"0x9999\"/></setting></dsp>\n");
  const std::string log = runUntilStarted({"-X", (dir / "bad.xml").string(), dir.str()}, dir);
  EXPECT_NE(log.find("bad.xml:3: address=\"0x9999\" of <gain> is not a number in 0..1023"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("dsp setting"), std::string::npos);
}

}  // namespace
}  // namespace korvo::test
