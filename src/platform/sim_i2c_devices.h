// Models of the front-panel and DSP chips on the simulated I2C bus: they decode the
// bytes on the wire the way the chips do, so tests read what a driver really sent
// (a frame buffer, a parameter memory) rather than a list of calls.
//
// Thread safety: each model has its own mutex; transactions come from any thread that
// uses the bus, the inspection and outside-world calls from tests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <span>
#include <vector>

#include "platform/sim_i2c.h"

namespace korvo {

// SSD1306 128x64 OLED controller (address 0x3C). A write starts with a control byte:
// 0x00 = the rest are commands, 0x40 = the rest are display data; with bit 7 (Co) set
// only one byte follows before the next control byte. Commands are decoded with their
// argument bytes (addressing mode, column and page windows, page-mode addresses); data
// lands in the 1024-byte graphic RAM (8 pages of 128 columns, bit 0 = top row of the
// page) at the address pointer, which advances as the addressing mode says. A read
// returns the status byte (bit 6 set while the display is off).
class SimSsd1306 : public SimI2cDevice {
 public:
  static constexpr int kColumns = 128;
  static constexpr int kPages = 8;
  static constexpr std::size_t kFrameBytes = kColumns * kPages;
  static constexpr std::size_t kCommandHistory = 4096;

  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  // The most recent command bytes (arguments included), oldest first.
  std::vector<uint8_t> commands() const;
  std::array<uint8_t, kFrameBytes> frameBuffer() const;
  // Every byte of every write transaction, control bytes included.
  uint64_t bytesReceived() const;
  uint64_t dataBytes() const;
  bool displayOn() const;
  // Forgets the command history and the counters (the RAM stays).
  void clear();

 private:
  void commandLocked(uint8_t b);
  void dataLocked(uint8_t b);

  mutable std::mutex mutex_;  // guards everything below
  std::deque<uint8_t> commands_;
  std::array<uint8_t, kFrameBytes> ram_{};
  uint64_t bytes_ = 0;
  uint64_t dataBytes_ = 0;
  bool on_ = false;
  std::vector<uint8_t> pending_;  // a command still waiting for its arguments
  int mode_ = 2;                  // 0 horizontal, 1 vertical, 2 page addressing
  int colStart_ = 0, colEnd_ = kColumns - 1, pageStart_ = 0, pageEnd_ = kPages - 1;
  int col_ = 0, page_ = 0;
};

// ADS1015 (12 bit) / ADS1115 (16 bit) ADC (address 0x48). Registers by pointer: 0
// conversion, 1 config, 2 low threshold, 3 high threshold; 16-bit, most significant byte
// first on the wire, so an SMBus word read returns the value byte-swapped, as on the
// chip. Writing config with OS (bit 15) set starts a single-shot conversion of the
// multiplexer's inputs at the gain and data rate of that config; it completes one sample
// period later on the board clock (OS reads 0 meanwhile). The ADS1015's 12-bit result is
// left-aligned: its low nibble is always 0.
class SimAds1x15 : public SimI2cDevice {
 public:
  enum class Variant { ADS1015, ADS1115 };
  static constexpr uint16_t kConfigDefault = 0x8583;

  explicit SimAds1x15(Variant variant = Variant::ADS1115);
  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  // The outside world: volts at AIN0..3, each conversion adding a uniform noise of
  // +-`noise` volts. A floating input reads anywhere in the full range.
  void setInputVoltage(int channel, double volts, double noise = 0.0);
  void setFloating(int channel);
  // Forces the conversion register (no conversion needed).
  void setConversion(uint16_t value);

  uint16_t config() const;
  // Register r (0..3) as stored, in natural byte order.
  uint16_t reg(int r) const;
  int configWrites() const;
  int conversions() const;

 private:
  struct Input {
    double volts = 0.0;
    double noise = 0.0;
    bool floating = false;
  };
  void finishConversionLocked();
  double sampleLocked(int channel);
  unsigned long conversionMicrosLocked() const;

  const Variant variant_;
  mutable std::mutex mutex_;  // guards everything below
  std::array<uint16_t, 4> regs_{0, kConfigDefault, 0x8000, 0x7FFF};
  std::array<Input, 4> inputs_{};
  std::mt19937 noise_{12345};
  int pointer_ = 0;
  int configWrites_ = 0;
  int conversions_ = 0;
  bool converting_ = false;
  unsigned long readyAtUs_ = 0;
};

// SigmaDSP-class audio DSP (address 0x34, ADAU1701 memory map). A write is [address
// high, address low, data...]; the data fills whole words at successive addresses
// (parameter RAM 0x0000-0x03FF: 4 bytes, program RAM 0x0400-0x07FF: 5 bytes, safeload
// data 0x0810-0x0814: 5 bytes, control registers: 2 bytes). A write of only the address
// sets the read pointer. Safeload: the data and target address registers 0x0815-0x0819
// are staged; setting IST (bit 5) of the core control register 0x081C copies each staged
// slot into parameter RAM at once and clears the stage.
class SimDsp : public SimI2cDevice {
 public:
  static constexpr uint16_t kSafeloadData = 0x0810;
  static constexpr uint16_t kSafeloadAddress = 0x0815;
  static constexpr int kSafeloadSlots = 5;
  static constexpr uint16_t kCoreControl = 0x081C;
  static constexpr uint16_t kInitiateSafeload = 0x0020;
  struct Block {
    uint16_t address;
    std::vector<uint8_t> bytes;
  };

  bool write(std::span<const uint8_t> bytes) override;
  bool read(std::span<uint8_t> out) override;

  static std::size_t wordSize(uint16_t address);
  // The bytes of the word at `address` (zeros when never written).
  std::vector<uint8_t> word(uint16_t address) const;
  // A parameter word as a signed 32-bit number (28-bit words sign-extended from bit 27
  // when `bits` is 28).
  int32_t parameter(uint16_t address, int bits = 28) const;
  // Every write transaction with data, in order.
  std::vector<Block> writes() const;
  int safeloads() const;
  // Clears the write log (memory stays).
  void clearWrites();

 private:
  void storeLocked(uint16_t address, std::span<const uint8_t> bytes);
  void safeloadLocked();

  mutable std::mutex mutex_;  // guards everything below
  std::map<uint16_t, std::vector<uint8_t>> memory_;
  uint16_t pointer_ = 0;
  std::vector<Block> writes_;
  int safeloads_ = 0;
};

}  // namespace korvo
