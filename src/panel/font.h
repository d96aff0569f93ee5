// Text on the mini display: 6x8 cells, 21 characters a line, one display page (8 pixel
// rows) per line. The glyphs are generated at build time from a Debian font file.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace korvo {

constexpr int kGlyphWidth = 6;
constexpr int kDisplayColumns = 128;
constexpr int kCharsPerLine = kDisplayColumns / kGlyphWidth;  // 21

// The six column bytes of `c` (bit 0 = top row); '?' for characters outside ASCII
// 32..126.
std::span<const uint8_t, kGlyphWidth> glyph(char c);
// Draws `text` into one page (128 column bytes) from pixel column `x`; the rest of the
// page from `x` on is cleared. Text past the right edge is cut.
void drawText(std::span<uint8_t, kDisplayColumns> page, int x, std::string_view text);
// Reads a page back into text (cells from column 0, trailing blanks removed); a cell
// that matches no glyph reads as '?'.
std::string readText(std::span<const uint8_t, kDisplayColumns> page);

}  // namespace korvo
