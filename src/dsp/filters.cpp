#include "dsp/filters.h"

#include <cmath>
#include <complex>
#include <numbers>

namespace korvo {

namespace {

Biquad secondOrder(bool highpass, double k, double q) {
  const double norm = 1.0 / (1.0 + k / q + k * k);
  Biquad s;
  s.b0 = highpass ? norm : k * k * norm;
  s.b1 = highpass ? -2.0 * s.b0 : 2.0 * s.b0;
  s.b2 = s.b0;
  s.a1 = 2.0 * (k * k - 1.0) * norm;
  s.a2 = (1.0 - k / q + k * k) * norm;
  return s;
}

Biquad firstOrder(bool highpass, double k) {
  const double norm = 1.0 / (1.0 + k);
  Biquad s;
  s.b0 = highpass ? norm : k * norm;
  s.b1 = highpass ? -norm : k * norm;
  s.a1 = (k - 1.0) * norm;
  return s;
}

}  // namespace

std::vector<Biquad> butterworth(bool highpass, int order, double cutoffHz, double rate) {
  if (order < 1 || order > 8 || !(cutoffHz > 0.0) || !(cutoffHz < rate / 2.0)) return {};
  // Pre-warping: the analog prototype's cut-off maps exactly onto cutoffHz.
  const double k = std::tan(std::numbers::pi * cutoffHz / rate);
  std::vector<Biquad> out;
  // Each conjugate pole pair of the prototype is one section with its own Q.
  for (int i = 1; i <= order / 2; ++i) {
    const double q = 1.0 / (2.0 * std::sin((2 * i - 1) * std::numbers::pi / (2.0 * order)));
    out.push_back(secondOrder(highpass, k, q));
  }
  if (order % 2) out.push_back(firstOrder(highpass, k));
  return out;
}

double responseDb(const std::vector<Biquad>& sections, double hz, double rate) {
  const std::complex<double> z1 = std::polar(1.0, -2.0 * std::numbers::pi * hz / rate);
  const std::complex<double> z2 = z1 * z1;
  std::complex<double> h = 1.0;
  for (const Biquad& s : sections) h *= (s.b0 + s.b1 * z1 + s.b2 * z2) / (1.0 + s.a1 * z1 + s.a2 * z2);
  return 20.0 * std::log10(std::abs(h));
}

double dbToLinear(double db) { return std::pow(10.0, db / 20.0); }

namespace {
int fractionBits(DspFormat f) { return f == DspFormat::Q5_23 ? 23 : 24; }
int wordBits(DspFormat f) { return f == DspFormat::Q5_23 ? 28 : 32; }
}  // namespace

std::optional<int32_t> integerWord(long value, DspFormat format) {
  const long max = (1L << (wordBits(format) - 1)) - 1;
  if (value > max || value < -max - 1) return std::nullopt;
  return static_cast<int32_t>(value);
}

std::optional<int32_t> toFixed(double value, DspFormat format) {
  if (!std::isfinite(value)) return std::nullopt;
  const double scaled = std::round(std::ldexp(value, fractionBits(format)));
  if (std::fabs(scaled) > 4.0e9) return std::nullopt;
  return integerWord(static_cast<long>(scaled), format);
}

double fromFixed(int32_t word, DspFormat format) { return std::ldexp(static_cast<double>(word), -fractionBits(format)); }

std::array<uint8_t, 4> wordBytes(int32_t word, DspFormat format) {
  uint32_t w = static_cast<uint32_t>(word);
  if (format == DspFormat::Q5_23) w &= 0x0FFFFFFFu;
  return {static_cast<uint8_t>(w >> 24), static_cast<uint8_t>(w >> 16), static_cast<uint8_t>(w >> 8),
          static_cast<uint8_t>(w)};
}

}  // namespace korvo
