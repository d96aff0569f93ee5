// From the pins to the engine's requests: the capture feeds the protocol handlers, which
// post volume changes, sound commands and stops, and count the volume-zero gesture.
#include <gtest/gtest.h>

#include "bus/session_recorder.h"
#include "bus_fixture.h"
#include "sound/engine_fixture.h"
#include "sound/protocol_handlers.h"

namespace korvo::test {
namespace {

// The engine side: records each request as text.
class RequestLog : public ProtocolEngine {
 public:
  void soundHandler(unsigned id) override { add("snd " + std::to_string(id)); }
  void postSoundCommand(int id) override { add("cmd " + std::to_string(id)); }
  void postSetVolume(int v) override { add("vol " + std::to_string(v)); }
  void postStopAll() override { add("stop"); }
  void countVolumeZero(unsigned) override { add("zero"); }
  std::vector<std::string> all() const {
    std::lock_guard lock(m_);
    return got_;
  }

 private:
  void add(std::string s) {
    std::lock_guard lock(m_);
    got_.push_back(std::move(s));
  }
  mutable std::mutex m_;
  std::vector<std::string> got_;
};

class CaptureToHandlersTest : public BusTest {
 protected:
  void wire(int protocol) {
    s.protocol = protocol;
    pincom = std::make_unique<Pincom>(gpio, s);
    handlers = std::make_unique<ProtocolHandlers>(engine, s);
    PincomConsumers c;
    c.soundHandler = [this](unsigned id) { engine.soundHandler(id); };
    c.soundWpcHandler = [this](const uint8_t* cmd, unsigned v) { handlers->soundWpcHandler(cmd, static_cast<int>(v)); };
    c.soundWSHandler = [this](const uint8_t* cmd, unsigned v) { handlers->soundWSHandler(cmd, static_cast<int>(v)); };
    pincom->setConsumers(std::move(c));
    pincom->initGpio();
    machine = std::make_unique<SimMachine>(gpio, *pincom);
  }
  using S = std::vector<std::string>;
  RequestLog engine;
  std::unique_ptr<ProtocolHandlers> handlers;
};

TEST_F(CaptureToHandlersTest, WpcVolumeCommandAndSoundCommands) {
  clock::useManualClock(1'000'000);
  wire(WPC);
  ASSERT_TRUE(machine->sendCommand({0x79, 0x10, 0xEF}));
  ASSERT_TRUE(machine->sendCommand({0x7A, 0x10}));
  ASSERT_TRUE(machine->sendCommand({0x79, 0x10, 0xEE}));  // bad checksum: an ordinary command
  ASSERT_TRUE(machine->sendCommand({0x00}));
  EXPECT_EQ(engine.all(), (S{"vol 64", "cmd 31248", "cmd 121", "stop"}));
}

TEST_F(CaptureToHandlersTest, WhitestarVolumeIsPostedOnlyWhenItChanges) {
  clock::useManualClock(1'000'000);
  wire(WHITESTAR);
  ASSERT_TRUE(machine->sendCommand({0xFE, 0x10}));
  ASSERT_TRUE(machine->sendCommand({0xFE, 0x10}));
  ASSERT_TRUE(machine->sendCommand({0x00, 0x42}));
  ASSERT_TRUE(machine->sendCommand({0xF0, 0x00}));
  EXPECT_EQ(engine.all(), (S{"vol 124", "snd 66", "snd 0"}));
}

TEST_F(CaptureToHandlersTest, ZeroVolumeCommandsAreCountedForTheGesture) {
  clock::useManualClock(1'000'000);
  wire(WPCDCS);
  ASSERT_TRUE(machine->sendCommand({0x55, 0xAA, 0x00, 0xFF}));
  clock::advanceMillis(500);
  ASSERT_TRUE(machine->sendCommand({0x55, 0xAA, 0x00, 0xFF}));
  EXPECT_EQ(engine.all(), (S{"zero", "vol 0", "zero", "vol 0"}));
}

TEST_F(CaptureToHandlersTest, DataEastGoesStraightToTheEngine) {
  wire(DATAEAST);
  ASSERT_TRUE(machine->sendByte(0x14));
  ASSERT_TRUE(machine->sendByte(0xFF));
  EXPECT_EQ(engine.all(), (S{"snd 20"}));
}

// The whole path on the real engine: a command strobed on the sim pins is captured,
// handed through the handlers to the service thread, and its sample is mixed.
class CaptureIntoEngine : public EngineFixture {
 protected:
  // Wires a capture for `protocol` into the running engine and strobes `bytes`; true
  // when sample `id` then starts in the mixer.
  bool strobeAndHear(int protocol, std::initializer_list<uint8_t> bytes, unsigned id) {
    settings.protocol = protocol;
    settings.enableI2S = 0;
    SimGpio gpio;
    SoundEngineProtocolPort port(*engine);
    ProtocolHandlers handlers(port, settings);
    Pincom pincom(gpio, settings);
    PincomConsumers c;
    c.soundHandler = [&](unsigned v) { engine->soundHandler(v); };
    c.soundWpcHandler = [&](const uint8_t* cmd, unsigned v) { handlers.soundWpcHandler(cmd, static_cast<int>(v)); };
    c.soundWSHandler = [&](const uint8_t* cmd, unsigned v) { handlers.soundWSHandler(cmd, static_cast<int>(v)); };
    pincom.setConsumers(std::move(c));
    pincom.initGpio();
    SimMachine machine(gpio, pincom);
    if (!machine.sendCommand(bytes)) return false;
    return waitFor([&] { return !onsets.get(id).empty(); });
  }
};

TEST_F(CaptureIntoEngine, EachProtocolFamilyPlaysItsCommand) {
  makeSet("one");
  openEngine();
  loadSets();
  engine->startSoundServiceThread();
  EXPECT_TRUE(strobeAndHear(DATAEAST, {10}, 10));
  EXPECT_TRUE(strobeAndHear(WHITESTAR, {0x00, 20}, 20));
  EXPECT_TRUE(strobeAndHear(WPCDCS, {0x00, 30}, 30));
  EXPECT_TRUE(strobeAndHear(WPC, {40}, 40));
  // The sample is really in the output: the captured signal at its onset is not silent.
  const auto at = onsets.get(10);
  ASSERT_FALSE(at.empty());
  EXPECT_GT(capturedRms(at[0], 4410), 1000.0);
  engine->stopSoundServiceThread();
}

// The demo: demo/session.rec replayed from the main loop against the demo sound set
// plays every effect, voice, jingle and single the session names.
TEST_F(CaptureIntoEngine, DemoSessionPlaysOnTheDemoSet) {
  std::filesystem::copy(sourceDir() / "demo" / "velt-demo", base / "velt-demo",
                        std::filesystem::copy_options::recursive);
  openEngine();
  loadSets();
  engine->startSoundServiceThread();
  settings.protocol = DATAEAST;
  SimGpio gpio;
  Pincom pincom(gpio, settings);
  PincomConsumers c;
  c.soundHandler = [&](unsigned v) { engine->soundHandler(v); };
  pincom.setConsumers(std::move(c));
  pincom.initGpio();
  SessionRecorder rec(pincom);
  clock::useManualClock(1'000'000);
  ASSERT_TRUE(rec.startPlayback((sourceDir() / "demo" / "session.rec").string()));
  // Ten times faster than the game: 10 ms of session per real millisecond.
  while (rec.isReplaying()) {
    clock::advanceMillis(10);
    rec.updatePlayback(static_cast<unsigned>(millis()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (unsigned id : {10u, 11u, 12u, 13u, 14u, 20u, 21u, 22u, 30u, 40u})
    EXPECT_TRUE(waitFor([&] { return !onsets.get(id).empty(); })) << "id " << id;
  engine->stopSoundServiceThread();
}

}  // namespace
}  // namespace korvo::test
