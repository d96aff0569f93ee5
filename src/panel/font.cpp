#include "panel/font.h"

#include <algorithm>

#include "panel_font.h"

namespace korvo {

std::span<const uint8_t, kGlyphWidth> glyph(char c) {
  const auto u = static_cast<unsigned char>(c);
  const int index = (u >= 32 && u <= 126) ? u - 32 : '?' - 32;
  return std::span<const uint8_t, kGlyphWidth>(kFont6x8[index], kGlyphWidth);
}

void drawText(std::span<uint8_t, kDisplayColumns> page, int x, std::string_view text) {
  x = std::clamp(x, 0, kDisplayColumns);
  std::fill(page.begin() + x, page.end(), 0);
  for (char c : text) {
    const auto g = glyph(c);
    for (int i = 0; i < kGlyphWidth && x < kDisplayColumns; ++i) page[static_cast<std::size_t>(x++)] = g[static_cast<std::size_t>(i)];
    if (x >= kDisplayColumns) break;
  }
}

std::string readText(std::span<const uint8_t, kDisplayColumns> page) {
  std::string out;
  for (int cell = 0; cell < kCharsPerLine; ++cell) {
    const auto columns = page.subspan(static_cast<std::size_t>(cell * kGlyphWidth), kGlyphWidth);
    char found = '?';
    for (int c = 32; c <= 126; ++c)
      if (std::equal(columns.begin(), columns.end(), kFont6x8[c - 32])) {
        found = static_cast<char>(c);
        break;
      }
    out += found;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

}  // namespace korvo
