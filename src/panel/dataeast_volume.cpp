#include "panel/dataeast_volume.h"

#include <algorithm>
#include <cmath>

#include "base/log.h"
#include "platform/clock.h"

namespace korvo {

namespace {
// OS (start) | single-ended AINx | +-4.096 V | single shot | DR 110 (ADS1015 3300 SPS,
// ADS1115 475 SPS) | comparator off.
uint16_t singleShotConfig(int channel) {
  return static_cast<uint16_t>(0x8000 | (4 + channel) << 12 | 0x0200 | 0x0100 | 0x00C0 | 0x0003);
}
// Readings of a pot that is not connected scatter over the whole scale.
constexpr int kUnstableSpread = 256;
constexpr int kMaxFailures = 5;
}  // namespace

DataEastVolume::DataEastVolume(Gpio& gpio, const Settings& s, SetVolume setVolume)
    : gpio_(gpio), settings_(s), setVolume_(std::move(setVolume)) {}

bool DataEastVolume::startConversion() {
  const uint16_t config = singleShotConfig(channel_);
  const uint8_t tx[] = {1, static_cast<uint8_t>(config >> 8), static_cast<uint8_t>(config & 0xFF)};
  return gpio_.i2cWriteBlock(fd_, tx) == 0;
}

int DataEastVolume::readConversion() {
  // The register is big-endian on the wire; the SMBus word read is little-endian.
  const int word = gpio_.wiringPiI2CReadReg16(fd_, 0);
  if (word < 0) return -1;
  return static_cast<uint16_t>((word & 0xFF) << 8 | (word >> 8 & 0xFF));
}

bool DataEastVolume::init(int channel) {
  channel_ = channel;
  if (settings_.dataeast_volume_range == 0) {
    LOG(LEVEL_ERROR, "dataeast_volume_range is 0: the volume input stays off");
    return false;
  }
  fd_ = gpio_.wiringPiI2CSetup(kAddress);
  int value = -1;
  if (fd_ >= 0 && startConversion()) {
    delayMicroseconds(kConversionMs * 1000);  // start-up only, never in the loop
    value = readConversion();
  }
  if (value < 0) {
    LOG(LEVEL_ERROR, "no ADC answers at 0x%02x: the volume input stays off", kAddress);
    fd_ = -1;
    return false;
  }
  // The ADS1015's 12-bit result is left-aligned: its low nibble is always 0.
  ads1115_ = (value & 0x0F) != 0;
  LOG(LEVEL_INFO, "volume input on %s channel %d", ads1115_ ? "ADS1115" : "ADS1015", channel_);
  nextAt_ = static_cast<unsigned>(millis());
  return true;
}

void DataEastVolume::updateDataEastVolume(unsigned now) {
  if (fd_ < 0) return;
  if (!converting_) {
    if (static_cast<int>(now - nextAt_) < 0) return;
    converting_ = startConversion();
    startedAt_ = now;
    nextAt_ = now + kPeriodMs;
    if (!converting_ && ++failures_ == kMaxFailures) {
      LOG(LEVEL_ERROR, "the ADC at 0x%02x stopped answering: the volume input is off", kAddress);
      fd_ = -1;
    }
    return;
  }
  if (now - startedAt_ < kConversionMs) return;
  converting_ = false;
  const int value = readConversion();
  if (value < 0) return;
  failures_ = 0;
  takeReading(static_cast<int16_t>(value) >> 4);
}

void DataEastVolume::takeReading(int raw) {
  lastRaw_ = raw;
  window_[static_cast<std::size_t>(next_)] = raw;
  next_ = (next_ + 1) % kMedianOf;
  if (filled_ < kMedianOf) {
    ++filled_;
    if (filled_ < kMedianOf) return;
  }
  std::array<int, kMedianOf> sorted = window_;
  std::sort(sorted.begin(), sorted.end());
  const bool unstable = sorted.back() - sorted.front() > kUnstableSpread;
  if (unstable != unstable_) {
    unstable_ = unstable;
    if (unstable) LOG(LEVEL_WARN, "volume input readings scatter (pot not connected?): volume left alone");
  }
  if (unstable) return;
  const double unclamped = static_cast<double>(sorted[kMedianOf / 2] - settings_.dataeast_volume_offset) *
                           kMaxVolume / settings_.dataeast_volume_range;
  const bool outside = unclamped < -kMaxVolume * 0.1 || unclamped > kMaxVolume * 1.1;
  if (outside != outside_) {
    outside_ = outside;
    if (outside)
      LOG(LEVEL_WARN, "volume input reads %d, outside dataeast_volume_offset %d + range %d (pot wired backwards?)",
          sorted[kMedianOf / 2], settings_.dataeast_volume_offset, settings_.dataeast_volume_range);
  }
  const double exact = std::clamp(unclamped, 0.0, static_cast<double>(kMaxVolume));
  if (potVolume_ < 0) {  // the first reading only tells where the pot rests
    potVolume_ = exact;
    return;
  }
  const bool atEnd = (exact == 0.0 || exact == kMaxVolume) && exact != potVolume_;
  if (std::fabs(exact - potVolume_) < kHysteresisSteps && !atEnd) return;
  potVolume_ = exact;
  const int volume = static_cast<int>(std::lround(exact));
  if (volume != settings_.volume.load()) setVolume_(volume);
}

}  // namespace korvo

