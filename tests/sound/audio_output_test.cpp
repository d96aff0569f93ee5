// The audio output: the frame counter and buffer size, the ALSA device list and mixer
// controls, the control lines of va.ini, and reopening the device.
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "sound/audio_device.h"

namespace korvo {
namespace {

using Output = test::EngineFixture;

TEST_F(Output, FrameCounterCountsWholeBuffersAndTheVolumeIsApplied) {
  test::useDiskAudio((dir.path() / "out.raw").string());
  engine = std::make_unique<SoundEngine>();
  engine->setBufferFrames(256);
  test::LogCapture cap;
  ASSERT_EQ(0, engine->soundInit(20, base.c_str(), 2, 44100));
  EXPECT_TRUE(cap.contains("256 frames per buffer"));
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

// A volume change rewrites va.ini once, with the settings keys and the mixer control
// lines read at start together: no moment exists where the file lacks the controls.
TEST_F(Output, SettingsAndControlLinesAreWrittenInOneGo) {
  const auto va = dir.path() / "va.ini";
  test::writeFile(va, "volume=30\nnumid3_0=180\nnumid5_1=1\n");
  Configuration cfg(settings);
  test::useDiskAudio("/dev/null");
  engine = std::make_unique<SoundEngine>();
  engine->setTransientSettingsFile(va.string());
  std::vector<std::string> afterEachWrite;
  engine->hooks().writeSettings = [&](const std::vector<std::string>& extra) {
    cfg.writeSettings(va.c_str(), extra);
    afterEachWrite.push_back(test::readFile(va));
  };
  ASSERT_EQ(0, engine->soundInit(20, base.c_str(), 2, 44100));
  EXPECT_EQ(0, engine->setVolume(77));
  ASSERT_EQ(1u, afterEachWrite.size());
  for (const char* line : {"volume=77\n", "numid3_0=180\n", "numid5_1=1\n"})
    EXPECT_NE(std::string::npos, afterEachWrite[0].find(line)) << afterEachWrite[0];
  EXPECT_EQ(afterEachWrite[0], test::readFile(va));
}

// Reopening: the default device comes back with a "ready" prompt; a bad index changes
// nothing; a device that does not open leaves the previous one playing.
TEST_F(Output, ReopenAndCycleAudioDevice) {
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
