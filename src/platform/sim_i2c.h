// Device models on the simulated I2C bus. Each model works at the level of bytes on the
// wire: one write() or read() call is one transaction (START, address, bytes, STOP), so
// the SMBus-shaped Gpio calls map onto them exactly as the kernel maps them onto a real
// bus (WriteReg8 = [reg, value], ReadReg8 = [reg] then a 1-byte read, and so on).
//
// Thread safety: each model has its own mutex; transactions come from any thread that
// uses the bus, the inspection calls from tests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "platform/mcp23017.h"

namespace korvo {

class SimI2cDevice {
 public:
  virtual ~SimI2cDevice() = default;
  // A write transaction; false = the device did not acknowledge.
  virtual bool write(std::span<const uint8_t> bytes) = 0;
  // A read transaction filling `out`; false = no acknowledge.
  virtual bool read(std::span<uint8_t> out) = 0;
};

// MCP23017 port extender (address 0x20). The first byte of a write selects the register;
// further bytes go to successive registers unless IOCON.SEQOP is set. Writing GPIOx
// writes OLATx, as on the chip. Reading GPIOx gives OLAT for output bits and the
// outside level for input bits: driven with setInput(), else 1 with the pull-up on,
// else 0.
class SimMcp23017 : public SimI2cDevice {
 public:
  struct RegWrite {
    uint8_t reg;
    uint8_t value;
  };

  SimMcp23017();
  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  // Register content as last written (GPIOx reads as the chip would return it).
  uint8_t reg(int r) const;
  // Every register write in order, for tests that check the exact protocol.
  std::vector<RegWrite> writes() const;
  // Level of extender pin 0..15 as the chip drives or reads it.
  int pinLevel(int bit) const;
  // Drives extender input 0..15 from outside; level -1 disconnects it.
  void setInput(int bit, int level);

 private:
  uint8_t readRegLocked(int r) const;
  void writeRegLocked(int r, uint8_t value);

  mutable std::mutex mutex_;  // guards everything below
  std::array<uint8_t, mcp23017::kRegisterCount> regs_{};
  std::array<int, mcp23017::kPins> drive_{};  // -1 = not connected
  int pointer_ = 0;
  std::vector<RegWrite> writes_;
};

}  // namespace korvo
