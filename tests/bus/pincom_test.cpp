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
using Cmd = std::array<uint8_t, 4>;

// Bytes strobed as one burst, then `gapMs` of bus silence on the manual clock.
struct Burst {
  std::vector<uint8_t> bytes;
  unsigned gapMs = 0;
};

TEST(Capture, AssemblyRulesAndTimeOutsPerProtocol) {
  const V bits{0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x5A, 0xA5};
  const std::vector<uint8_t> bitBytes(bits.begin(), bits.end());
  struct Case {
    const char* what;
    int protocol;
    std::vector<Burst> bursts;
    V want;
    const char* thread = nullptr;  // the capture thread's name, where checked
    int acksPerByte = -1;          // sound acknowledge edges per byte, where checked
    int cmdAt = -1;                // a delivery whose four raw bytes are checked
    Cmd cmd{};
  };
  const Case cases[] = {
      {"every byte acknowledged, the idle 0xFF not delivered", DATAEAST, {{{0x2A, 0xFF, 0x00}}}, {0x2A, 0},
       "isr de", 2},
      {"every bit from its row", DATAEAST, {{bitBytes}}, bits},
      {"every bit from its row", DATAEAST2, {{bitBytes}}, bits},
      {"every bit from its row, pin 10 an input", DATAEAST3, {{bitBytes}}, bits},
      {"every bit from its row", DATAEAST_X, {{bitBytes}}, bits},
      {"0xFD 0xFE x y, 0xFD 0x12, 0xF0 0x00 as the stop", WHITESTAR,
       {{{0xFD, 0xFE, 0x12, 0x34}}, {{0xFD, 0x12}}, {{0xF0, 0x00}}, {{0x01, 0x23}}}, {0xFDFE, 0xFD12, 0, 0x0123},
       "isr ws", 2, 0, {0xFD, 0xFE, 0x12, 0x34}},
      {"a bad fourth byte drops the command; past 30 ms a new one starts", WHITESTAR,
       {{{0xFD, 0xFE, 0x12, 0xF3}}, {{0x05}, 31}, {{0x06, 0x07}}, {{0x08}, 30}, {{0x09}}}, {0x0607, 0x0809},
       nullptr, 2},
      {"captured on the rising edge", WHITESTAR_X, {{{0x00, 0x42}}}, {0x42}},
      {"length by the first byte, no acknowledge", WPC, {{{0x7A, 0x10}}, {{0x79, 0x10, 0xEF}}, {{0x05}}, {{0x65, 0x01}}},
       {0x7A10, 0x79, 5, 0x6501}, "isr wpc", 0, 1, {0x79, 0x10, 0xEF, 0x00}},
      {"a partial command times out after 40 ms", WPC, {{{0x7A}, 41}, {{0x03}}, {{0x7A}, 40}, {{0x03}}},
       {0x03, 0x7A03}},
      {"two bytes; 0x00 0x00 at once; 0x55 0xAA x y; a lone 0x10 dropped", WPCDCS,
       {{{0x01, 0x23}}, {{0x00, 0x00}}, {{0x55, 0xAA, 0x40, 0xBF}}, {{0x10, 0x02, 0x03}}}, {0x0123, 0, 0x55, 0x0203},
       nullptr, -1, 2, {0x55, 0xAA, 0x40, 0xBF}},
      {"a volume right after 0x00 0x00 restarts at 0x55", WPCDCS, {{{0x00, 0x00, 0x00, 0x55, 0xAA, 0xFF, 0x00}}},
       {0, 0x55}, nullptr, -1, 1, {0x55, 0xAA, 0xFF, 0x00}},
      {"a gap of more than 100 ms restarts", WPCDCS, {{{0x01}, 101}, {{0x02, 0x34}}, {{0x01}, 100}, {{0x02}}},
       {0x0234, 0x0102}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(protocolName(c.protocol)) + ": " + c.what);
    clock::useManualClock(1'000'000);
    Rig r;
    r.start(c.protocol);
    const uint64_t acks = r.gpio.nextOutputEdgeSeq(12);
    std::size_t sent = 0;
    for (const Burst& b : c.bursts) {
      ASSERT_TRUE(r.machine->sendCommand(std::span<const uint8_t>(b.bytes)));
      clock::advanceMillis(b.gapMs);
      sent += b.bytes.size();
    }
    const auto got = r.log.all();
    EXPECT_EQ(r.log.values(), c.want);
    if (c.thread && !got.empty()) {
      EXPECT_EQ(got.back().thread, c.thread);
    }
    if (c.acksPerByte >= 0) {
      EXPECT_EQ(r.gpio.nextOutputEdgeSeq(12) - acks, c.acksPerByte * sent);
    }
    if (c.cmdAt >= 0 && got.size() > static_cast<std::size_t>(c.cmdAt)) {
      EXPECT_EQ(got[c.cmdAt].cmd, c.cmd);
    }
    if (c.protocol == WHITESTAR_X) {
      EXPECT_EQ(r.machine->driver().wiring().strobeEdge, INT_EDGE_RISING);
    }
    if (c.protocol == DATAEAST3) {
      EXPECT_EQ(r.gpio.pinModeOf(10), INPUT);
    }
  }
}

TEST_F(BusTest, InitGpioConfiguresThePinsOnceAndAcknowledgesWithPulses) {
  LogCapture cap;
  s.shakerEnabled = 1;
  s.pinShaker = 8;  // wiringPi 15
  start(DATAEAST);
  struct Pin { int pin, mode, level; };
  for (const Pin& p : {Pin{12, OUTPUT, HIGH}, Pin{14, OUTPUT, LOW}, Pin{10, OUTPUT, LOW}, Pin{15, OUTPUT, LOW}}) {
    EXPECT_EQ(gpio.pinModeOf(p.pin), p.mode) << p.pin;
    EXPECT_EQ(gpio.outputLevel(p.pin), p.level) << p.pin;
  }
  for (int pin : kAddressPins[DATAEAST]) {
    EXPECT_EQ(gpio.pinModeOf(pin), INPUT);
    EXPECT_EQ(gpio.pullOf(pin), PUD_OFF);
  }
  EXPECT_TRUE(cap.contains("shaker enabled, using pin 8"));
  pincom->initGpio();
  EXPECT_TRUE(cap.contains("initGpio was called twice -> skipping"));
  // Sound acknowledge: one low pulse, back high; music acknowledge: one high pulse.
  ASSERT_TRUE(machine->sendByte(0x2A));
  const auto sound = gpio.outputEdges(12);
  ASSERT_GE(sound.size(), 2u);
  EXPECT_EQ(sound[sound.size() - 2].level, LOW);
  EXPECT_EQ(sound.back().level, HIGH);
  const uint64_t from = gpio.nextOutputEdgeSeq(14);
  pincom->ackMusic();
  const auto music = gpio.outputEdges(14);
  ASSERT_EQ(gpio.nextOutputEdgeSeq(14) - from, 2u);
  EXPECT_EQ(music[music.size() - 2].level, HIGH);
  EXPECT_EQ(music.back().level, LOW);
  EXPECT_EQ(pincom->readSTB(), HIGH);  // idle strobe
}

TEST_F(BusTest, I2SRemapReadsBitOneFromPin25) {
  s.enableI2S = 1;
  start(DATAEAST);
  EXPECT_EQ(gpio.pinModeOf(25), INPUT);
  gpio.setInput(1, HIGH);  // the I2S line itself must not be read
  ASSERT_TRUE(machine->sendByte(0x00));
  gpio.setInput(25, HIGH);
  gpio.setInput(13, LOW);
  gpio.setInput(13, HIGH);
  ASSERT_TRUE(gpio.waitIsrIdle(13, std::chrono::seconds(5)));
  EXPECT_EQ(log.values(), (V{0x00, 0x02}));
}

TEST_F(BusTest, Sys11InstallsNoCaptureAndWarns) {
  LogCapture cap;
  start(SYS11);
  EXPECT_TRUE(cap.contains("sys 11 not supported until now."));
  pincom->triggerInterrupt(0x12);
  EXPECT_TRUE(log.all().empty());
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

TEST_F(BusTest, ReplayedByteIsReadWithoutThePinsOrRenamingTheThread) {
  start(DATAEAST);
  char before[32] = {0};
  getThreadName(before, sizeof before);
  pincom->triggerInterrupt(0x33);
  const auto got = log.all();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].value, 0x33u);
  EXPECT_EQ(got[0].thread, before);
  // Counted as a byte read, like a live one.
  EXPECT_EQ(pincom->bytesRead(), 1u);
}

TEST(IoTestMode, CapturesAndLogsWithoutSound) {
  LogCapture cap(LEVEL_INFO);
  SimGpio gpio;
  Settings s;
  initSettings(&s);
  s.enableI2S = 0;
  std::atomic<bool> run{true};
  std::thread t([&] { pincom_main(gpio, s, &run); });
  // The mode says so once the capture is set up.
  ASSERT_TRUE(waitUntil([&] { return cap.contains("io test mode: capturing DATAEAST commands"); }));
  SimBusDriver driver(gpio, simBusWiring(DATAEAST, false));
  EXPECT_TRUE(driver.sendByte(0x11));
  EXPECT_TRUE(waitUntil([&] { return cap.contains("io test: sound command 17 (0x11)"); }));
  run = false;
  t.join();
}

}  // namespace
}  // namespace korvo::test
