// Filter design and the DSP's fixed-point number formats.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace korvo {

enum class DspFormat { Q5_23, Q8_24 };

// One second-order section, y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] - a1 y[n-1] - a2 y[n-2].
// A first-order section has b2 = a2 = 0.
struct Biquad {
  double b0 = 1, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
};

// A Butterworth low- or high-pass of order 1..8 as ceil(order/2) cascaded sections,
// from the bilinear transform with the cut-off pre-warped, so the cascade is exactly
// -3.01 dB at `cutoffHz`. Empty for an order outside 1..8 or a cut-off not strictly
// between 0 and rate/2.
std::vector<Biquad> butterworth(bool highpass, int order, double cutoffHz, double rate);
inline int butterworthSections(int order) { return (order + 1) / 2; }

// The cascade's magnitude in dB at `hz`.
double responseDb(const std::vector<Biquad>& sections, double hz, double rate);
double dbToLinear(double db);

// The fixed-point word of `value` (5.23: 28 bits, 8.24: 32 bits, two's complement);
// empty when it does not fit.
std::optional<int32_t> toFixed(double value, DspFormat format);
double fromFixed(int32_t word, DspFormat format);
// An integer as a word of the format; empty when it does not fit (28 bits for 5.23).
std::optional<int32_t> integerWord(long value, DspFormat format);
// The four bytes of a word, most significant first (5.23 words keep their top nibble 0).
std::array<uint8_t, 4> wordBytes(int32_t word, DspFormat format);

}  // namespace korvo
