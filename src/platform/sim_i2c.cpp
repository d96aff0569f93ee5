#include "platform/sim_i2c.h"

#include <algorithm>

namespace korvo {

using namespace mcp23017;

// ---- MCP23017 ----

SimMcp23017::SimMcp23017() {
  regs_[IODIRA] = 0xFF;  // power-on: every pin an input
  regs_[IODIRB] = 0xFF;
  drive_.fill(-1);
}

uint8_t SimMcp23017::readRegLocked(int r) const {
  if (r == GPIOA || r == GPIOB) {
    const int port = r - GPIOA;
    const uint8_t dir = regs_[IODIRA + port];
    uint8_t inputs = 0;
    for (int bit = 0; bit < 8; ++bit) {
      const int d = drive_[port * 8 + bit];
      const bool high = d >= 0 ? d != 0 : (regs_[GPPUA + port] >> bit) & 1;
      if (high) inputs |= static_cast<uint8_t>(1 << bit);
    }
    inputs ^= regs_[IPOLA + port];
    return static_cast<uint8_t>((inputs & dir) | (regs_[OLATA + port] & ~dir));
  }
  return regs_[r];
}

void SimMcp23017::writeRegLocked(int r, uint8_t value) {
  writes_.push_back({static_cast<uint8_t>(r), value});
  switch (r) {
    case IOCON:
    case IOCONB:
      regs_[IOCON] = regs_[IOCONB] = value;
      break;
    case GPIOA:
    case GPIOB:
      regs_[OLATA + (r - GPIOA)] = value;
      break;
    case INTFA:
    case INTFB:
    case INTCAPA:
    case INTCAPB:
      break;  // read-only on the chip
    default:
      regs_[r] = value;
  }
}

bool SimMcp23017::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (bytes.empty()) return true;
  if (bytes[0] >= kRegisterCount) return false;
  pointer_ = bytes[0];
  for (std::size_t i = 1; i < bytes.size(); ++i) {
    writeRegLocked(pointer_, bytes[i]);
    // Sequential mode walks all registers; byte mode (SEQOP) toggles within the A/B pair.
    pointer_ = (regs_[IOCON] & IOCON_SEQOP) ? (pointer_ ^ 1) : (pointer_ + 1) % kRegisterCount;
  }
  return true;
}

bool SimMcp23017::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  for (auto& b : out) {
    b = readRegLocked(pointer_);
    pointer_ = (regs_[IOCON] & IOCON_SEQOP) ? (pointer_ ^ 1) : (pointer_ + 1) % kRegisterCount;
  }
  return true;
}

uint8_t SimMcp23017::reg(int r) const {
  std::lock_guard lock(mutex_);
  return r >= 0 && r < kRegisterCount ? readRegLocked(r) : 0;
}

std::vector<SimMcp23017::RegWrite> SimMcp23017::writes() const {
  std::lock_guard lock(mutex_);
  return writes_;
}

int SimMcp23017::pinLevel(int bit) const {
  if (bit < 0 || bit >= kPins) return -1;
  std::lock_guard lock(mutex_);
  return (readRegLocked(bit < 8 ? GPIOA : GPIOB) >> (bit & 7)) & 1;
}

void SimMcp23017::setInput(int bit, int level) {
  if (bit < 0 || bit >= kPins) return;
  std::lock_guard lock(mutex_);
  drive_[bit] = level < 0 ? -1 : (level ? 1 : 0);
}

// ---- SSD1306 ----

bool SimSsd1306::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  std::size_t i = 0;
  while (i < bytes.size()) {
    const uint8_t control = bytes[i++];
    const bool isData = control & 0x40;
    const bool single = control & 0x80;  // Co: one byte, then another control byte
    const std::size_t end = single ? std::min(i + 1, bytes.size()) : bytes.size();
    for (; i < end; ++i) {
      if (isData) {
        data_.push_back(bytes[i]);
      } else {
        commands_.push_back(bytes[i]);
        if (bytes[i] == 0xAF) on_ = true;
        if (bytes[i] == 0xAE) on_ = false;
      }
    }
  }
  return true;
}

bool SimSsd1306::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  for (auto& b : out) b = on_ ? 0x00 : 0x40;
  return true;
}

std::vector<uint8_t> SimSsd1306::commands() const {
  std::lock_guard lock(mutex_);
  return commands_;
}

std::vector<uint8_t> SimSsd1306::data() const {
  std::lock_guard lock(mutex_);
  return data_;
}

bool SimSsd1306::displayOn() const {
  std::lock_guard lock(mutex_);
  return on_;
}

void SimSsd1306::clear() {
  std::lock_guard lock(mutex_);
  commands_.clear();
  data_.clear();
}

// ---- ADS1x15 ----

bool SimAds1x15::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (bytes.empty()) return true;
  if (bytes[0] > 3) return false;
  pointer_ = bytes[0];
  if (bytes.size() >= 3 && pointer_ != 0) {  // the conversion register is read-only
    regs_[pointer_] = static_cast<uint16_t>(bytes[1] << 8 | bytes[2]);
    if (pointer_ == 1) ++configWrites_;
  }
  return true;
}

bool SimAds1x15::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  uint16_t value = regs_[pointer_];
  if (pointer_ == 1) value |= 0x8000;  // OS: no conversion in progress
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = i % 2 == 0 ? value >> 8 : value & 0xFF;
  return true;
}

void SimAds1x15::setConversion(uint16_t value) {
  std::lock_guard lock(mutex_);
  regs_[0] = value;
}

uint16_t SimAds1x15::config() const { return reg(1); }

uint16_t SimAds1x15::reg(int r) const {
  std::lock_guard lock(mutex_);
  return r >= 0 && r < 4 ? regs_[r] : 0;
}

int SimAds1x15::configWrites() const {
  std::lock_guard lock(mutex_);
  return configWrites_;
}

// ---- DSP ----

SimDsp::SimDsp() : memory_(kMemorySize, 0) {}

bool SimDsp::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (bytes.size() < 2) return bytes.empty();
  pointer_ = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
  if (bytes.size() == 2) return true;
  Block block{pointer_, {bytes.begin() + 2, bytes.end()}};
  for (uint8_t b : block.bytes) memory_[pointer_++] = b;  // wraps at 64 KiB like a counter
  writes_.push_back(std::move(block));
  return true;
}

bool SimDsp::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  for (auto& b : out) b = memory_[pointer_++];
  return true;
}

std::vector<uint8_t> SimDsp::memory(uint16_t address, std::size_t n) const {
  std::lock_guard lock(mutex_);
  std::vector<uint8_t> out(n);
  for (std::size_t i = 0; i < n; ++i) out[i] = memory_[(address + i) % kMemorySize];
  return out;
}

std::vector<SimDsp::Block> SimDsp::writes() const {
  std::lock_guard lock(mutex_);
  return writes_;
}

}  // namespace korvo
