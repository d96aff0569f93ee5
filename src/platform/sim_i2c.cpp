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

}  // namespace korvo
