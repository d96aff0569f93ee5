// Test and benchmark audio: mono 16-bit PCM WAV files made in code, so fixtures need
// no binary files and every level is known exactly.
#pragma once

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

namespace korvo::test {

// A sine of `hz` at `amplitude` (0..32767) for `seconds`.
inline void writeSineWav(const std::filesystem::path& p, double seconds, int amplitude, double hz = 440.0,
                         int rate = 44100) {
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
  const uint32_t frames = static_cast<uint32_t>(seconds * rate);
  std::string data;
  data.reserve(frames * 2);
  for (uint32_t i = 0; i < frames; i++) {
    const int16_t v = static_cast<int16_t>(amplitude * std::sin(2.0 * M_PI * hz * i / rate));
    data.push_back(static_cast<char>(v & 0xff));
    data.push_back(static_cast<char>((v >> 8) & 0xff));
  }
  auto u32 = [](uint32_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 24)};
  };
  auto u16 = [](uint16_t v) { return std::string{static_cast<char>(v), static_cast<char>(v >> 8)}; };
  std::ofstream(p, std::ios::binary) << "RIFF" + u32(36 + static_cast<uint32_t>(data.size())) + "WAVEfmt " +
                                            u32(16) + u16(1) + u16(1) + u32(static_cast<uint32_t>(rate)) +
                                            u32(static_cast<uint32_t>(rate * 2)) + u16(2) + u16(16) + "data" +
                                            u32(static_cast<uint32_t>(data.size())) + data;
}

}  // namespace korvo::test
