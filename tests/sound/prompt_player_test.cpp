// The prompt player: names and paths, reuse of loaded prompts, the spoken numbers, and
// the queue (a prompt never cuts another; callers do not wait).
#include <gtest/gtest.h>

#include "base/fileutil.h"
#include "engine_fixture.h"

namespace korvo {
namespace {

using Prompts = test::EngineFixture;

// The prompt files in the order they started, from the "play sound: " lines.
std::vector<std::string> promptsPlayed(const std::string& log) {
  std::vector<std::string> played;
  for (std::size_t p = log.find("play sound: "); p != std::string::npos; p = log.find("play sound: ", p + 1)) {
    const std::size_t end = log.find('\n', p), slash = log.rfind('/', end);
    played.push_back(log.substr(slash + 1, end - slash - 1));
  }
  return played;
}

// Every prompt the engine and start-up play is in sounds/.
TEST(PromptFiles, EveryPromptIsInstalled) {
  for (const char* n : {"boot", "ready", "mode", "dataeast", "wpc", "dcs", "whitestar", "version", "point", "r", "c",
                        "preloading", "soundset", "switching-soundset", "shuffle", "click", "no-soundset",
                        "please-install-sound", "config-missing", "10", "0", "1", "2", "3", "4", "5", "6", "7",
                        "8", "9"})
    EXPECT_TRUE(fileExists((test::sourceDir() / "sounds" / (std::string(n) + ".ogg")).string())) << n;
}

TEST_F(Prompts, NamesPathsAndReuse) {
  openEngine();
  test::LogCapture cap;
  EXPECT_EQ(1, engine->playSystemSound("../x.ogg", 0));
  EXPECT_EQ(1, engine->playSystemSound("a/../b.ogg", 0));
  EXPECT_TRUE(cap.contains("sound name is illegal: 'a/../b.ogg'"));
  EXPECT_EQ(1, engine->playSystemSound("nope.ogg", 0));
  const std::string abs = (test::sourceDir() / "sounds/ready.ogg").string();
  EXPECT_EQ(0, engine->playSystemSound(abs.c_str(), 1));
  EXPECT_EQ(0, engine->checkPlaying());
  test::LogCapture twice;
  EXPECT_EQ(0, engine->playSystemSound(abs.c_str(), 1));
  EXPECT_FALSE(twice.contains("load system sound"));  // the same prompt is loaded once
  // A set's own copy overrides the built-in prompt.
  test::writeSineWav(dir.path() / "custom/ready.wav", 0.05, 1000);
  std::filesystem::rename(dir.path() / "custom/ready.wav", dir.path() / "custom/ready.ogg");
  test::LogCapture over;
  engine->playSystemSoundWithOverride("ready.ogg", 1, (dir.path() / "custom").c_str());
  EXPECT_TRUE(over.contains("custom/ready.ogg"));
}

TEST_F(Prompts, ModeVersionAndNumbersSpeakDigitByDigitInOrder) {
  openEngine();
  test::LogCapture cap;
  engine->sayNumber(105);
  engine->sayVersion("2.1rc3");
  engine->sayMode(WPCDCS);
  ASSERT_TRUE(waitPromptsIdle());
  EXPECT_EQ(promptsPlayed(cap.text()),
            (std::vector<std::string>{"1.ogg", "0.ogg", "5.ogg", "version.ogg", "2.ogg", "point.ogg", "1.ogg", "r.ogg",
                                      "c.ogg", "3.ogg", "mode.ogg", "wpc.ogg", "dcs.ogg"}));
}

TEST_F(Prompts, WithoutADeviceAudioStaysOffAndEveryCallReturns) {
  SoundEngine off;
  EXPECT_EQ(1, off.playSystemSound("ready.ogg", 1));
  off.handleSoundByType(1);  // no set, no device: logged, nothing else
  EXPECT_EQ(-1, off.setVolume(200));
  setenv("SDL_AUDIODRIVER", "no-such-driver", 1);
  SoundEngine e;
  test::LogCapture cap;
  EXPECT_EQ(-1, e.soundInit(20, base.c_str(), 2, 44100));
  EXPECT_EQ(0, e.enableAudio());
  EXPECT_TRUE(cap.contains("running without audio"));
  EXPECT_EQ(1, e.playSystemSound("boot.ogg", 1));
}

// The boot sound is heard to its end: the prompt right behind it waits its turn.
TEST_F(Prompts, BootSoundPlaysToItsEndBeforeTheNextPrompt) {
  settings.playBoot = 1;
  openEngine();
  const std::string boot = (test::sourceDir() / "sounds/boot.ogg").string();
  const std::string ready = (test::sourceDir() / "sounds/ready.ogg").string();
  double bootSeconds = 0, readySeconds = 0;
  {
    auto lk = engine->lock();
    MusicHandle b(Mix_LoadMUS(boot.c_str())), r(Mix_LoadMUS(ready.c_str()));
    ASSERT_TRUE(b && r);
    bootSeconds = Mix_MusicDuration(b.get());
    readySeconds = Mix_MusicDuration(r.get());
  }
  ASSERT_GT(bootSeconds, 0.5);
  EXPECT_EQ(0, engine->playSystemSound("ready.ogg", 1));
  // Both were mixed whole (two buffers of slack at the edges).
  const double frames = (bootSeconds + readySeconds) * engine->frequency() - 2.0 * engine->bufferFrames();
  EXPECT_GE(static_cast<double>(engine->framesMixed()), frames);
}

// Prompts queued behind each other play in order; none is halted by the next; stop
// forgets the queue.
TEST_F(Prompts, QueueKeepsOrderAndStopForgetsIt) {
  // The player gives a prompt up once its length plus a short grace has passed on the wall
  // clock, so a short first prompt could be skipped while a loaded machine stalls this
  // thread. The first prompt lasts minutes (and longer still on the slow device): it is
  // the one playing whenever the test looks.
  const std::string longPrompt = (dir.path() / "long.wav").string();
  test::writeSineWav(longPrompt, 300, 1000, 440.0, 2000);
  openEngine("", "200");
  test::LogCapture cap;
  for (const char* p : {longPrompt.c_str(), "2.ogg", "3.ogg"}) EXPECT_EQ(0, engine->playSystemSound(p, 0));
  EXPECT_EQ(1, engine->checkPlaying());
  EXPECT_EQ(2, engine->prompts().queued());
  EXPECT_EQ(std::vector<std::string>{"long.wav"}, promptsPlayed(cap.text()));
  engine->stopSystemSound();
  EXPECT_TRUE(engine->prompts().idle());
  EXPECT_EQ(0, engine->checkPlaying());
}

}  // namespace
}  // namespace korvo
