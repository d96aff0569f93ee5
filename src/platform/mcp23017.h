// The MCP23017 16-bit port extender, driven through any backend's I2C calls.
// Every backend routes its extender pins (pin base and up) here, so the register
// protocol is written once and behaves the same on sim, gpiod and wiringPi.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "platform/gpio.h"

namespace korvo {

// Register addresses with IOCON.BANK = 0, the power-on layout.
namespace mcp23017 {
constexpr int IODIRA = 0x00;
constexpr int IODIRB = 0x01;
constexpr int IPOLA = 0x02;
constexpr int IPOLB = 0x03;
constexpr int GPINTENA = 0x04;
constexpr int GPINTENB = 0x05;
constexpr int DEFVALA = 0x06;
constexpr int DEFVALB = 0x07;
constexpr int INTCONA = 0x08;
constexpr int INTCONB = 0x09;
constexpr int IOCON = 0x0A;
constexpr int IOCONB = 0x0B;  // the same register as IOCON
constexpr int GPPUA = 0x0C;
constexpr int GPPUB = 0x0D;
constexpr int INTFA = 0x0E;
constexpr int INTFB = 0x0F;
constexpr int INTCAPA = 0x10;
constexpr int INTCAPB = 0x11;
constexpr int GPIOA = 0x12;
constexpr int GPIOB = 0x13;
constexpr int OLATA = 0x14;
constexpr int OLATB = 0x15;
constexpr int kRegisterCount = 0x16;

constexpr int IOCON_SEQOP = 0x20;  // set = address pointer does not advance
constexpr int kPins = 16;          // A0..A7 = base+0..7, B0..B7 = base+8..15
}  // namespace mcp23017

// One extender. Pin calls do what wiringPi's mcp23017 extension does: read-modify-write
// of IODIR / GPPU / OLAT for the pin's port (always written, even when unchanged), a
// read of GPIO for digitalRead. Outputs are written to OLAT, read back each time rather
// than kept in a shadow copy, so a chip reset or another bus master cannot leave a stale
// copy behind.
//
// Thread safety: any thread may call; a mutex keeps each read-modify-write whole, so
// two threads switching pins of the same port do not lose each other's bits.
class Mcp23017 {
 public:
  // Opens the device at `address` through `bus` and writes IOCON (sequential operation
  // off, as wiringPi does). Null when the device cannot be opened or does not answer.
  static std::unique_ptr<Mcp23017> setup(Gpio& bus, int pinBase, int address);

  int pinBase() const { return pinBase_; }
  bool owns(int pin) const { return pin >= pinBase_ && pin < pinBase_ + mcp23017::kPins; }

  void pinMode(int pin, int mode);
  void pullUpDnControl(int pin, int pud);
  int digitalRead(int pin);
  void digitalWrite(int pin, int value);

 private:
  Mcp23017(Gpio& bus, int fd, int pinBase, int address);
  // reg is the port A register; the port B one follows it for pins 8..15.
  void updateBit(int regA, int pin, bool set);

  Gpio& bus_;
  const int fd_;
  const int pinBase_;
  const int address_;
  std::mutex mutex_;
};

// The extenders of one backend. Backends ask it first for every pin; board pins
// (below kMinPinBase) are answered with null without taking the lock.
class ExtenderPins {
 public:
  // wiringPi reserves pins 0..63 for the board itself.
  static constexpr int kMinPinBase = 64;

  // Gpio::mcp23017Setup: 1 on success, 0 (with an ERROR line) on failure.
  int setup(Gpio& bus, int pinBase, int address);
  // The extender owning `pin`, or null. Valid until the backend is destroyed.
  Mcp23017* find(int pin) const;

 private:
  mutable std::mutex mutex_;  // guards the list; the extenders themselves live on
  std::vector<std::unique_ptr<Mcp23017>> extenders_;
};

}  // namespace korvo
