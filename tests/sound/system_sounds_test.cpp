// Prompts and the audio device.
#include <gtest/gtest.h>

#include "core/fileutil.h"
#include "engine_fixture.h"
#include "sound/audio_device.h"

namespace korvo {
namespace {

using SystemSounds = test::EngineFixture;

// Every prompt the engine and start-up play is in sounds/ and decodes.
TEST(Prompts, EveryPromptIsInstalled) {
  const char* names[] = {"boot", "ready", "mode", "dataeast", "wpc", "dcs", "whitestar", "version", "point",
                         "r", "c", "preloading", "soundset", "switching-soundset", "shuffle", "click",
                         "no-soundset", "please-install-sound", "config-missing", "10"};
  for (const char* n : names) EXPECT_TRUE(fileExists((test::sourceDir() / "sounds" / (std::string(n) + ".ogg")).string())) << n;
  for (int d = 0; d < 10; d++) EXPECT_TRUE(fileExists((test::sourceDir() / strFormat("sounds/%d.ogg", d)).string()));
}

TEST_F(SystemSounds, NamesPathsAndReuse) {
  openEngine();
  test::LogCapture cap;
  EXPECT_EQ(1, engine->playSystemSound("../x.ogg", 0));
  EXPECT_EQ(1, engine->playSystemSound("a/../b.ogg", 0));
  EXPECT_TRUE(cap.contains("sound name is illegal: '../x.ogg'"));
  EXPECT_TRUE(cap.contains("sound name is illegal: 'a/../b.ogg'"));
  EXPECT_EQ(1, engine->playSystemSound("nope.ogg", 0));
  EXPECT_TRUE(cap.contains("error loading sound: "));
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

TEST_F(SystemSounds, ModeVersionAndNumbersSpeakDigitByDigit) {
  openEngine();
  test::LogCapture cap;
  engine->sayNumber(105);
  engine->sayVersion("2.1rc3");
  engine->sayMode(WPCDCS);
  std::vector<std::string> played;
  std::string text = cap.text();
  for (std::size_t p = text.find("play sound: "); p != std::string::npos; p = text.find("play sound: ", p + 1)) {
    const std::size_t slash = text.rfind('/', text.find('\n', p));
    played.push_back(text.substr(slash + 1, text.find('\n', p) - slash - 1));
  }
  const std::vector<std::string> want{"1.ogg", "0.ogg", "5.ogg", "version.ogg", "2.ogg", "point.ogg", "1.ogg",
                                      "r.ogg", "c.ogg", "3.ogg", "mode.ogg", "wpc.ogg", "dcs.ogg"};
  EXPECT_EQ(want, played);
}

TEST_F(SystemSounds, WithoutAudioEveryPromptReturnsAtOnce) {
  SoundEngine off;
  EXPECT_EQ(1, off.playSystemSound("ready.ogg", 1));
  EXPECT_EQ(0, off.enableAudio());
  off.handleSoundByType(1);  // no set, no device: logged, nothing else
  EXPECT_EQ(-1, off.setVolume(200));
}

TEST_F(SystemSounds, DeviceInitFailureLeavesAudioOff) {
  setenv("SDL_AUDIODRIVER", "no-such-driver", 1);
  SoundEngine e;
  test::LogCapture cap;
  EXPECT_EQ(-1, e.soundInit(20, base.c_str(), 2, 44100));
  EXPECT_EQ(0, e.enableAudio());
  EXPECT_TRUE(cap.contains("running without audio"));
  EXPECT_EQ(1, e.playSystemSound("boot.ogg", 1));
}

TEST_F(SystemSounds, BootPromptFrameCounterAndBufferSize) {
  settings.playBoot = 1;
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", (dir.path() / "boot.raw").c_str(), 1);
  setenv("SDL_DISKAUDIODELAY", "0", 1);
  engine = std::make_unique<SoundEngine>();
  engine->setSoundsDir((test::sourceDir() / "sounds").string());
  engine->setBufferFrames(256);
  test::LogCapture cap;
  ASSERT_EQ(0, engine->soundInit(20, base.c_str(), 2, 44100));
  EXPECT_TRUE(cap.contains("256 frames per buffer"));
  EXPECT_TRUE(cap.contains("sounds/boot.ogg"));
  EXPECT_EQ(20, engine->musicVolume());
  ASSERT_TRUE(test::waitFor([&] { return engine->framesMixed() >= 256 * 8; }));
  EXPECT_EQ(0u, engine->framesMixed() % 256);
}

TEST(AudioDevices, ListControlsAndSettingsLines) {
  const auto devices = getAudioDevices();
  ASSERT_FALSE(devices.empty());
  EXPECT_EQ("default", devices.front().name);
  for (const auto& d : devices) EXPECT_NE("null", d.name);
  EXPECT_EQ("hw:sndrpihifiberry", controlDeviceFor("hw:CARD=sndrpihifiberry,DEV=0"));
  EXPECT_EQ("hw:1", controlDeviceFor("plughw:1,0"));
  EXPECT_EQ("default", controlDeviceFor(""));
  test::LogCapture cap;
  EXPECT_EQ("[]", getAlsaControls("hw:CARD=nosuchcard,DEV=0"));
  EXPECT_EQ(-1, setValueForControl("hw:CARD=nosuchcard,DEV=0", 3, 0, 10));
  EXPECT_EQ(-1, setValueForControl("default", 0, 0, 10));
  EXPECT_TRUE(cap.contains("ERROR"));
  int numid = 0, index = 0;
  long value = 0;
  EXPECT_TRUE(parseControlLine("numid3_1=180", &numid, &index, &value));
  EXPECT_EQ(3, numid);
  EXPECT_EQ(1, index);
  EXPECT_EQ(180, value);
  EXPECT_FALSE(parseControlLine("volume=180", &numid, &index, &value));
  EXPECT_EQ("numid3_1", controlKey(3, 1));
}

}  // namespace
}  // namespace korvo

namespace korvo {
namespace {

// Volume changes rewrite va.ini through the settings writer; the mixer control lines
// read from it at start survive every rewrite.
TEST_F(SystemSounds, ControlLinesSurviveSettingsWrites) {
  const auto va = dir.path() / "va.ini";
  test::writeFile(va, "volume=30\nnumid3_0=180\nnumid5_1=1\n");
  Configuration cfg(settings);
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", "/dev/null", 1);
  engine = std::make_unique<SoundEngine>();
  engine->setTransientSettingsFile(va.string());
  engine->hooks().writeSettings = [&] { cfg.writeSettings(va.c_str()); };
  ASSERT_EQ(0, engine->soundInit(20, base.c_str(), 2, 44100));
  EXPECT_EQ(0, engine->setVolume(77));
  const std::string text = test::readFile(va);
  EXPECT_NE(std::string::npos, text.find("volume=77")) << text;
  EXPECT_NE(std::string::npos, text.find("numid3_0=180")) << text;
  EXPECT_NE(std::string::npos, text.find("numid5_1=1")) << text;
}

}  // namespace
}  // namespace korvo

namespace korvo {
namespace {

// Reopening: the default device comes back with the volume and a "ready" prompt; a
// device that does not open leaves the previous one playing; a bad index changes nothing.
TEST_F(SystemSounds, ReopenAndCycleAudioDevice) {
  makeSet("one");
  openEngine();
  loadSets();
  int writes = 0;
  engine->hooks().writeSettings = [&] { writes++; };
  test::LogCapture cap;
  EXPECT_EQ(0, engine->reopenAudioDevice(0));
  EXPECT_TRUE(cap.contains("ready.ogg"));
  EXPECT_EQ(1, writes);
  EXPECT_EQ(-1, engine->reopenAudioDevice(99));
  EXPECT_TRUE(cap.contains("no audio device 99"));
  if (getAudioDevices().size() > 1) {
    // The disk driver has only its default device: the ALSA name is refused.
    EXPECT_EQ(-1, engine->reopenAudioDevice(1));
  }
  EXPECT_EQ(1, engine->enableAudio());
  engine->handleSoundByType(10);
  ASSERT_TRUE(test::waitFor([&] { return !onsets.get(10).empty(); }));
}

}  // namespace
}  // namespace korvo
