// The shaker motor on one GPIO pin and its timed on/off patterns, plus the table of
// output states (`portState`) that the web service reports.
//
// Threads: patterns are started from the sound service thread, HTTP and Lua; the main
// loop advances them with update(now). The pattern state is guarded by one short mutex;
// port states are atomics, read by the web service without a lock.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "core/settings.h"
#include "platform/gpio.h"

namespace korvo {

constexpr int portExtenderPinOffset = kPortExtenderPinBase;  // 100
constexpr int portExtenderPinNumber = 16;

// The last value written to each output, indexed by wiringPi pin number (1 on, 0 off).
class PortStates {
 public:
  // Covers every index up to the last extender pin and leaves room for more extenders.
  static constexpr int kSize = portExtenderPinOffset * 4 + portExtenderPinNumber;  // 416

  void set(int pin, bool on) {
    if (pin >= 0 && pin < kSize) states_[pin].store(on ? 1 : 0, std::memory_order_relaxed);
  }
  uint8_t get(int pin) const {
    return pin >= 0 && pin < kSize ? states_[pin].load(std::memory_order_relaxed) : 0;
  }
  // The number of entries the web service reports: pins 0..115.
  static constexpr int getNumberOfPorts() { return portExtenderPinOffset + portExtenderPinNumber; }
  // A snapshot of the first getNumberOfPorts() entries.
  std::vector<uint8_t> getPortStates() const;

 private:
  std::array<std::atomic<uint8_t>, kSize> states_{};
};

class Shaker {
 public:
  Shaker(Gpio& gpio, const Settings& s, PortStates& states);

  // The wiringPi pin of the physical pin `pinShaker`, -1 when that is not a GPIO.
  int pin() const;
  // Makes the pin an output and switches the motor off (at the end of initGpio).
  void setup();
  void shakerOn();
  void shakerOff();

  // Starts a pattern: durations in ms of alternating phases, "on" first. An empty
  // pattern is ignored; a running one is replaced.
  void playbackShakerSequence(std::vector<int> pattern);
  // Main loop: switches phases whose time has passed.
  void update(unsigned now);
  bool patternRunning() const { return shakerSwitchTime_.load(std::memory_order_acquire) != 0; }

 private:
  void write(bool on);

  Gpio& gpio_;
  const Settings& settings_;
  PortStates& states_;

  std::mutex mutex_;  // guards the pattern fields below
  std::vector<int> pattern_;  // the running pattern (shakerSequenceSample's copy)
  int shakerIndex_ = 0;
  int shakerState_ = 0;
  // millis() of the next switch, 0 = no pattern: read without the lock by the main loop.
  std::atomic<unsigned> shakerSwitchTime_{0};
};

}  // namespace korvo
