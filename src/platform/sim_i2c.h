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

// SSD1306 OLED controller (address 0x3C). A write starts with a control byte: 0x00 =
// the rest are commands, 0x40 = the rest are display data; with bit 7 (Co) set only one
// byte follows before the next control byte. A read returns the status byte (bit 6 set
// while the display is off).
class SimSsd1306 : public SimI2cDevice {
 public:
  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  std::vector<uint8_t> commands() const;
  std::vector<uint8_t> data() const;
  bool displayOn() const;
  void clear();

 private:
  mutable std::mutex mutex_;  // guards everything below
  std::vector<uint8_t> commands_;
  std::vector<uint8_t> data_;
  bool on_ = false;
};

// ADS1015/ADS1115 ADC (address 0x48). Registers by pointer: 0 conversion, 1 config,
// 2 low threshold, 3 high threshold; 16-bit, most significant byte first on the wire.
// So an SMBus word read returns the value byte-swapped, exactly as on the chip. A
// conversion completes at once: config reads back with OS (bit 15) set.
class SimAds1x15 : public SimI2cDevice {
 public:
  static constexpr uint16_t kConfigDefault = 0x8583;

  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  void setConversion(uint16_t value);
  uint16_t config() const;
  // Register r (0..3) as stored, in natural byte order.
  uint16_t reg(int r) const;
  int configWrites() const;

 private:
  mutable std::mutex mutex_;  // guards everything below
  std::array<uint16_t, 4> regs_{0, kConfigDefault, 0x8000, 0x7FFF};
  int pointer_ = 0;
  int configWrites_ = 0;
};

// Audio DSP (address 0x34): a plain byte memory with 16-bit sub-addresses. A write is
// [address high, address low, data...], data stored at successive addresses; a write of
// only the two address bytes sets the read pointer; reads return successive bytes from
// the pointer. No DSP semantics: tests check what was programmed where.
class SimDsp : public SimI2cDevice {
 public:
  static constexpr std::size_t kMemorySize = 0x10000;
  struct Block {
    uint16_t address;
    std::vector<uint8_t> bytes;
  };

  SimDsp();
  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  std::vector<uint8_t> memory(uint16_t address, std::size_t n) const;
  // Every data write in order.
  std::vector<Block> writes() const;

 private:
  mutable std::mutex mutex_;  // guards everything below
  std::vector<uint8_t> memory_;
  uint16_t pointer_ = 0;
  std::vector<Block> writes_;
};

}  // namespace korvo
