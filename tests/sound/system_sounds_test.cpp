// Prompts and the audio device.
#include <gtest/gtest.h>

#include "base/fileutil.h"
#include "engine_fixture.h"
#include "sound/audio_device.h"

namespace korvo {
namespace {

using SystemSounds = test::EngineFixture;

// Every prompt the engine and start-up play is in sounds/.
TEST(Prompts, EveryPromptIsInstalled) {
  for (const char* n : {"boot", "ready", "mode", "dataeast", "wpc", "dcs", "whitestar", "version", "point", "r", "c",
                        "preloading", "soundset", "switching-soundset", "shuffle", "click", "no-soundset",
                        "please-install-sound", "config-missing", "10", "0", "1", "2", "3", "4", "5", "6", "7",
                        "8", "9"})
    EXPECT_TRUE(fileExists((test::sourceDir() / "sounds" / (std::string(n) + ".ogg")).string())) << n;
}

TEST_F(SystemSounds, NamesPathsAndReuse) {
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

TEST_F(SystemSounds, ModeVersionAndNumbersSpeakDigitByDigit) {
  openEngine();
  test::LogCapture cap;
  engine->sayNumber(105);
  engine->sayVersion("2.1rc3");
  engine->sayMode(WPCDCS);
  std::vector<std::string> played;
  const std::string text = cap.text();
  for (std::size_t p = text.find("play sound: "); p != std::string::npos; p = text.find("play sound: ", p + 1)) {
    const std::size_t end = text.find('\n', p), slash = text.rfind('/', end);
    played.push_back(text.substr(slash + 1, end - slash - 1));
  }
  EXPECT_EQ(played, (std::vector<std::string>{"1.ogg", "0.ogg", "5.ogg", "version.ogg", "2.ogg", "point.ogg", "1.ogg",
                                              "r.ogg", "c.ogg", "3.ogg", "mode.ogg", "wpc.ogg", "dcs.ogg"}));
}

TEST_F(SystemSounds, WithoutADeviceAudioStaysOffAndEveryCallReturns) {
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

TEST_F(SystemSounds, BootPromptFrameCounterAndBufferSize) {
  settings.playBoot = 1;
  test::useDiskAudio((dir.path() / "boot.raw").string());
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
  for (auto [device, control] : {std::pair{"hw:CARD=sndrpihifiberry,DEV=0", "hw:sndrpihifiberry"},
                                 std::pair{"plughw:1,0", "hw:1"}, std::pair{"", "default"}})
    EXPECT_EQ(control, controlDeviceFor(device));
  test::LogCapture cap;
  EXPECT_EQ("[]", getAlsaControls("hw:CARD=nosuchcard,DEV=0"));
  EXPECT_EQ(-1, setValueForControl("hw:CARD=nosuchcard,DEV=0", 3, 0, 10));
  EXPECT_EQ(-1, setValueForControl("default", 0, 0, 10));
  EXPECT_TRUE(cap.contains("ERROR"));
  int numid = 0, index = 0;
  long value = 0;
  EXPECT_TRUE(parseControlLine("numid3_1=180", &numid, &index, &value));
  EXPECT_EQ(std::make_tuple(3, 1, 180L), std::make_tuple(numid, index, value));
  EXPECT_FALSE(parseControlLine("volume=180", &numid, &index, &value));
  EXPECT_EQ("numid3_1", controlKey(3, 1));
}

// Volume changes rewrite va.ini through the settings writer; the mixer control lines
// read from it at start survive every rewrite.
TEST_F(SystemSounds, ControlLinesSurviveSettingsWrites) {
  const auto va = dir.path() / "va.ini";
  test::writeFile(va, "volume=30\nnumid3_0=180\nnumid5_1=1\n");
  Configuration cfg(settings);
  test::useDiskAudio("/dev/null");
  engine = std::make_unique<SoundEngine>();
  engine->setTransientSettingsFile(va.string());
  engine->hooks().writeSettings = [&](const std::vector<std::string>& extra) { cfg.writeSettings(va.c_str(), extra); };
  ASSERT_EQ(0, engine->soundInit(20, base.c_str(), 2, 44100));
  EXPECT_EQ(0, engine->setVolume(77));
  const std::string text = test::readFile(va);
  for (const char* line : {"volume=77", "numid3_0=180", "numid5_1=1"}) EXPECT_NE(std::string::npos, text.find(line)) << text;
}

// Reopening: the default device comes back with a "ready" prompt; a device that does
// not open leaves the previous one playing; a bad index changes nothing.
TEST_F(SystemSounds, ReopenAndCycleAudioDevice) {
  openWithSet();
  int writes = 0;
  engine->hooks().writeSettings = [&](const std::vector<std::string>&) { writes++; };
  test::LogCapture cap;
  EXPECT_EQ(0, engine->reopenAudioDevice(0));
  EXPECT_TRUE(cap.contains("ready.ogg"));
  EXPECT_EQ(1, writes);
  EXPECT_EQ(-1, engine->reopenAudioDevice(99));
  EXPECT_TRUE(cap.contains("no audio device 99"));
  // The disk driver has only its default device: an ALSA name is refused.
  if (getAudioDevices().size() > 1) {
    EXPECT_EQ(-1, engine->reopenAudioDevice(1));
  }
  EXPECT_EQ(1, engine->enableAudio());
  engine->handleSoundByType(10);
  ASSERT_TRUE(test::waitFor([&] { return !onsets.get(10).empty(); }));
}

}  // namespace
}  // namespace korvo
