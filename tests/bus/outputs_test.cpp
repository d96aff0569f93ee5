// Shaker, port extender pins and pin sequences on the simulated board, timed with the
// manual clock and the main loop's updatePincom.
#include <gtest/gtest.h>

#include "bus/pincom.h"
#include "core/log.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

class OutputsTest : public ::testing::Test {
 protected:
  OutputsTest() {
    initSettings(&s);
    s.enableI2S = 0;
    s.enable_port_extender = 1;
    s.shakerEnabled = 1;
    s.pinShaker = 8;  // wiringPi 15
    clock::useManualClock(5'000'000);
  }
  ~OutputsTest() override {
    pincom.reset();
    clock::useRealClock();
  }
  void init() {
    pincom = std::make_unique<Pincom>(gpio, s);
    pincom->initGpio();
  }
  PortExtender& ext() { return pincom->portExtender(); }
  int extPin(int n) { return gpio.portExtender().pinLevel(n); }
  // Runs the main loop's per-millisecond call for `ms` milliseconds.
  void run(unsigned ms) {
    for (unsigned i = 0; i < ms; ++i) {
      clock::advanceMillis(1);
      pincom->updatePincom(static_cast<unsigned>(millis()));
    }
  }

  Settings s;
  SimGpio gpio;
  std::unique_ptr<Pincom> pincom;
};

TEST_F(OutputsTest, ExtenderPinsAndTheirRange) {
  init();
  EXPECT_TRUE(ext().present());
  EXPECT_EQ(gpio.portExtender().reg(mcp23017::IODIRA), 0x00);  // all outputs
  EXPECT_EQ(gpio.portExtender().reg(mcp23017::IODIRB), 0x00);
  LogCapture cap;
  ext().setPortExtenderPin(99, 1);
  ext().setPortExtenderPin(116, 1);
  EXPECT_TRUE(cap.contains("pin number must be >= 100 and < 116"));
  EXPECT_EQ(pincom->portStates().get(99), 0);
  EXPECT_EQ(pincom->portStates().get(116), 0);
  ext().setPortExtenderPin(100, 1);
  ext().setPortExtenderPin(115, 7);
  EXPECT_EQ(extPin(0), 1);
  EXPECT_EQ(extPin(15), 1);
  EXPECT_EQ(pincom->portStates().get(115), 1);
  ext().setPortExtenderPin(100, 0);
  EXPECT_EQ(extPin(0), 0);
  // The shaker's pin number switches the shaker (and is out of the extender's range).
  ext().setPortExtenderPin(8, 1);
  EXPECT_TRUE(cap.contains("shaker => on"));
  EXPECT_EQ(gpio.outputLevel(15), HIGH);
  EXPECT_EQ(pincom->portStates().get(15), 1);
}

TEST_F(OutputsTest, MissingExtenderKeepsTrackingStates) {
  gpio.removeI2cDevice(kPortExtenderAddress);
  LogCapture cap;
  init();
  EXPECT_TRUE(cap.contains("does not answer"));
  EXPECT_FALSE(ext().present());
  ext().setPortExtenderPin(105, 1);
  EXPECT_EQ(pincom->portStates().get(105), 1);
}

TEST_F(OutputsTest, ShakerActiveLowInvertsLevels) {
  s.shakerActiveLow = 1;
  s.pinShaker = 36;  // wiringPi 27
  init();
  EXPECT_EQ(gpio.outputLevel(27), HIGH);  // off after initGpio
  pincom->shaker().shakerOn();
  EXPECT_EQ(gpio.outputLevel(27), LOW);
  EXPECT_EQ(pincom->portStates().get(27), 1);
  pincom->shaker().shakerOff();
  EXPECT_EQ(gpio.outputLevel(27), HIGH);
}

TEST_F(OutputsTest, ShakerPatternRunsItsPhasesAndANewOneRestartsIt) {
  init();
  pincom->shaker().playbackShakerSequence({200, 100, 300});
  EXPECT_EQ(gpio.outputLevel(15), HIGH);
  run(200);
  EXPECT_EQ(gpio.outputLevel(15), HIGH);  // switches only once past the time
  run(1);
  EXPECT_EQ(gpio.outputLevel(15), LOW);
  run(101);
  EXPECT_EQ(gpio.outputLevel(15), HIGH);
  run(301);
  EXPECT_EQ(gpio.outputLevel(15), LOW);
  EXPECT_FALSE(pincom->shaker().patternRunning());

  pincom->shaker().playbackShakerSequence({300});
  run(250);
  pincom->shaker().playbackShakerSequence({100});
  run(100);
  EXPECT_EQ(gpio.outputLevel(15), HIGH);
  run(1);
  EXPECT_EQ(gpio.outputLevel(15), LOW);
  pincom->shaker().playbackShakerSequence({});
  EXPECT_FALSE(pincom->shaker().patternRunning());
}

TEST_F(OutputsTest, PortSeqTogglesOnTime) {
  init();
  ext().sendPortCmd("PORTSEQ 101 500 500");
  EXPECT_EQ(extPin(1), 0);
  run(1);  // first pass: on
  EXPECT_EQ(extPin(1), 1);
  run(500);
  EXPECT_EQ(extPin(1), 1);
  run(1);
  EXPECT_EQ(extPin(1), 0);
  EXPECT_EQ(ext().runningSequences(), 0u);  // removed at its last toggle
}

TEST_F(OutputsTest, SequencesRunIndependentlyInOrderAdded) {
  init();
  LogCapture cap;
  ext().sendPortCmd("PORTSEQ 101,250\t250");
  ext().portseq(102, {100});
  ext().addPortPinSequence(ext().createPortPinSeq("103"));
  EXPECT_EQ(ext().runningSequences(), 3u);
  run(1);
  // The single-entry and bare sequences end at their first toggle and stay on.
  EXPECT_EQ(ext().runningSequences(), 1u);
  const std::string t = cap.text();
  EXPECT_LT(t.find("working on seq 0"), t.find("working on seq 1"));
  EXPECT_LT(t.find("working on seq 1"), t.find("working on seq 2"));
  EXPECT_EQ(extPin(2), 1);
  EXPECT_EQ(extPin(3), 1);
  run(251);
  EXPECT_EQ(extPin(1), 0);
  EXPECT_EQ(ext().runningSequences(), 0u);
}

TEST_F(OutputsTest, PortCommandsParseOrFailLoudly) {
  init();
  LogCapture cap;
  ext().sendPortCmd("PORT 104 on");
  EXPECT_EQ(extPin(4), 1);
  ext().sendPortCmd("PORT 104 anything");
  EXPECT_EQ(extPin(4), 0);
  ext().sendPortCmd("PORT x");
  EXPECT_TRUE(cap.contains("failed to parse cmd: 'PORT x'"));
  ext().sendPortCmd("PORTABLE 1");
  EXPECT_TRUE(cap.contains("unknown port cmd: 'PORTABLE 1'"));
}

}  // namespace
}  // namespace korvo::test
