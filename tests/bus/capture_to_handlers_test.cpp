// From the pins to the engine's requests: the capture feeds the protocol handlers, which
// post volume changes, sound commands and stops, and count the volume-zero gesture.
#include <gtest/gtest.h>

#include "bus_fixture.h"
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

TEST_F(CaptureToHandlersTest, TwoZeroVolumeCommandsStepToTheNextSet) {
  clock::useManualClock(1'000'000);
  wire(WPCDCS);
  VolumeZeroGesture& g = handlers->gesture();
  ASSERT_TRUE(machine->sendCommand({0x55, 0xAA, 0x00, 0xFF}));
  clock::advanceMillis(500);
  ASSERT_TRUE(machine->sendCommand({0x55, 0xAA, 0x00, 0xFF}));
  EXPECT_EQ(g.countVolNull(), 2);
  // The main loop polls: nothing while the burst may go on, then one step forward.
  clock::advanceMillis(800);
  EXPECT_EQ(g.take(static_cast<unsigned>(millis())), 0);
  clock::advanceMillis(1);
  EXPECT_EQ(g.take(static_cast<unsigned>(millis())) - 1, 1);
  EXPECT_EQ(g.countVolNull(), 0);
  EXPECT_EQ(engine.all(), (S{"vol 0", "vol 0"}));
}

TEST_F(CaptureToHandlersTest, DataEastGoesStraightToTheEngine) {
  wire(DATAEAST);
  ASSERT_TRUE(machine->sendByte(0x14));
  ASSERT_TRUE(machine->sendByte(0xFF));
  EXPECT_EQ(engine.all(), (S{"snd 20"}));
}

}  // namespace
}  // namespace korvo::test
