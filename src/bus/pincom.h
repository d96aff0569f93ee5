// Capture of sound commands from the machine's sound bus, per wire protocol.
//
// The machine's CPU board puts a byte on the 8 data lines and signals it with a strobe.
// initGpio() configures the pins for the protocol and installs one interrupt routine
// on the strobe pin; each strobe reads the byte, assembles one- to four-byte commands
// under the protocol's rules and inter-byte time-out, hands each complete command to
// the consumer and, for the Data East and Whitestar families, pulses the sound
// acknowledge line back to the CPU board.
//
// Threads: the interrupt routine runs on the Gpio's interrupt thread of the strobe pin
// (named "isr de", "isr ws" or "isr wpc" on its first strobe). Replay runs the same
// routine from the main thread through triggerInterrupt(); the assembly state is guarded
// by one mutex so both never interleave. Consumers are called on the calling thread
// without that mutex held and must only queue work. updatePincom() and ackMusic() run
// on the main loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>

#include "bus/pin_tables.h"
#include "bus/port_extender.h"
#include "bus/shaker.h"
#include "core/settings.h"
#include "platform/gpio.h"

namespace korvo {

class SessionRecorder;

// Who receives complete commands. Empty functions drop the command (IO test mode logs).
struct PincomConsumers {
  // Data East family: one byte.
  std::function<void(unsigned command)> soundHandler;
  // WPC and WPC-DCS: the 4 raw bytes and the command value.
  std::function<void(const uint8_t* cmd, unsigned value)> soundWpcHandler;
  // Whitestar: the 4 raw bytes and cmd[0] * 256 + cmd[1].
  std::function<void(const uint8_t* cmd, unsigned value)> soundWSHandler;
};

class Pincom {
 public:
  // Whitestar bytes further apart than this start a new command.
  static constexpr unsigned kWhitestarTimeoutMs = 30;
  static constexpr unsigned kWpcTimeoutMs = 40;
  static constexpr unsigned kWpcDcsTimeoutMs = 100;
  static constexpr unsigned kSoundAckMicros = 35;
  static constexpr unsigned kMusicAckMicros = 3;

  // `s` must outlive the object; settings.protocol is read by initGpio().
  Pincom(Gpio& gpio, Settings& s);
  // Stops the Gpio's interrupt threads when this object installed a routine, so no
  // routine runs on a destroyed object.
  ~Pincom();
  Pincom(const Pincom&) = delete;
  Pincom& operator=(const Pincom&) = delete;

  // Set before initGpio(); not changed while interrupts run.
  void setConsumers(PincomConsumers consumers) { consumers_ = std::move(consumers); }
  // The recorder whose recording receives every byte read from the pins (may be null).
  void setRecorder(SessionRecorder* recorder) { recorder_.store(recorder); }

  // Initialises the GPIO library early so the bus pins reach a safe state.
  int preInitGpio();
  // Configures the pins and interrupts for the protocol; a second call logs an ERROR
  // and does nothing.
  void initGpio();
  bool gpioInitDone() const { return gpioInitDone_.load(); }
  int protocol() const { return protocol_.load(); }
  // The data-pin table in force (after the I2S remap).
  const AddressPinTable& addressPins() const { return addressPins_; }

  // The byte on the protocol's data pins, or during a replay the replayed byte: either
  // is counted and appended to a running recording.
  unsigned readSoundAddress(std::optional<uint8_t> replayed = std::nullopt);
  int readSTB();
  void ackSound();
  void ackMusic();
  void clearCmd();

  // Runs the protocol's interrupt routine on the calling thread. With `byte` the
  // routine takes that byte instead of reading the pins (replay of a recording).
  void triggerInterrupt(std::optional<uint8_t> byte = std::nullopt);

  // Main loop, once per millisecond: pin sequences, then the shaker pattern.
  void updatePincom(unsigned now) { extender_.updatePincom(now); }

  PortStates& portStates() { return portStates_; }
  Shaker& shaker() { return shaker_; }
  PortExtender& portExtender() { return extender_; }

  // Commands handed to a consumer and bytes read, since start (for tests and figures).
  uint64_t commandsDelivered() const { return delivered_.load(); }
  uint64_t bytesRead() const { return bytesRead_.load(); }

 private:
  // A complete command, handed to the consumer after the assembly lock is released.
  struct Delivery {
    enum Kind { None, DataEast, Wpc, Whitestar } kind = None;
    uint8_t cmd[4] = {0, 0, 0, 0};
    unsigned value = 0;
  };

  // initGpio's parts: the Data East / Whitestar wiring with acknowledge lines, the WPC
  // wiring, and pin 10 (a driven low output unless it is a data line).
  void setUpAcknowledgedBus(int protocol);
  void setUpWpcBus(int protocol);
  void setUpDataInputs(int protocol);
  void setUpPin10(int protocol);
  void installStrobe(int pin, int edge, const char* threadName);

  void onStrobe(const char* threadName);
  void stbInterrupt(std::optional<uint8_t> byte);
  void whitestarInterrupt(std::optional<uint8_t> byte);
  void wdenInterrupt(std::optional<uint8_t> byte);
  uint8_t fetchByte(std::optional<uint8_t> byte);
  // WPC assembly steps, cmdMutex_ held. dcsRulesLocked is false when the byte was dropped.
  Delivery dcsZeroCommandLocked(uint8_t b);
  Delivery addWpcByteLocked(uint8_t b, bool dcs);
  void wpcLengthLocked(uint8_t b);
  bool dcsRulesLocked(uint8_t b);
  void clearCmdLocked();
  void deliver(const Delivery& d);
  void logByte(const char* prefix, uint8_t b);

  Gpio& gpio_;
  Settings& settings_;
  PincomConsumers consumers_;
  std::atomic<SessionRecorder*> recorder_{nullptr};
  AddressPinTable addressPins_;
  std::atomic<int> protocol_;
  std::atomic<bool> gpioInitDone_{false};
  bool isrInstalled_ = false;

  PortStates portStates_;
  Shaker shaker_;
  PortExtender extender_;

  // Command assembly state.
  std::mutex cmdMutex_;  // guards everything up to the end of this block
  uint8_t cmd_[4] = {0, 0, 0, 0};
  int cmdCount_ = 0;
  int cmdLen_ = 1;
  int count_ = 0;
  bool lastCmdWasZero_ = false;
  unsigned long lastWhitestarByte_ = 0;
  unsigned long lastWpcByte_ = 0;

  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> bytesRead_{0};
};

}  // namespace korvo
