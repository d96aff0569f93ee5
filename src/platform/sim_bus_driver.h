// The simulated CPU board: plays the pinball machine's side of the sound bus on the sim
// pins. For each byte it sets the data pins, produces the strobe edge, returns the strobe
// to idle, then waits until the capture's interrupt routine for that strobe has finished
// and, where the protocol has one, for the acknowledge pulse. Waiting for the routine is
// what lets it strobe at full speed without overrunning the capture.
//
// Thread safety: one thread sends at a time; the counters and strobe times may be read
// from any thread.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <span>
#include <vector>

#include "platform/sim_gpio.h"

namespace korvo {

struct SimBusWiring {
  std::array<int, 8> dataPins{};  // data bit i is on dataPins[i] (already I2S-remapped)
  int strobePin = 0;
  // INT_EDGE_FALLING or INT_EDGE_RISING; the strobe idles at the opposite level.
  int strobeEdge = INT_EDGE_FALLING;
  // The sound acknowledge output the board pulses LOW after each byte; -1 for none.
  int ackPin = -1;
  // Pause between the bytes of one command, through delayMicroseconds (so under the
  // manual clock it advances the clock instead of sleeping).
  unsigned gapMicros = 0;
  // Real-time limit for the interrupt routine of one byte (generous: a loaded machine
  // may hold the interrupt thread back).
  std::chrono::milliseconds timeout{1000};
  // Real-time limit for the acknowledge once the routine has finished. The routine pulses
  // it before it returns, so a short limit only matters for a missing acknowledge.
  std::chrono::milliseconds ackTimeout{1000};
};

class SimBusDriver {
 public:
  // Drives the data pins low and the strobe to its idle level.
  SimBusDriver(SimGpio& gpio, const SimBusWiring& wiring);

  // False when the interrupt routine did not finish or the acknowledge did not come
  // within the time-out (each counted).
  bool sendByte(uint8_t byte);
  // The bytes with the gap between them; false if any byte failed (all are still sent).
  bool sendCommand(std::span<const uint8_t> bytes);
  bool sendCommand(std::initializer_list<uint8_t> bytes) {
    return sendCommand(std::span<const uint8_t>(bytes.begin(), bytes.size()));
  }

  uint64_t bytesSent() const { return bytesSent_.load(); }
  uint64_t missingAcks() const { return missingAcks_.load(); }
  uint64_t isrTimeouts() const { return isrTimeouts_.load(); }
  // micros() at each strobe edge, in order, kept until clearStrobeTimes() (for
  // strobe-to-sound latency figures).
  std::vector<unsigned long> strobeTimes() const;
  void clearStrobeTimes();
  const SimBusWiring& wiring() const { return wiring_; }

 private:
  SimGpio& gpio_;
  const SimBusWiring wiring_;
  const int activeLevel_;
  std::atomic<uint64_t> bytesSent_{0};
  std::atomic<uint64_t> missingAcks_{0};
  std::atomic<uint64_t> isrTimeouts_{0};
  mutable std::mutex timesMutex_;  // guards strobeTimes_
  std::vector<unsigned long> strobeTimes_;
};

}  // namespace korvo
