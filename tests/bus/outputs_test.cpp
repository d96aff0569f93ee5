// Shaker, port extender pins and pin sequences on the simulated board, timed with the
// manual clock and the main loop's updatePincom.
#include <gtest/gtest.h>

#include "bus_fixture.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

class OutputsTest : public BusTest {
 protected:
  OutputsTest() {
    s.enable_port_extender = 1;
    s.shakerEnabled = 1;
    s.pinShaker = 8;  // wiringPi 15
    clock::useManualClock(5'000'000);
  }
  void init() { start(DATAEAST); }
  PortExtender& ext() { return pincom->portExtender(); }
  int extPin(int n) { return gpio.portExtender().pinLevel(n); }
  // Runs the main loop's per-millisecond call for each span and checks `level()` after it.
  void expectLevels(const std::function<int()>& level, std::initializer_list<std::pair<unsigned, int>> steps) {
    for (auto [ms, want] : steps) {
      for (unsigned i = 0; i < ms; ++i) {
        clock::advanceMillis(1);
        pincom->updatePincom(static_cast<unsigned>(millis()));
      }
      EXPECT_EQ(level(), want) << "after " << ms << " ms";
    }
  }
  void run(unsigned ms) { expectLevels([] { return 0; }, {{ms, 0}}); }
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
  auto shaker = [&] { return gpio.outputLevel(15); };
  pincom->shaker().playbackShakerSequence({200, 100, 300});
  // On at once; each phase switches only once past its time; off at the end.
  expectLevels(shaker, {{0, HIGH}, {200, HIGH}, {1, LOW}, {101, HIGH}, {301, LOW}});
  EXPECT_FALSE(pincom->shaker().patternRunning());
  pincom->shaker().playbackShakerSequence({300});
  run(250);
  pincom->shaker().playbackShakerSequence({100});
  expectLevels(shaker, {{100, HIGH}, {1, LOW}});
  pincom->shaker().playbackShakerSequence({});
  EXPECT_FALSE(pincom->shaker().patternRunning());
}

TEST_F(OutputsTest, PortSeqTogglesOnTime) {
  init();
  ext().sendPortCmd("PORTSEQ 101 500 500");
  expectLevels([&] { return extPin(1); }, {{0, 0}, {1, 1}, {500, 1}, {1, 0}});  // on at the first pass
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
