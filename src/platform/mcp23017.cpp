#include "platform/mcp23017.h"

#include "base/log.h"

namespace korvo {

using namespace mcp23017;

std::unique_ptr<Mcp23017> Mcp23017::setup(Gpio& bus, int pinBase, int address) {
  const int fd = bus.wiringPiI2CSetup(address);
  if (fd < 0) return nullptr;
  // On a real bus opening the device node succeeds without a device; this first write
  // is what proves the chip is there.
  if (bus.wiringPiI2CWriteReg8(fd, IOCON, IOCON_SEQOP) < 0) return nullptr;
  return std::unique_ptr<Mcp23017>(new Mcp23017(bus, fd, pinBase, address));
}

Mcp23017::Mcp23017(Gpio& bus, int fd, int pinBase, int address)
    : bus_(bus), fd_(fd), pinBase_(pinBase), address_(address) {}

void Mcp23017::updateBit(int regA, int pin, bool set) {
  const int bit = pin - pinBase_;
  const int reg = bit < 8 ? regA : regA + 1;
  const int mask = 1 << (bit & 7);
  std::lock_guard lock(mutex_);
  const int old = bus_.wiringPiI2CReadReg8(fd_, reg);
  if (old < 0) {
    LOG(LEVEL_ERROR, "port extender 0x%02x: reading register 0x%02x failed", address_, reg);
    return;
  }
  const int now = set ? (old | mask) : (old & ~mask);
  if (bus_.wiringPiI2CWriteReg8(fd_, reg, now) < 0)
    LOG(LEVEL_ERROR, "port extender 0x%02x: writing register 0x%02x failed", address_, reg);
}

void Mcp23017::pinMode(int pin, int mode) { updateBit(IODIRA, pin, mode != OUTPUT); }

void Mcp23017::pullUpDnControl(int pin, int pud) {
  // The chip has pull-ups only; PUD_DOWN switches the pull-up off, as in wiringPi.
  updateBit(GPPUA, pin, pud == PUD_UP);
}

void Mcp23017::digitalWrite(int pin, int value) { updateBit(OLATA, pin, value != LOW); }

int Mcp23017::digitalRead(int pin) {
  const int bit = pin - pinBase_;
  const int value = bus_.wiringPiI2CReadReg8(fd_, bit < 8 ? GPIOA : GPIOB);
  if (value < 0) {
    LOG(LEVEL_ERROR, "port extender 0x%02x: reading pin %d failed", address_, pin);
    return LOW;
  }
  return (value >> (bit & 7)) & 1;
}

int ExtenderPins::setup(Gpio& bus, int pinBase, int address) {
  if (pinBase < kMinPinBase) {
    LOG(LEVEL_ERROR, "port extender pin base %d must be >= %d", pinBase, kMinPinBase);
    return 0;
  }
  std::lock_guard lock(mutex_);
  for (const auto& e : extenders_) {
    if (pinBase < e->pinBase() + kPins && e->pinBase() < pinBase + kPins) {
      LOG(LEVEL_ERROR, "port extender pins %d..%d overlap pins %d..%d", pinBase, pinBase + kPins - 1,
          e->pinBase(), e->pinBase() + kPins - 1);
      return 0;
    }
  }
  auto ext = Mcp23017::setup(bus, pinBase, address);
  if (!ext) {
    LOG(LEVEL_ERROR, "port extender at I2C address 0x%02x does not answer", address);
    return 0;
  }
  extenders_.push_back(std::move(ext));
  return 1;
}

Mcp23017* ExtenderPins::find(int pin) const {
  if (pin < kMinPinBase) return nullptr;  // board pins: no lock on the interrupt path
  std::lock_guard lock(mutex_);
  for (const auto& e : extenders_)
    if (e->owns(pin)) return e.get();
  return nullptr;
}

}  // namespace korvo
