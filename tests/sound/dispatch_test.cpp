// Dispatch and playback on the real mixer (disk driver): levels in the captured output,
// channel choice, type rules, the repeat filter and the main-loop duties on the manual
// clock, command strings, and bad input.
#include <gtest/gtest.h>

#include "engine_fixture.h"
#include "platform/gpio.h"

namespace korvo {
namespace {

using Dispatch = test::EngineFixture;

TEST_F(Dispatch, CapturedLevelFollowsTheGainFormula) {
  makeSet("one");
  openEngine();
  loadSets();
  // Master 128 with neutral gains plays at 128; master 64 at 64: half the amplitude.
  settings.volume = 128;
  engine->handleSoundByType(10);
  ASSERT_TRUE(waitIdle(10));
  settings.volume = 64;
  engine->handleSoundByType(10);
  ASSERT_TRUE(waitIdle(10));
  const auto starts = onsets.get(10);
  ASSERT_EQ(2u, starts.size());
  // The middle of the 0.3 s sample, clear of its edges.
  const uint64_t from = 44100 / 20, len = 44100 * 15 / 100;
  const double loud = capturedRms(starts[0] + from, len);
  const double soft = capturedRms(starts[1] + from, len);
  ASSERT_GT(soft, 100.0);
  EXPECT_NEAR(2.0, loud / soft, 0.02);
  // Nothing plays before the onset frame the counter reported.
  EXPECT_LT(capturedRms(starts[0] - 512, 512), 1.0);
}

TEST_F(Dispatch, VolumeFormulaClamps) {
  makeSet("one");
  openEngine();
  loadSets();
  auto lk = engine->lock();
  AudioSample* s = engine->getSampleForId(10);
  ASSERT_NE(nullptr, s);
  settings.volume = 0;
  EXPECT_EQ(1, engine->getVolumeForSample(s, -1));  // never silent through gains
  settings.volume = 128;
  s->gain = 100;
  engine->index().gainByType[SFX] = 100;
  EXPECT_EQ(128, engine->getVolumeForSample(s, -1));
  settings.volume = 100;
  EXPECT_EQ(128, engine->getVolumeForSample(s, 80));
  settings.volume = 40;
  EXPECT_EQ(1, engine->getVolumeForSample(s, 0));
  s->gain = 60;
  engine->index().gainByType[SFX] = 45;
  EXPECT_EQ(45, engine->getVolumeForSample(s, -1));
}

TEST_F(Dispatch, RestartStaysOnItsChannelAndOldReportLeavesNewPlayAlone) {
  makeSet("one");
  test::writeSineWav(base / "one/sfx/10-beep/beep.wav", 1.0, 8000, 880);
  openEngine("", "10");  // about real time: the restarted play outlives the checks
  loadSets();
  engine->handleSoundByType(10);
  const int ch = channelOf(10);
  ASSERT_GE(ch, 0);
  engine->handleSoundByType(20);
  EXPECT_NE(ch, channelOf(20));
  // Restart while playing: same channel; the halted play's report is stale.
  engine->handleSoundByType(10);
  EXPECT_EQ(ch, channelOf(10));
  drain();
  {
    auto lk = engine->lock();
    EXPECT_EQ(ch, engine->getSampleForId(10)->isplayingonchannel);
  }
  EXPECT_TRUE(engine->isSamplePlaying(10));
  ASSERT_TRUE(waitIdle(10));
  drain();
  auto lk = engine->lock();
  EXPECT_EQ(AudioSample::kNotPlaying, engine->getSampleForId(10)->isplayingonchannel);
}

TEST_F(Dispatch, ElevenChannelsThenNoFreeChannel) {
  // Eleven long effects fill every channel; a twelfth finds none and changes nothing.
  for (int i = 0; i < 12; i++)
    test::writeSineWav(base / "full" / strFormat("sfx/%d-s%d/s.wav", 100 + i, i), 3.0, 3000);
  std::filesystem::create_directories(base / "full" / "music");
  openEngine("", "10");
  loadSets();
  for (int i = 0; i < 11; i++) engine->handleSoundByType(100 + i);
  for (int ch = 0; ch < kMixChannels; ch++) EXPECT_NE(kChannelIdle, engine->idPlayingOnChannel(ch));
  test::LogCapture cap;
  engine->handleSoundByType(111);
  EXPECT_TRUE(cap.contains("no free channel for sample 111"));
  EXPECT_FALSE(engine->isSamplePlaying(111));
}

TEST_F(Dispatch, StopCommandsSuppressRepeatedAndTypeRules) {
  makeSet("one");
  openEngine("", "5");
  loadSets();
  settings.noOfStopCmds = 2;
  settings.stopCmds[0] = 99;
  settings.stopCmds[1] = 10;
  engine->handleSoundByType(1);
  ASSERT_EQ(1, engine->musicIdPlaying());
  // A stop id that names an entry plays it and leaves the music alone.
  engine->handleSoundByType(10);
  EXPECT_TRUE(engine->isSamplePlaying(10));
  EXPECT_EQ(1, engine->musicIdPlaying());
  test::LogCapture cap;
  engine->handleSoundByType(99);
  EXPECT_TRUE(cap.contains("stop cmd detected 99, stopping music"));
  EXPECT_EQ(0, engine->musicIdPlaying());

  settings.suppressRepeated = 1;
  engine->handleSoundByType(10);
  EXPECT_TRUE(cap.contains("sample 10 is already playing, skipping cmd"));
  engine->handleSoundByType(1);
  engine->handleSoundByType(1);  // music is never skipped; the running one is kept
  EXPECT_TRUE(cap.contains("Music 1 'theme' is already playing."));

  // A single fades jingles, singles and the music and does not bring the music back.
  engine->handleSoundByType(40);
  EXPECT_EQ(1, engine->pausedMusicId());
  EXPECT_TRUE(cap.contains("fading out music: 1"));
}

TEST_F(Dispatch, BadInputIsLoggedAndChangesNothing) {
  makeSet("one");
  test::writeFile(base / "one/sfx/12-broken/broken.wav", "RIFF this is no audio at all");
  openEngine();
  loadSets();
  test::LogCapture cap;
  engine->handleSoundByType(4711);
  EXPECT_TRUE(cap.contains("sample for id '4711' not found"));
  engine->handleSoundByTypeWithIdx(11, 2, -1);
  EXPECT_TRUE(cap.contains("Sound with id=11, has only 2 sample, requested idx=2"));
  engine->handleSoundByTypeWithIdx(11, -5, -1);
  EXPECT_TRUE(cap.contains("requested idx=-5"));
  EXPECT_FALSE(engine->isSamplePlaying(11));
  // Through playSample an index past the end is clamped to the last variant.
  engine->playSample(11, 3, -1);
  EXPECT_TRUE(cap.contains("playing sample 11:1 "));
  engine->handleSoundByType(12);
  EXPECT_TRUE(cap.contains("could not load sample: 12, 'broken'"));
  EXPECT_FALSE(engine->isSamplePlaying(12));
  EXPECT_EQ(-1, engine->setVolume(129));
  EXPECT_EQ(-1, engine->setVolume(-1));
  EXPECT_TRUE(cap.contains("volume out of range: 129"));
  EXPECT_EQ(100, settings.volume.load());
  // The ignore list of the protocol handlers silences the warning.
  engine->hooks().suppressNotFound = [](int id) { return (id & 0xF000) == 0x6000; };
  test::LogCapture quiet;
  engine->handleSoundByType(0x6123);
  EXPECT_FALSE(quiet.contains("not found"));
}

TEST_F(Dispatch, RepeatFilterAndMainLoopDutiesOnTheManualClock) {
  makeSet("one");
  makeSet("two");
  clock::useManualClock(1000000);
  openEngine();
  loadSets();
  drain();
  test::LogCapture cap;
  engine->soundHandler(5);
  clock::advanceMillis(99);
  engine->soundHandler(5);
  EXPECT_TRUE(cap.contains("supressed repeated cmd: 5"));
  EXPECT_EQ(1, engine->ring().pending());
  clock::advanceMillis(1);
  engine->soundHandler(5);
  EXPECT_EQ(2, engine->ring().pending());
  drain();

  // Two zero-volume commands, then 800 ms quiet: nothing yet; past 800 ms: a step of one.
  engine->countVolumeZero(static_cast<unsigned>(millis()));
  clock::advanceMillis(500);
  engine->countVolumeZero(static_cast<unsigned>(millis()));
  clock::advanceMillis(800);
  engine->updateSound(static_cast<unsigned>(millis()));
  EXPECT_EQ(0, engine->ring().pending());
  clock::advanceMillis(100);
  engine->updateSound(static_cast<unsigned>(millis()));
  SoundServiceRequest req;
  ASSERT_EQ(1, engine->ring().queueGet(&req, 0));
  EXPECT_EQ(SWITCH_SOUNDSET, req.type);
  EXPECT_EQ(1, req.id);

  // Five start shuffle mode: the prompt at volume 20, then a step every three minutes.
  for (int i = 0; i < 5; i++) engine->countVolumeZero(static_cast<unsigned>(millis()));
  clock::advanceMillis(801);
  engine->updateSound(static_cast<unsigned>(millis()));
  EXPECT_TRUE(cap.contains("sounds/shuffle.ogg"));
  EXPECT_EQ(20, engine->musicVolume());
  EXPECT_EQ(0, engine->ring().pending());
  clock::advanceMillis(180001);
  engine->updateSound(static_cast<unsigned>(millis()));
  ASSERT_EQ(1, engine->ring().queueGet(&req, 0));
  EXPECT_EQ(SWITCH_SOUNDSET, req.type);
  EXPECT_EQ(settings.soundSet.load() + 1, req.id);
}

TEST_F(Dispatch, AttractFadeOncePerQuietPeriod) {
  makeSet("one");
  clock::useManualClock(5000000);
  openEngine("", "1");
  loadSets();
  settings.attractTimeOut = 1000;
  engine->handleSoundByType(1);
  ASSERT_EQ(1, engine->musicIdPlaying());
  test::LogCapture cap;
  clock::advanceMillis(1000);
  engine->updateSound(static_cast<unsigned>(millis()));
  EXPECT_FALSE(cap.contains("fading background music"));
  clock::advanceMillis(1);
  engine->updateSound(static_cast<unsigned>(millis()));
  EXPECT_TRUE(cap.contains("-> fading background music"));
  EXPECT_EQ(1, engine->pausedMusicId());
  test::LogCapture again;
  clock::advanceMillis(5000);
  engine->updateSound(static_cast<unsigned>(millis()));
  EXPECT_FALSE(again.contains("fading background music"));
}

TEST_F(Dispatch, CommandStringsReachPortsI2cLuaSerialAndSocket) {
  makeSet("one");
  openEngine("", "10");  // real-time pace: the samples still play at the dump
  loadSets();
  std::vector<std::string> calls;
  auto& h = engine->hooks();
  h.setPortExtenderPin = [&](int pin, bool on) { calls.push_back(strFormat("pin %d %d", pin, on)); };
  h.addPortPinSequence = [&](const std::string& s) { calls.push_back("seq " + s); };
  h.luaRun = [&](const std::string& s) { calls.push_back("lua " + s); };
  h.serialSend = [&](const std::string& s) { calls.push_back("serial " + s); };
  h.sendSocketCmd = [&](const std::string& s) { calls.push_back("socket " + s); };
  auto gpio = createGpio("sim");
  ASSERT_NE(nullptr, gpio);
  h.gpio = gpio.get();
  settings.enable_port_extender = 1;
  settings.luaEnabled = 0;
  settings.enableSerial = 1;
  settings.sms_address = "127.0.0.1";
  test::LogCapture cap;
  engine->playCommand("PORT 3 on; I2CWRITE 0x20 7;PORTSEQ 3 100 0;hello;PORT x;PORTX 1");
  EXPECT_TRUE(cap.contains("writing 0x07 to i2c dev 0x20"));
  EXPECT_TRUE(cap.contains("failed to parse cmd: 'PORT x'"));
  EXPECT_TRUE(cap.contains("unknown port cmd: 'PORTX 1'"));
  const std::vector<std::string> want{"pin 3 1", "seq 3 100 0", "serial hello", "socket hello"};
  EXPECT_EQ(want, calls);
  calls.clear();
  settings.luaEnabled = 1;
  engine->playCommand("print(1)");
  EXPECT_EQ(std::vector<std::string>{"lua print(1)"}, calls);
  engine->playCommand("I2CREAD 0x20");
  EXPECT_TRUE(cap.contains("I2C command not recognized: I2CREAD 0x20"));
  // The sample's own string goes out when it plays, before any check.
  {
    auto lk = engine->lock();
    engine->getSampleForId(10)->serialcmd = "PORT 4 off";
  }
  calls.clear();
  engine->handleSoundByType(10);
  EXPECT_EQ(std::vector<std::string>{"pin 4 0"}, calls);
  // A Lua command may call back into the engine: it runs after the engine lock is let go.
  settings.luaEnabled = 1;
  h.luaRun = [&](const std::string&) { engine->handleSoundByType(20); };
  {
    auto lk = engine->lock();
    engine->getSampleForId(10)->serialcmd = "playSound(20)";
  }
  engine->handleSoundByType(10);
  EXPECT_TRUE(engine->isSamplePlaying(20));
  test::LogCapture dump(LEVEL_DEBUG);
  engine->handleSoundByType(1);
  engine->dumpWhatsPlaying();
  EXPECT_TRUE(dump.contains("music playing 1, theme"));
  EXPECT_TRUE(dump.contains("sample playing 10, sfx beep on ch"));
}

}  // namespace
}  // namespace korvo
