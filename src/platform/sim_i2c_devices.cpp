#include "platform/sim_i2c_devices.h"

#include <algorithm>
#include <cmath>

#include "platform/clock.h"

namespace korvo {

// ---- SSD1306 ----

namespace {
// Argument bytes that follow each multi-byte command.
int argumentCount(uint8_t cmd) {
  switch (cmd) {
    case 0x20: case 0x81: case 0x8D: case 0xA8: case 0xD3: case 0xD5: case 0xD9: case 0xDA: case 0xDB:
      return 1;
    case 0x21: case 0x22: case 0xA3:
      return 2;
    case 0x29: case 0x2A:
      return 5;
    case 0x26: case 0x27:
      return 6;
    default:
      return 0;
  }
}
}  // namespace

bool SimSsd1306::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  bytes_ += bytes.size();
  std::size_t i = 0;
  while (i < bytes.size()) {
    const uint8_t control = bytes[i++];
    const bool isData = control & 0x40;
    const bool single = control & 0x80;  // Co: one byte, then another control byte
    const std::size_t end = single ? std::min(i + 1, bytes.size()) : bytes.size();
    for (; i < end; ++i) isData ? dataLocked(bytes[i]) : commandLocked(bytes[i]);
  }
  return true;
}

void SimSsd1306::commandLocked(uint8_t b) {
  commands_.push_back(b);
  if (commands_.size() > kCommandHistory) commands_.pop_front();
  pending_.push_back(b);
  if (static_cast<int>(pending_.size()) <= argumentCount(pending_[0])) return;
  const std::vector<uint8_t> c = std::move(pending_);
  pending_.clear();
  if (c[0] == 0xAF) on_ = true;
  else if (c[0] == 0xAE) on_ = false;
  else if (c[0] == 0x20) mode_ = c[1] & 3;
  else if (c[0] == 0x21) { colStart_ = col_ = c[1] & 0x7F; colEnd_ = c[2] & 0x7F; }
  else if (c[0] == 0x22) { pageStart_ = page_ = c[1] & 7; pageEnd_ = c[2] & 7; }
  else if (c[0] >= 0xB0 && c[0] <= 0xB7) page_ = c[0] & 7;
  else if (c[0] <= 0x0F) col_ = (col_ & 0xF0) | c[0];
  else if (c[0] <= 0x1F) col_ = (col_ & 0x0F) | ((c[0] & 0x07) << 4);
}

void SimSsd1306::dataLocked(uint8_t b) {
  ++dataBytes_;
  ram_[static_cast<std::size_t>(page_ * kColumns + col_)] = b;
  if (mode_ == 0) {
    if (++col_ > colEnd_) {
      col_ = colStart_;
      if (++page_ > pageEnd_) page_ = pageStart_;
    }
  } else if (mode_ == 1) {
    if (++page_ > pageEnd_) {
      page_ = pageStart_;
      if (++col_ > colEnd_) col_ = colStart_;
    }
  } else if (++col_ >= kColumns) {
    col_ = 0;  // page mode: the column wraps within the page
  }
}

bool SimSsd1306::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  for (auto& b : out) b = on_ ? 0x00 : 0x40;
  return true;
}

std::vector<uint8_t> SimSsd1306::commands() const {
  std::lock_guard lock(mutex_);
  return {commands_.begin(), commands_.end()};
}

std::array<uint8_t, SimSsd1306::kFrameBytes> SimSsd1306::frameBuffer() const {
  std::lock_guard lock(mutex_);
  return ram_;
}

uint64_t SimSsd1306::bytesReceived() const {
  std::lock_guard lock(mutex_);
  return bytes_;
}

uint64_t SimSsd1306::dataBytes() const {
  std::lock_guard lock(mutex_);
  return dataBytes_;
}

bool SimSsd1306::displayOn() const {
  std::lock_guard lock(mutex_);
  return on_;
}

void SimSsd1306::clear() {
  std::lock_guard lock(mutex_);
  commands_.clear();
  bytes_ = dataBytes_ = 0;
}

// ---- ADS1x15 ----

namespace {
constexpr double kFullScale[8] = {6.144, 4.096, 2.048, 1.024, 0.512, 0.256, 0.256, 0.256};
constexpr int kRates1115[8] = {8, 16, 32, 64, 128, 250, 475, 860};
constexpr int kRates1015[8] = {128, 250, 490, 920, 1600, 2400, 3300, 3300};
constexpr uint16_t kOs = 0x8000;
}  // namespace

SimAds1x15::SimAds1x15(Variant variant) : variant_(variant) {}

bool SimAds1x15::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  finishConversionLocked();
  if (bytes.empty()) return true;
  if (bytes[0] > 3) return false;
  pointer_ = bytes[0];
  if (bytes.size() >= 3 && pointer_ != 0) {  // the conversion register is read-only
    const uint16_t value = static_cast<uint16_t>(bytes[1] << 8 | bytes[2]);
    if (pointer_ != 1) {
      regs_[pointer_] = value;
      return true;
    }
    ++configWrites_;
    regs_[1] = value & ~kOs;
    if ((value & kOs) && !converting_) {
      converting_ = true;
      readyAtUs_ = micros() + conversionMicrosLocked();
    }
  }
  return true;
}

unsigned long SimAds1x15::conversionMicrosLocked() const {
  const int dr = (regs_[1] >> 5) & 7;
  const int sps = variant_ == Variant::ADS1115 ? kRates1115[dr] : kRates1015[dr];
  return 1000000UL / static_cast<unsigned long>(sps) + 1;
}

double SimAds1x15::sampleLocked(int channel) {
  const Input& in = inputs_[static_cast<std::size_t>(channel)];
  if (in.floating) return std::uniform_real_distribution<double>(-6.0, 6.0)(noise_);
  if (in.noise <= 0.0) return in.volts;
  return in.volts + std::uniform_real_distribution<double>(-in.noise, in.noise)(noise_);
}

void SimAds1x15::finishConversionLocked() {
  if (!converting_ || static_cast<long>(micros() - readyAtUs_) < 0) return;
  converting_ = false;
  ++conversions_;
  const int mux = (regs_[1] >> 12) & 7;
  static constexpr int kPos[4] = {0, 0, 1, 2}, kNeg[4] = {1, 3, 3, 3};
  const double v = mux >= 4 ? sampleLocked(mux - 4) : sampleLocked(kPos[mux]) - sampleLocked(kNeg[mux]);
  const double fs = kFullScale[(regs_[1] >> 9) & 7];
  const int bits = variant_ == Variant::ADS1115 ? 16 : 12;
  const long max = (1L << (bits - 1)) - 1;
  const long code = std::clamp(std::lround(v / fs * static_cast<double>(max + 1)), -max - 1, max);
  regs_[0] = static_cast<uint16_t>(static_cast<int16_t>(code << (16 - bits)));
}

bool SimAds1x15::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  finishConversionLocked();
  uint16_t value = regs_[pointer_];
  if (pointer_ == 1 && !converting_) value |= kOs;
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = i % 2 == 0 ? value >> 8 : value & 0xFF;
  return true;
}

void SimAds1x15::setInputVoltage(int channel, double volts, double noise) {
  if (channel < 0 || channel > 3) return;
  std::lock_guard lock(mutex_);
  inputs_[static_cast<std::size_t>(channel)] = {volts, noise, false};
}

void SimAds1x15::setFloating(int channel) {
  if (channel < 0 || channel > 3) return;
  std::lock_guard lock(mutex_);
  inputs_[static_cast<std::size_t>(channel)].floating = true;
}

void SimAds1x15::setConversion(uint16_t value) {
  std::lock_guard lock(mutex_);
  regs_[0] = value;
}

uint16_t SimAds1x15::config() const { return reg(1); }

uint16_t SimAds1x15::reg(int r) const {
  std::lock_guard lock(mutex_);
  return r >= 0 && r < 4 ? regs_[static_cast<std::size_t>(r)] : 0;
}

int SimAds1x15::configWrites() const {
  std::lock_guard lock(mutex_);
  return configWrites_;
}

int SimAds1x15::conversions() const {
  std::lock_guard lock(mutex_);
  return conversions_;
}

// ---- DSP ----

std::size_t SimDsp::wordSize(uint16_t address) {
  if (address < 0x0400) return 4;
  if (address < 0x0800) return 5;
  if (address >= kSafeloadData && address < kSafeloadAddress) return 5;
  return 2;
}

bool SimDsp::write(std::span<const uint8_t> bytes) {
  std::lock_guard lock(mutex_);
  if (bytes.size() < 2) return bytes.empty();
  pointer_ = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
  if (bytes.size() == 2) return true;
  writes_.push_back({pointer_, {bytes.begin() + 2, bytes.end()}});
  storeLocked(pointer_, bytes.subspan(2));
  return true;
}

void SimDsp::storeLocked(uint16_t address, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const std::size_t n = wordSize(address);
    std::vector<uint8_t>& w = memory_[address];
    w.assign(n, 0);
    std::copy_n(bytes.begin(), std::min(n, bytes.size()), w.begin());
    bytes = bytes.subspan(std::min(n, bytes.size()));
    if (address == kCoreControl && (w[1] & kInitiateSafeload)) {
      safeloadLocked();
      w[1] &= static_cast<uint8_t>(~kInitiateSafeload);  // IST clears itself
    }
    ++address;
  }
}

void SimDsp::safeloadLocked() {
  for (int slot = 0; slot < kSafeloadSlots; ++slot) {
    auto addr = memory_.find(static_cast<uint16_t>(kSafeloadAddress + slot));
    auto data = memory_.find(static_cast<uint16_t>(kSafeloadData + slot));
    if (addr == memory_.end() || data == memory_.end()) continue;
    const uint16_t target = static_cast<uint16_t>(addr->second[0] << 8 | addr->second[1]);
    // The low four of the five staged bytes are the parameter word.
    memory_[target].assign(data->second.begin() + 1, data->second.end());
    memory_.erase(addr);
    memory_.erase(data);
  }
  ++safeloads_;
}

bool SimDsp::read(std::span<uint8_t> out) {
  std::lock_guard lock(mutex_);
  std::size_t i = 0;
  while (i < out.size()) {
    auto it = memory_.find(pointer_);
    const std::size_t n = wordSize(pointer_);
    for (std::size_t k = 0; k < n && i < out.size(); ++k, ++i)
      out[i] = it == memory_.end() ? 0 : it->second[k];
    ++pointer_;
  }
  return true;
}

std::vector<uint8_t> SimDsp::word(uint16_t address) const {
  std::lock_guard lock(mutex_);
  auto it = memory_.find(address);
  return it == memory_.end() ? std::vector<uint8_t>(wordSize(address), 0) : it->second;
}

int32_t SimDsp::parameter(uint16_t address, int bits) const {
  const std::vector<uint8_t> w = word(address);
  uint32_t v = 0;
  for (std::size_t i = w.size() >= 4 ? w.size() - 4 : 0; i < w.size(); ++i) v = v << 8 | w[i];
  if (bits < 32) {
    const uint32_t sign = 1u << (bits - 1);
    v &= (sign << 1) - 1;
    return static_cast<int32_t>(v ^ sign) - static_cast<int32_t>(sign);
  }
  return static_cast<int32_t>(v);
}

std::vector<SimDsp::Block> SimDsp::writes() const {
  std::lock_guard lock(mutex_);
  return writes_;
}

int SimDsp::safeloads() const {
  std::lock_guard lock(mutex_);
  return safeloads_;
}

void SimDsp::clearWrites() {
  std::lock_guard lock(mutex_);
  writes_.clear();
}

}  // namespace korvo
