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
  openWithSet();
  // Some silence first, to look at before the first onset.
  ASSERT_TRUE(test::waitFor([&] { return engine->framesMixed() >= 2048; }));
  // Master 128 with neutral gains plays at 128; master 64 at 64: half the amplitude.
  for (int master : {128, 64}) {
    settings.volume = master;
    engine->handleSoundByType(10);
    ASSERT_TRUE(waitIdle(10));
  }
  const auto starts = onsets.get(10);
  ASSERT_EQ(2u, starts.size());
  // The middle of the 0.3 s sample, clear of its edges.
  const uint64_t from = 44100 / 20, len = 44100 * 15 / 100;
  const double soft = capturedRms(starts[1] + from, len);
  ASSERT_GT(soft, 100.0);
  EXPECT_NEAR(2.0, capturedRms(starts[0] + from, len) / soft, 0.02);
  // Nothing plays before the onset frame the counter reported.
  EXPECT_LT(capturedRms(starts[0] - 512, 512), 1.0);

  // The formula's limits: never silent through gains, never above 128.
  struct Case { int master, sampleGain, typeGain, override, want; };
  auto lk = engine->lock();
  AudioSample* s = engine->getSampleForId(10);
  for (const Case& c : {Case{0, 50, 50, -1, 1}, Case{128, 100, 100, -1, 128}, Case{100, 100, 100, 80, 128},
                        Case{40, 100, 100, 0, 1}, Case{40, 60, 45, -1, 45}}) {
    settings.volume = c.master;
    engine->index().setGainByType(SFX, c.typeGain);
    s->gain = c.sampleGain;
    EXPECT_EQ(c.want, engine->getVolumeForSample(s, c.override)) << c.master << " " << c.override;
  }
}

TEST_F(Dispatch, StopCommandsSuppressRepeatedAndTypeRules) {
  settings.playMusicInLoops = 1;
  openWithSet("200");  // a slow device: sample 10 plays on through the checks
  settings.noOfStopCmds = 2;
  settings.stopCmds[0] = 99;
  settings.stopCmds[1] = 10;
  engine->handleSoundByType(1);
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
}

TEST_F(Dispatch, BadInputIsLoggedAndChangesNothing) {
  makeSet("one");
  test::writeFile(base / "one/sfx/12-broken/broken.wav", "RIFF this is no audio at all");
  openEngine();
  loadSets();
  test::LogCapture cap;
  engine->handleSoundByType(4711);
  engine->handleSoundByTypeWithIdx(11, 2, -1);
  engine->handleSoundByTypeWithIdx(11, -5, -1);
  EXPECT_FALSE(engine->isSamplePlaying(11));
  engine->playSample(11, 3, -1);  // here an index past the end is clamped to the last variant
  engine->handleSoundByType(12);
  EXPECT_FALSE(engine->isSamplePlaying(12));
  EXPECT_EQ(-1, engine->setVolume(129));
  EXPECT_EQ(-1, engine->setVolume(-1));
  EXPECT_EQ(100, settings.volume.load());
  for (const char* line : {"sample for id '4711' not found", "Sound with id=11, has only 2 sample, requested idx=2",
                           "requested idx=-5", "playing sample 11:1 ", "could not load sample: 12, 'broken'",
                           "volume out of range: 129"})
    EXPECT_TRUE(cap.contains(line)) << line;
  // The ignore list of the protocol handlers silences the warning.
  engine->hooks().suppressNotFound = [](int id) { return (id & 0xF000) == 0x6000; };
  test::LogCapture quiet;
  engine->handleSoundByType(0x6123);
  EXPECT_FALSE(quiet.contains("not found"));
}

// The handlers' requests land on the engine's ring; the repeat filter, the volume-zero
// gesture (one step after 800 quiet ms, shuffle after five) run on the manual clock.
TEST_F(Dispatch, RepeatFilterAndVolumeZeroGestureOnTheManualClock) {
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

  settings.protocol = WPCDCS;
  SoundEngineProtocolPort port(*engine);
  ProtocolHandlers h(port, settings);
  const uint8_t zero[4] = {0x55, 0xAA, 0x00, 0xFF}, loud[4] = {0x55, 0xAA, 0xC8, 0x37};
  const uint8_t sound[4] = {0x00, 0x0A, 0, 0}, stop[4] = {0, 0, 0, 0};
  h.soundWpcHandler(loud, 0x55);
  h.soundWpcHandler(zero, 0x55);
  clock::advanceMillis(500);
  h.soundWpcHandler(zero, 0x55);
  h.soundWpcHandler(sound, 10);
  h.soundWpcHandler(stop, 0);
  std::vector<std::pair<int, int>> reqs;  // type, id or volume
  SoundServiceRequest req;
  while (engine->ring().queueGet(&req, 0) == 1) reqs.emplace_back(req.type, req.type == SET_VOLUME ? req.volume : req.id);
  EXPECT_EQ(reqs, (std::vector<std::pair<int, int>>{
                      {SET_VOLUME, 100}, {SET_VOLUME, 0}, {SET_VOLUME, 0}, {HANDLE_SND_CMD, 10}, {STOP_ALL, 0}}));
  // 800 ms quiet: nothing yet; past 800 ms: a step of one set.
  const int before = settings.soundSet.load();
  tick(800);
  EXPECT_TRUE(takeSetSwitches().empty());
  tick(100);
  EXPECT_EQ(std::vector<int>{1}, takeSetSwitches());
  SoundServiceRequest step = engine->ring().buildRequest(SWITCH_SOUNDSET);
  step.id = 1;
  engine->doSoundService(step);
  EXPECT_EQ(before % 2 + 1, settings.soundSet.load());
  drain();

  // Five start shuffle mode: the prompt at volume 20, then a step every three minutes.
  for (int i = 0; i < 5; i++) engine->countVolumeZero(static_cast<unsigned>(millis()));
  tick(801);
  EXPECT_TRUE(cap.contains("sounds/shuffle.ogg"));
  EXPECT_EQ(20, engine->musicVolume());
  EXPECT_TRUE(takeSetSwitches().empty());
  tick(180001);
  EXPECT_EQ(std::vector<int>{settings.soundSet.load() + 1}, takeSetSwitches());
}

// A single zero is no gesture, and it is not kept: minutes later another single zero
// does not make two.
TEST_F(Dispatch, AStrayVolumeZeroIsForgottenAfterTheQuietTime) {
  makeSet("one");
  makeSet("two");
  clock::useManualClock(1000000);
  openEngine();
  loadSets();
  drain();
  const int set = settings.soundSet.load();
  engine->countVolumeZero(static_cast<unsigned>(millis()));
  tick(801);
  EXPECT_TRUE(takeSetSwitches().empty());
  clock::advanceMillis(5 * 60 * 1000);
  engine->countVolumeZero(static_cast<unsigned>(millis()));
  tick(801);
  EXPECT_TRUE(takeSetSwitches().empty());
  EXPECT_EQ(set, settings.soundSet.load());
}

TEST_F(Dispatch, AttractFadeOncePerQuietPeriod) {
  clock::useManualClock(5000000);
  settings.playMusicInLoops = 1;
  openWithSet("200");
  settings.attractTimeOut = 1000;
  engine->handleSoundByType(1);
  ASSERT_EQ(1, engine->musicIdPlaying());
  test::LogCapture cap;
  tick(1000);
  EXPECT_FALSE(cap.contains("fading background music"));
  tick(1);
  EXPECT_TRUE(cap.contains("-> fading background music"));
  EXPECT_EQ(1, engine->pausedMusicId());
  test::LogCapture again;
  tick(5000);
  EXPECT_FALSE(again.contains("fading background music"));
}

TEST_F(Dispatch, CommandStringsReachPortsI2cLuaSerialAndSocket) {
  openWithSet("200");  // a slow device: sample 20 still plays at the check
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
  EXPECT_TRUE(cap.contains("unknown port cmd: 'PORTX 1'"));
  EXPECT_EQ((std::vector<std::string>{"pin 3 1", "seq 3 100 0", "serial hello", "socket hello"}), calls);
  calls.clear();
  settings.luaEnabled = 1;
  engine->playCommand("print(1)");
  EXPECT_EQ(std::vector<std::string>{"lua print(1)"}, calls);
  // The sample's own string goes out when it plays, before any check.
  { auto lk = engine->lock(); engine->getSampleForId(10)->serialcmd = "PORT 4 off"; }
  calls.clear();
  engine->handleSoundByType(10);
  EXPECT_EQ(std::vector<std::string>{"pin 4 0"}, calls);
  // A Lua command may call back into the engine: it runs after the engine lock is let go.
  h.luaRun = [&](const std::string&) { engine->handleSoundByType(20); };
  { auto lk = engine->lock(); engine->getSampleForId(10)->serialcmd = "playSound(20)"; }
  engine->handleSoundByType(10);
  EXPECT_TRUE(engine->isSamplePlaying(20));
}

}  // namespace
}  // namespace korvo
