// The simulated board: pin levels in memory, one interrupt thread per registered pin,
// and an I2C bus of device models. Tests, CI and a laptop run the whole daemon on it;
// the simulated CPU board (sim_bus_driver.h) drives its inputs.
//
// Pins 0..63 are board pins. A pin's level is: the output latch when it is an OUTPUT,
// else the level driven from outside (setInput), else its pull (PUD_UP 1, otherwise 0).
// Every change of a pin's level is an edge; an edge that matches a registered interrupt
// is queued for that pin's thread, so each one runs the routine exactly once, in order,
// however fast edges arrive.
//
// Thread safety: every call may come from any thread. One mutex guards the pins and the
// interrupt queues; interrupt routines run without it, so they may call back into the
// pins (read data, pulse an acknowledge). stopInterrupts() must not be called from an
// interrupt routine (it joins that thread).
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "platform/gpio.h"
#include "platform/mcp23017.h"
#include "platform/sim_i2c.h"
#include "platform/sim_i2c_devices.h"

namespace korvo {

// One transition of an output pin.
struct PinEdge {
  uint64_t seq;       // 0, 1, 2 ... per pin
  int level;          // the level after the edge
  unsigned long us;   // micros() when it happened
};

class SimGpio : public Gpio {
 public:
  static constexpr int kPins = 64;
  // I2C addresses of the device models a fresh SimGpio carries.
  static constexpr int kOledAddress = 0x3C;
  static constexpr int kAdcAddress = 0x48;
  static constexpr int kDspAddress = 0x34;
  // Output edges kept per pin; older ones are dropped (sequence numbers keep counting).
  static constexpr std::size_t kHistoryMax = 65536;
  using Timeout = std::chrono::milliseconds;

  SimGpio();
  ~SimGpio() override;
  SimGpio(const SimGpio&) = delete;
  SimGpio& operator=(const SimGpio&) = delete;

  const char* name() const override { return "sim"; }
  int wiringPiSetup() override { return 0; }
  void pinMode(int pin, int mode) override;
  void pullUpDnControl(int pin, int pud) override;
  int digitalRead(int pin) override;
  void digitalWrite(int pin, int value) override;
  // The thread is named "gpio isr <pin>". -1 if the pin already has a routine.
  int wiringPiISR(int pin, int edge, Isr isr) override;
  // Pending edges not yet handled are dropped.
  void stopInterrupts() override;

  bool hasI2C() override { return true; }
  // -1 for an address without a device model.
  int wiringPiI2CSetup(int devId) override;
  int wiringPiI2CRead(int fd) override;
  int wiringPiI2CWrite(int fd, int data) override;
  int wiringPiI2CWriteReg8(int fd, int reg, int data) override;
  int wiringPiI2CWriteReg16(int fd, int reg, int data) override;
  int wiringPiI2CReadReg8(int fd, int reg) override;
  int wiringPiI2CReadReg16(int fd, int reg) override;
  int i2cWriteBlock(int fd, std::span<const uint8_t> bytes) override { return transfer(fd, bytes, {}); }
  int i2cReadBlock(int fd, std::span<uint8_t> out) override { return transfer(fd, {}, out); }
  int mcp23017Setup(int pinBase, int i2cAddress) override;

  // ---- the outside world ----

  // Drives an input from outside; level -1 disconnects it (it then reads its pull).
  void setInput(int pin, int level);
  int pinModeOf(int pin) const;
  int pullOf(int pin) const;
  // The output latch (what digitalWrite last set).
  int outputLevel(int pin) const;
  // Transitions of the pin while it was an OUTPUT, oldest first.
  std::vector<PinEdge> outputEdges(int pin) const;
  // The sequence number the pin's next output edge will get.
  uint64_t nextOutputEdgeSeq(int pin) const;
  // Waits (real time) for an output edge with seq >= `fromSeq` that leaves the pin at
  // `level`. False on time-out.
  bool waitOutputEdge(int pin, uint64_t fromSeq, int level, Timeout timeout);

  // Finished runs of the pin's interrupt routine (0 without one).
  uint64_t isrRuns(int pin) const;
  // Waits (real time) until every edge queued so far for the pin's routine has finished
  // running. True at once when the pin has no routine. False on time-out.
  bool waitIsrIdle(int pin, Timeout timeout);

  // ---- the I2C bus ----

  // Adds or replaces the model at `address`.
  void addI2cDevice(int address, std::unique_ptr<SimI2cDevice> device);
  void removeI2cDevice(int address);
  SimI2cDevice* i2cDevice(int address) const;
  SimMcp23017& portExtender() const;
  SimSsd1306& oled() const;
  SimAds1x15& adc() const;
  SimDsp& dsp() const;

 private:
  struct Pin {
    int mode = INPUT;
    int pud = PUD_OFF;
    int drive = -1;  // level driven from outside, -1 = not connected
    int latch = LOW;
    int level = LOW;
    uint64_t nextSeq = 0;
    std::deque<PinEdge> history;
  };
  struct Interrupt {
    int pin;
    int edge;
    Isr isr;
    std::thread thread;
    std::condition_variable wake;  // with mutex_: an edge was queued or stop was set
    uint64_t queued = 0;
    uint64_t started = 0;
    uint64_t done = 0;
    bool stop = false;
  };

  static bool validPin(int pin) { return pin >= 0 && pin < kPins; }
  // Recomputes the pin's level after a change of mode, pull, drive or latch, records an
  // output edge and queues matching interrupts. Caller holds mutex_.
  void updateLevelLocked(int pin);
  void runInterrupt(Interrupt* irq);
  // One I2C transaction pair under the bus lock: write `out` (if any), then read `in`
  // (if any). -1 without a device or on a refused transfer.
  int transfer(int fd, std::span<const uint8_t> out, std::span<uint8_t> in);

  mutable std::mutex mutex_;         // guards pins_ and interrupts_
  std::condition_variable changed_;  // with mutex_: an output edge or a finished ISR run
  std::array<Pin, kPins> pins_{};
  std::map<int, std::unique_ptr<Interrupt>> interrupts_;

  mutable std::mutex i2cMutex_;  // the bus lock: guards devices_ and handles_
  std::map<int, std::unique_ptr<SimI2cDevice>> devices_;
  std::vector<int> handles_;  // handle -> address

  ExtenderPins extenders_;
};

}  // namespace korvo
