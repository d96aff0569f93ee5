// The simulated CPU board against a capture wired the way the bus code wires it.
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "platform/clock.h"
#include "platform/sim_bus_driver.h"
#include "support/manual_clock.h"
#include "support/testutil.h"

namespace korvo {
namespace {

using namespace std::chrono_literals;

// The sound board's side: reads the byte in the strobe's interrupt routine and, when
// it has an acknowledge line, pulses it low for 35 us.
class Capture {
 public:
  Capture(SimGpio& gpio, const SimBusWiring& w, bool acknowledge) : gpio_(gpio), w_(w), ack_(acknowledge) {
    if (w_.ackPin >= 0) {
      gpio_.pinMode(w_.ackPin, OUTPUT);
      gpio_.digitalWrite(w_.ackPin, HIGH);
    }
    for (int bit = 7; bit >= 0; --bit) gpio_.pinMode(w_.dataPins[bit], INPUT);
    gpio_.pinMode(w_.strobePin, INPUT);
    EXPECT_EQ(gpio_.wiringPiISR(w_.strobePin, w_.strobeEdge, [this] { onStrobe(); }), 0);
  }
  std::vector<int> bytes() {
    std::lock_guard lock(m_);
    return bytes_;
  }

 private:
  void onStrobe() {
    int byte = 0;
    for (int bit = 0; bit < 8; ++bit) byte |= gpio_.digitalRead(w_.dataPins[bit]) << bit;
    {
      std::lock_guard lock(m_);
      bytes_.push_back(byte);
    }
    if (ack_ && w_.ackPin >= 0) {
      gpio_.digitalWrite(w_.ackPin, LOW);
      delayMicroseconds(35);
      gpio_.digitalWrite(w_.ackPin, HIGH);
    }
  }

  SimGpio& gpio_;
  const SimBusWiring w_;
  const bool ack_;
  std::mutex m_;
  std::vector<int> bytes_;
};

SimBusWiring dataEast() {
  SimBusWiring w;
  w.dataPins = {3, 1, 2, 0, 4, 5, 6, 7};
  w.strobePin = 13;
  w.strobeEdge = INT_EDGE_FALLING;
  w.ackPin = 12;
  return w;
}

TEST(SimBusDriver, EveryByteArrivesAndIsAcknowledged) {
  SimGpio gpio;
  const SimBusWiring w = dataEast();
  Capture capture(gpio, w, true);
  SimBusDriver board(gpio, w);
  EXPECT_EQ(gpio.digitalRead(w.strobePin), HIGH);  // idles opposite the falling edge

  std::vector<int> sent;
  for (int b = 0; b < 256; ++b) {
    ASSERT_TRUE(board.sendByte(static_cast<uint8_t>(b))) << b;
    sent.push_back(b);
  }
  EXPECT_EQ(capture.bytes(), sent);
  EXPECT_EQ(board.missingAcks(), 0u);
  EXPECT_EQ(board.bytesSent(), 256u);
  EXPECT_EQ(board.strobeTimes().size(), 256u);
  // One rising edge at set-up, then a low and a high per byte.
  EXPECT_EQ(gpio.nextOutputEdgeSeq(w.ackPin), 1u + 2 * 256);
}

TEST(SimBusDriver, FloodOfStrobesKeepsOrderWithRisingEdgeAndRemappedPins) {
  SimGpio gpio;
  SimBusWiring w = dataEast();
  w.strobeEdge = INT_EDGE_RISING;
  w.dataPins[1] = 25;  // a pin row as the I2S remap leaves it
  Capture capture(gpio, w, true);
  SimBusDriver board(gpio, w);
  EXPECT_EQ(gpio.digitalRead(w.strobePin), LOW);

  constexpr int kBytes = 10000;
  std::vector<int> sent;
  for (int i = 0; i < kBytes; ++i) {
    const int b = (i * 37 + i / 256) & 0xFF;
    sent.push_back(b);
    ASSERT_TRUE(board.sendByte(static_cast<uint8_t>(b))) << i;
  }
  EXPECT_EQ(capture.bytes(), sent);
  EXPECT_EQ(board.missingAcks(), 0u);
  EXPECT_EQ(board.isrTimeouts(), 0u);
}

TEST(SimBusDriver, MissingAcknowledgeIsDetected) {
  SimGpio gpio;
  SimBusWiring w = dataEast();
  w.ackTimeout = 20ms;  // the routine has run by then: the pulse would already be there
  Capture capture(gpio, w, false);
  SimBusDriver board(gpio, w);
  test::LogCapture log;
  EXPECT_FALSE(board.sendByte(0x42));
  EXPECT_EQ(board.missingAcks(), 1u);
  EXPECT_EQ(board.isrTimeouts(), 0u);
  EXPECT_EQ(capture.bytes(), std::vector<int>{0x42});  // the byte itself got through
  EXPECT_TRUE(log.contains("no acknowledge on pin 12"));
}

TEST(SimBusDriver, CommandGapAdvancesTheManualClock) {
  test::ManualClock manual(0);  // outlives the board and its interrupt thread
  SimGpio gpio;
  SimBusWiring w;  // WPC: data on 0..7, strobe on pin 8 here, no acknowledge
  w.dataPins = {0, 1, 2, 3, 4, 5, 6, 7};
  w.strobePin = 8;
  w.gapMicros = 50'000;
  Capture capture(gpio, w, false);
  SimBusDriver board(gpio, w);
  EXPECT_TRUE(board.sendCommand({0x79, 0x01, 0x02}));
  EXPECT_EQ(capture.bytes(), (std::vector<int>{0x79, 0x01, 0x02}));
  EXPECT_EQ(board.strobeTimes(), (std::vector<unsigned long>{0, 50'000, 100'000}));
  board.clearStrobeTimes();
  EXPECT_TRUE(board.strobeTimes().empty());
}

}  // namespace
}  // namespace korvo
