// The daemon with the front panel and the DSP on the sim backend: -X, the DSP keys of
// "mellosound.ini", the display, and bad definition files that leave the rest running.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/testutil.h"

namespace {

// Runs korvo in `dir` with `args` until its log file says start-up is done, then stops
// it with SIGTERM. Returns the log.
std::string runUntilStarted(const std::vector<std::string>& args, const korvo::test::TempDir& dir) {
  const std::string logFile = (dir / "korvo.log").string();
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.str().c_str()) != 0) _exit(126);
    setenv("KORVO_GPIO", "sim", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    std::vector<std::string> all = {KORVO_EXE, "-a", "-f", logFile, "-l", "4"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(KORVO_EXE, argv.data());
    _exit(127);
  }
  const bool started = korvo::test::waitUntil(
      [&] { return korvo::test::readFile(logFile).find("start-up done") != std::string::npos; });
  EXPECT_TRUE(started) << korvo::test::readFile(logFile);
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return korvo::test::readFile(logFile);
}

TEST(PanelDspCli, DefinitionSettingsComeFromMellosoundAndTheDisplayStarts) {
  korvo::test::TempDir dir;
  korvo::test::writeFile(dir / "mellosound.ini",
                         "enable_minidisplay=1\nbass_crossover=150\nsub_gain_db=30\n_mute_all=1\n");
  const std::string xml = (korvo::test::sourceDir() / "demo/dsp/velt-demo.xml").string();
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
  korvo::test::TempDir dir;
  korvo::test::writeFile(dir / "bad.xml", "<dsp>\n<setting name=\"x\" value=\"1\" min=\"0\" max=\"2\">\n"
                                          "<gain address=\"0x9999\"/></setting></dsp>\n");
  const std::string log = runUntilStarted({"-X", (dir / "bad.xml").string(), dir.str()}, dir);
  EXPECT_NE(log.find("bad.xml:3: address=\"0x9999\" of <gain> is not a number in 0..1023"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("dsp setting"), std::string::npos);
}

}  // namespace
