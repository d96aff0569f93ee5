// The capture per wire protocol, end to end on the simulated board: the CPU board puts
// bytes on the pins and strobes, the interrupt thread assembles and hands them on.
#include <gtest/gtest.h>

#include <thread>

#include "bus/io_test.h"
#include "bus_fixture.h"
#include "support/testutil.h"

namespace korvo::test {
namespace {

using V = std::vector<unsigned>;

TEST_F(BusTest, DataEastByteIsAcknowledgedAndDeliveredOnItsThread) {
  start(DATAEAST);
  const uint64_t ackEdges = gpio.nextOutputEdgeSeq(12);
  ASSERT_TRUE(machine->sendByte(0x2A));
  const auto got = log.all();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].kind, Received::DataEast);
  EXPECT_EQ(got[0].value, 0x2Au);
  EXPECT_EQ(got[0].thread, "isr de");
  // One low pulse on the sound acknowledge line, back high.
  const auto edges = gpio.outputEdges(12);
  ASSERT_EQ(gpio.nextOutputEdgeSeq(12) - ackEdges, 2u);
  EXPECT_EQ(edges.back().level, HIGH);
  EXPECT_EQ(edges[edges.size() - 2].level, LOW);
}

TEST_F(BusTest, DataEastIdleByteIsAcknowledgedButIgnored) {
  start(DATAEAST);
  const uint64_t ackEdges = gpio.nextOutputEdgeSeq(12);
  ASSERT_TRUE(machine->sendByte(0xFF));
  EXPECT_TRUE(log.all().empty());
  EXPECT_EQ(gpio.nextOutputEdgeSeq(12) - ackEdges, 2u);
  ASSERT_TRUE(machine->sendByte(0x00));
  EXPECT_EQ(log.values(), V{0});
}

TEST_F(BusTest, EveryDataEastVariantReadsEveryBitFromItsRow) {
  for (int p : {DATAEAST, DATAEAST2, DATAEAST3, DATAEAST_X}) {
    SCOPED_TRACE(protocolName(p));
    SimGpio board;
    Settings st;
    initSettings(&st);
    st.enableI2S = 0;
    st.protocol = p;
    CommandLog got;
    {
      Pincom pc(board, st);
      pc.setConsumers(got.consumers());
      pc.initGpio();
      SimMachine m(board, pc);
      for (uint8_t b : {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x5A, 0xA5}) ASSERT_TRUE(m.sendByte(b));
    }
    EXPECT_EQ(got.values(), (V{0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x5A, 0xA5}));
  }
}

TEST_F(BusTest, I2SRemapReadsBitOneFromPin25) {
  s.enableI2S = 1;
  start(DATAEAST);
  EXPECT_EQ(pincom->addressPins()[DATAEAST][1], 25);
  EXPECT_EQ(gpio.pinModeOf(25), INPUT);
  gpio.setInput(1, HIGH);  // the I2S line itself must not be read
  ASSERT_TRUE(machine->sendByte(0x00));
  gpio.setInput(25, HIGH);
  gpio.setInput(13, LOW);
  gpio.setInput(13, HIGH);
  ASSERT_TRUE(gpio.waitIsrIdle(13, std::chrono::seconds(5)));
  EXPECT_EQ(log.values(), (V{0x00, 0x02}));
}

TEST_F(BusTest, InitGpioConfiguresTheDataEastPins) {
  LogCapture cap;
  s.shakerEnabled = 1;
  s.pinShaker = 8;
  start(DATAEAST);
  EXPECT_EQ(gpio.pinModeOf(12), OUTPUT);
  EXPECT_EQ(gpio.outputLevel(12), HIGH);
  EXPECT_EQ(gpio.pinModeOf(14), OUTPUT);
  EXPECT_EQ(gpio.outputLevel(14), LOW);
  for (int pin : kAddressPins[DATAEAST]) {
    EXPECT_EQ(gpio.pinModeOf(pin), INPUT);
    EXPECT_EQ(gpio.pullOf(pin), PUD_OFF);
  }
  EXPECT_EQ(gpio.pinModeOf(10), OUTPUT);
  EXPECT_EQ(gpio.outputLevel(10), LOW);
  EXPECT_EQ(gpio.pinModeOf(15), OUTPUT);  // physical 8
  EXPECT_EQ(gpio.outputLevel(15), LOW);
  EXPECT_TRUE(cap.contains("setting up GPIO for DATAEAST"));
  EXPECT_TRUE(cap.contains("shaker enabled, using pin 8"));

  pincom->initGpio();
  EXPECT_TRUE(cap.contains("initGpio was called twice -> skipping"));
}

TEST_F(BusTest, DataEast3KeepsPin10AsItsDataInput) {
  start(DATAEAST3);
  EXPECT_EQ(gpio.pinModeOf(10), INPUT);
  EXPECT_EQ(gpio.outputLevel(5), LOW);  // music ack
  ASSERT_TRUE(machine->sendByte(0x10));
  EXPECT_EQ(log.values(), V{0x10});
}

TEST_F(BusTest, Sys11InstallsNoCaptureAndWarns) {
  LogCapture cap;
  start(SYS11);
  EXPECT_TRUE(cap.contains("sys 11 not supported until now."));
  EXPECT_EQ(gpio.pinModeOf(10), OUTPUT);
  pincom->triggerInterrupt(0x12);
  EXPECT_TRUE(log.all().empty());
}

TEST_F(BusTest, WhitestarAssemblesTwoAndFourByteCommands) {
  clock::useManualClock(1'000'000);
  start(WHITESTAR);
  ASSERT_TRUE(machine->sendCommand({0xFD, 0xFE, 0x12, 0x34}));
  ASSERT_TRUE(machine->sendCommand({0xFD, 0x12}));
  ASSERT_TRUE(machine->sendCommand({0xF0, 0x00}));
  ASSERT_TRUE(machine->sendCommand({0x01, 0x23}));
  const auto got = log.all();
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0].cmd, (std::array<uint8_t, 4>{0xFD, 0xFE, 0x12, 0x34}));
  EXPECT_EQ(got[0].value, 0xFDFEu);
  EXPECT_EQ(got[1].value, 0xFD12u);
  EXPECT_EQ(got[2].value, 0u);  // 0xF0 0x00 is the stop
  EXPECT_EQ(got[2].cmd[0], 0);
  EXPECT_EQ(got[3].value, 0x0123u);
  EXPECT_EQ(got[3].thread, "isr ws");
}

TEST_F(BusTest, WhitestarDropsBadFourthByteAndRestartsAfterTimeout) {
  clock::useManualClock(1'000'000);
  start(WHITESTAR);
  const uint64_t ackEdges = gpio.nextOutputEdgeSeq(12);
  ASSERT_TRUE(machine->sendCommand({0xFD, 0xFE, 0x12, 0xF3}));
  EXPECT_TRUE(log.all().empty());
  EXPECT_EQ(gpio.nextOutputEdgeSeq(12) - ackEdges, 8u);  // every byte acknowledged

  // A lone byte, then 31 ms of silence: the next byte starts a new command.
  ASSERT_TRUE(machine->sendByte(0x05));
  clock::advanceMillis(31);
  ASSERT_TRUE(machine->sendCommand({0x06, 0x07}));
  EXPECT_EQ(log.values(), V{0x0607});
  // 30 ms exactly is still the same command.
  log.clear();
  ASSERT_TRUE(machine->sendByte(0x08));
  clock::advanceMillis(30);
  ASSERT_TRUE(machine->sendByte(0x09));
  EXPECT_EQ(log.values(), V{0x0809});
}

TEST_F(BusTest, WhitestarXCapturesOnTheRisingEdge) {
  start(WHITESTAR_X);
  EXPECT_EQ(machine->driver().wiring().strobeEdge, INT_EDGE_RISING);
  ASSERT_TRUE(machine->sendCommand({0x00, 0x42}));
  EXPECT_EQ(log.values(), V{0x42});
}

TEST_F(BusTest, WpcLengthsByFirstByte) {
  clock::useManualClock(1'000'000);
  start(WPC);
  ASSERT_TRUE(machine->sendCommand({0x7A, 0x10}));
  ASSERT_TRUE(machine->sendCommand({0x79, 0x10, 0xEF}));
  ASSERT_TRUE(machine->sendCommand({0x05}));
  ASSERT_TRUE(machine->sendCommand({0x65, 0x01}));
  const auto got = log.all();
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0].value, 0x7A10u);
  EXPECT_EQ(got[1].value, 0x79u);
  EXPECT_EQ(got[1].cmd, (std::array<uint8_t, 4>{0x79, 0x10, 0xEF, 0x00}));
  EXPECT_EQ(got[2].value, 5u);
  EXPECT_EQ(got[3].value, 0x6501u);
  EXPECT_EQ(got[0].thread, "isr wpc");
  // WPC has no acknowledge: pin 12 stays untouched.
  EXPECT_EQ(gpio.nextOutputEdgeSeq(12), 0u);
}

TEST_F(BusTest, WpcPartialCommandTimesOutAfter40ms) {
  clock::useManualClock(1'000'000);
  start(WPC);
  ASSERT_TRUE(machine->sendByte(0x7A));
  clock::advanceMillis(41);
  ASSERT_TRUE(machine->sendByte(0x03));
  EXPECT_EQ(log.values(), V{0x03});
  log.clear();
  ASSERT_TRUE(machine->sendByte(0x7A));
  clock::advanceMillis(40);
  ASSERT_TRUE(machine->sendByte(0x03));
  EXPECT_EQ(log.values(), V{0x7A03});
}

TEST_F(BusTest, WpcDcsAssembly) {
  clock::useManualClock(1'000'000);
  start(WPCDCS);
  ASSERT_TRUE(machine->sendCommand({0x01, 0x23}));
  ASSERT_TRUE(machine->sendCommand({0x00, 0x00}));  // reported at once as 0
  ASSERT_TRUE(machine->sendCommand({0x55, 0xAA, 0x40, 0xBF}));
  ASSERT_TRUE(machine->sendCommand({0x10, 0x02, 0x03}));  // 0x10 dropped, then 0x0203
  const auto got = log.all();
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0].value, 0x0123u);
  EXPECT_EQ(got[1].value, 0u);
  EXPECT_EQ(got[2].value, 0x55u);
  EXPECT_EQ(got[2].cmd, (std::array<uint8_t, 4>{0x55, 0xAA, 0x40, 0xBF}));
  EXPECT_EQ(got[3].value, 0x0203u);
}

TEST_F(BusTest, WpcDcsVolumeRightAfterZeroCommandRestartsAt0x55) {
  clock::useManualClock(1'000'000);
  start(WPCDCS);
  ASSERT_TRUE(machine->sendCommand({0x00, 0x00, 0x00, 0x55, 0xAA, 0xFF, 0x00}));
  const auto got = log.all();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].value, 0u);
  EXPECT_EQ(got[1].cmd, (std::array<uint8_t, 4>{0x55, 0xAA, 0xFF, 0x00}));
}

TEST_F(BusTest, WpcDcsGapOf100msOrMoreRestarts) {
  clock::useManualClock(1'000'000);
  start(WPCDCS);
  ASSERT_TRUE(machine->sendByte(0x01));
  clock::advanceMillis(101);
  ASSERT_TRUE(machine->sendCommand({0x02, 0x34}));
  EXPECT_EQ(log.values(), V{0x0234});
  log.clear();
  ASSERT_TRUE(machine->sendByte(0x01));
  clock::advanceMillis(100);
  ASSERT_TRUE(machine->sendByte(0x02));
  EXPECT_EQ(log.values(), V{0x0102});
}

TEST_F(BusTest, GarbageAndPartialCommandsNeverStopCapture) {
  clock::useManualClock(1'000'000);
  start(WPCDCS);
  // Random noise, half commands and long gaps, then a clean command still arrives.
  uint32_t x = 12345;
  for (int i = 0; i < 300; ++i) {
    x = x * 1103515245u + 12345u;
    ASSERT_TRUE(machine->sendByte(static_cast<uint8_t>(x >> 16)));
    if (i % 37 == 0) clock::advanceMillis(150);
  }
  clock::advanceMillis(150);
  log.clear();
  ASSERT_TRUE(machine->sendCommand({0x03, 0x21}));
  EXPECT_EQ(log.values(), V{0x0321});
}

TEST_F(BusTest, ReplayedByteDoesNotTouchThePinsOrRenameTheThread) {
  start(DATAEAST);
  char before[32] = {0};
  getThreadName(before, sizeof before);
  pincom->triggerInterrupt(0x33);
  const auto got = log.all();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].value, 0x33u);
  EXPECT_EQ(got[0].thread, before);
  EXPECT_EQ(pincom->bytesRead(), 0u);
}

TEST_F(BusTest, AckMusicPulsesHighOnlyWhereTheProtocolHasTheLine) {
  start(DATAEAST);
  const uint64_t from = gpio.nextOutputEdgeSeq(14);
  pincom->ackMusic();
  const auto edges = gpio.outputEdges(14);
  ASSERT_EQ(gpio.nextOutputEdgeSeq(14) - from, 2u);
  EXPECT_EQ(edges[edges.size() - 2].level, HIGH);
  EXPECT_EQ(edges.back().level, LOW);
  EXPECT_EQ(pincom->readSTB(), HIGH);  // idle strobe
}

TEST(IoTestMode, CapturesAndLogsWithoutSound) {
  LogCapture cap(LEVEL_INFO);
  SimGpio gpio;
  Settings s;
  initSettings(&s);
  s.enableI2S = 0;
  std::atomic<bool> run{true};
  std::thread t([&] { pincom_main(gpio, s, &run); });
  // initGpio has run once the strobe pin has its interrupt routine.
  for (int i = 0; i < 500 && gpio.pinModeOf(12) != OUTPUT; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  SimBusDriver driver(gpio, simBusWiring(DATAEAST, false));
  EXPECT_TRUE(driver.sendByte(0x11));
  run = false;
  t.join();
  EXPECT_TRUE(cap.contains("io test: sound command 17 (0x11)"));
}

}  // namespace
}  // namespace korvo::test
