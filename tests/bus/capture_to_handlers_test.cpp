// From the pins to the engine: the capture feeds the protocol handlers, which post
// volume changes, sound commands and stops, and count the volume-zero gesture.
#include <algorithm>
#include <gtest/gtest.h>

#include "bus/session_recorder.h"
#include "bus_fixture.h"
#include "sound/engine_fixture.h"
#include "sound/protocol_handlers.h"

namespace korvo::test {
namespace {

// The daemon's wiring: Data East bytes go straight to `de`, the others through `h`.
PincomConsumers consumersFor(ProtocolHandlers& h, std::function<void(unsigned)> de) {
  PincomConsumers c;
  c.soundHandler = std::move(de);
  c.soundWpcHandler = [&h](const uint8_t* cmd, unsigned v) { h.soundWpcHandler(cmd, static_cast<int>(v)); };
  c.soundWSHandler = [&h](const uint8_t* cmd, unsigned v) { h.soundWSHandler(cmd, static_cast<int>(v)); };
  return c;
}

TEST(CaptureToHandlers, AssembledCommandsBecomeTheRightRequests) {
  struct Case {
    int protocol;
    std::vector<std::vector<uint8_t>> cmds;
    std::vector<std::string> want;
  };
  const Case cases[] = {
      // 0x79 v ~v is a volume; a bad complement makes it an ordinary command.
      {WPC, {{0x79, 0x10, 0xEF}, {0x7A, 0x10}, {0x79, 0x10, 0xEE}, {0x00}}, {"vol 64", "cmd 31248", "cmd 121", "stop"}},
      // The volume is posted only when it changes; 0xF0 0x00 is sound 0.
      {WHITESTAR, {{0xFE, 0x10}, {0xFE, 0x10}, {0x00, 0x42}, {0xF0, 0x00}}, {"vol 124", "snd 66", "snd 0"}},
      {WPCDCS, {{0x55, 0xAA, 0x00, 0xFF}, {0x55, 0xAA, 0x00, 0xFF}}, {"zero", "vol 0", "zero", "vol 0"}},
      {DATAEAST, {{0x14}, {0xFF}}, {"snd 20"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(protocolName(c.protocol));
    clock::useManualClock(1'000'000);
    RequestLog engine;
    Rig r;
    ProtocolHandlers handlers(engine, r.s);
    r.start(c.protocol, consumersFor(handlers, [&](unsigned id) { engine.soundHandler(id); }));
    for (const auto& cmd : c.cmds) {
      ASSERT_TRUE(r.machine->sendCommand(std::span<const uint8_t>(cmd)));
      clock::advanceMillis(500);
    }
    EXPECT_EQ(engine.all(), c.want);
    r.pincom.reset();  // the capture thread stops before the handlers go
  }
}

// A capture for the engine's protocol on its own simulated board, wired as the daemon does.
struct EngineCapture {
  EngineCapture(SoundEngine& e, Settings& s) : port(e), handlers(port, s), pincom(gpio, s) {
    pincom.setConsumers(consumersFor(handlers, [&e](unsigned v) { e.soundHandler(v); }));
    pincom.initGpio();
  }
  SimGpio gpio;
  SoundEngineProtocolPort port;
  ProtocolHandlers handlers;
  Pincom pincom;
};

// The whole path on the real engine: a command strobed on the sim pins is captured,
// handed through the handlers to the service thread, and its sample is mixed.
class CaptureIntoEngine : public EngineFixture {
 protected:
  // True when sample `id` starts in the mixer after `bytes` are strobed under `protocol`.
  bool strobeAndHear(int protocol, std::initializer_list<uint8_t> bytes, unsigned id) {
    // The bytes of one command are 0 ms apart on the manual clock: a loaded machine must
    // not stretch them past the protocol's inter-byte time-out. Each command starts a
    // second later, so it never continues the previous one.
    clock::useManualClock(clock::isManual() ? micros() + 1'000'000 : 1'000'000);
    settings.protocol = protocol;
    settings.enableI2S = 0;
    EngineCapture capture(*engine, settings);
    SimMachine machine(capture.gpio, capture.pincom);
    return machine.sendCommand(bytes) && waitFor([&] { return !onsets.get(id).empty(); });
  }
};

TEST_F(CaptureIntoEngine, EachProtocolFamilyPlaysItsCommand) {
  openWithSet();
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
// plays every effect, voice, jingle and single the session names, audibly.
TEST_F(CaptureIntoEngine, DemoSessionPlaysOnTheDemoSet) {
  std::filesystem::copy(sourceDir() / "demo" / "velt-demo", base / "velt-demo",
                        std::filesystem::copy_options::recursive);
  openEngine();
  loadSets();
  settings.protocol = DATAEAST;
  EngineCapture capture(*engine, settings);
  SessionRecorder rec(capture.pincom);
  clock::useManualClock(1'000'000);
  ASSERT_TRUE(rec.startPlayback((sourceDir() / "demo" / "session.rec").string()));
  // The main loop's and the service thread's work per 10 ms of session, done here in
  // their order; then the mixer catches up with the session time, so each sample has
  // at least its own time in the output before the next command can cut it, however
  // loaded the machine is.
  const uint64_t framesAtStart = engine->framesMixed();
  uint64_t sessionMs = 0;
  while (rec.isReplaying()) {
    clock::advanceMillis(10);
    sessionMs += 10;
    const auto now = static_cast<unsigned>(millis());
    rec.updatePlayback(now);
    engine->updateSound(now);
    drain();
    ASSERT_TRUE(waitFor([&] { return engine->framesMixed() >= framesAtStart + sessionMs * 44100 / 1000; }))
        << "the mixer stopped at session ms " << sessionMs;
  }
  for (unsigned id : {10u, 11u, 12u, 13u, 14u, 20u, 21u, 22u, 30u, 40u})
    ASSERT_TRUE(waitFor([&] { return !onsets.get(id).empty(); })) << "id " << id;
  // The first capture read closes the device: every onset read below must be mixed by then.
  uint64_t lastOnset = 0;
  for (unsigned id : {10u, 13u, 20u, 21u, 30u, 40u}) lastOnset = std::max(lastOnset, onsets.get(id)[0]);
  ASSERT_TRUE(waitFor([&] { return engine->framesMixed() > lastOnset + 8192 + 4096; }));
  for (unsigned id : {10u, 13u, 20u, 21u, 30u, 40u}) {  // one of each kind, heard from its onset
    const uint64_t onset = onsets.get(id)[0];
    EXPECT_GT(capturedRms(onset, 8192), 50.0)
        << "id " << id << ", onset frame " << onset << ", frames mixed " << engine->framesMixed();
  }
}

}  // namespace
}  // namespace korvo::test
