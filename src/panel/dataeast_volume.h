// The Data East volume input: a potentiometer on channel 0 of an ADS1015 / ADS1115 ADC
// at 0x48. Each call of updateDataEastVolume either starts a single-shot conversion or
// reads back the one started on an earlier call, so no loop iteration ever waits for
// the converter; a new reading arrives about every 50 ms.
//
// Readings are on the ADS1015's 12-bit scale (ADS1115 results shifted right by 4).
// Volume = clamp((raw - offset) x 128 / range, 0, 128) over the median of the last five
// readings, with a hysteresis of two volume steps, so a resting pot never jitters the
// volume or rewrites va.ini. The pot takes over only when it moves: a volume set from
// the web, the encoder or Lua stays until the pot is turned. A pot wired the other way
// round is set up with its offset at the low-volume end and a negative range.
//
// Thread: the main loop only.
#pragma once

#include <array>
#include <functional>

#include "core/settings.h"
#include "platform/gpio.h"

namespace korvo {

class DataEastVolume {
 public:
  static constexpr int kAddress = 0x48;
  static constexpr unsigned kPeriodMs = 50;
  // Both variants finish a conversion at the chosen data rate well within this.
  static constexpr unsigned kConversionMs = 5;
  static constexpr int kMedianOf = 5;
  static constexpr double kHysteresisSteps = 2.0;
  static constexpr int kMaxVolume = 128;
  using SetVolume = std::function<void(int volume)>;

  DataEastVolume(Gpio& gpio, const Settings& s, SetVolume setVolume);

  // Finds the converter and tells the variant apart by its conversion's low nibble.
  // False (one ERROR line): the input stays off.
  bool init(int channel = 0);
  bool active() const { return fd_ >= 0; }
  bool isAds1115() const { return ads1115_; }
  void updateDataEastVolume(unsigned now);
  // The last reading on the 12-bit scale, -1 before the first.
  int lastRaw() const { return lastRaw_; }

 private:
  bool startConversion();
  // -1 when the read failed.
  int readConversion();
  void takeReading(int raw);

  Gpio& gpio_;
  const Settings& settings_;
  SetVolume setVolume_;
  int fd_ = -1;
  int channel_ = 0;
  bool ads1115_ = false;
  bool converting_ = false;
  unsigned startedAt_ = 0;
  unsigned nextAt_ = 0;
  std::array<int, kMedianOf> window_{};
  int filled_ = 0;
  int next_ = 0;
  int lastRaw_ = -1;
  double potVolume_ = -1;  // where the pot last took over (exact), -1 = not yet read
  bool unstable_ = false;
  bool outside_ = false;  // readings far outside offset..offset+range (said once)
  int failures_ = 0;
};

}  // namespace korvo
