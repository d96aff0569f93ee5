// Build-time generator of the mini display's font: reads a PCF bitmap font (gzip'd, as
// Debian's misc-fixed fonts ship) and writes a C++ header with one 6-byte glyph per
// printable ASCII character in the display's own layout: one byte per column, bit 0 the
// top row of the 8-row cell. A font whose ASCII glyphs do not fit a 6x8 cell is refused.
//
//   fontgen <font.pcf.gz> <out.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/handles.h"

namespace {

constexpr uint32_t kMetrics = 1 << 2, kBitmaps = 1 << 3, kEncodings = 1 << 5;
constexpr int kCellWidth = 6, kCellHeight = 8, kFirst = 32, kLast = 126;

struct Glyph {
  int left = 0, right = 0, ascent = 0, descent = 0;
};

class Pcf {
 public:
  explicit Pcf(std::vector<uint8_t> bytes) : b_(std::move(bytes)) {
    if (b_.size() < 8 || b_[0] != 1 || b_[1] != 'f' || b_[2] != 'c' || b_[3] != 'p')
      throw std::runtime_error("not a PCF font");
    const uint32_t count = le32(4);
    for (uint32_t i = 0; i < count; ++i) {
      const std::size_t at = 8 + 16 * i;
      tables_.push_back({le32(at), le32(at + 8), le32(at + 12)});
    }
  }

  std::vector<Glyph> metrics() {
    std::size_t at = open(kMetrics);
    std::vector<Glyph> out;
    if (format_ & 0x100) {  // compressed: one byte per field, offset by 0x80
      const int n = i16(at);
      at += 2;
      for (int i = 0; i < n; ++i, at += 5)
        out.push_back({b_.at(at) - 0x80, b_.at(at + 1) - 0x80, b_.at(at + 3) - 0x80, b_.at(at + 4) - 0x80});
    } else {
      const uint32_t n = i32(at);
      at += 4;
      for (uint32_t i = 0; i < n; ++i, at += 12) out.push_back({i16(at), i16(at + 2), i16(at + 6), i16(at + 8)});
    }
    return out;
  }

  // The glyph index of each code 0..255 (-1 = none).
  std::vector<int> encodings() {
    std::size_t at = open(kEncodings);
    const int firstCol = i16(at), lastCol = i16(at + 2), firstRow = i16(at + 4), lastRow = i16(at + 6);
    at += 10;
    std::vector<int> out(256, -1);
    if (firstRow != 0 && !(firstRow <= 0 && lastRow >= 0)) return out;
    for (int c = firstCol; c <= lastCol && c < 256; ++c) {
      const int index = static_cast<uint16_t>(i16(at + 2 * static_cast<std::size_t>((0 - firstRow) * (lastCol - firstCol + 1) + c - firstCol)));
      out[static_cast<std::size_t>(c)] = index == 0xFFFF ? -1 : index;
    }
    return out;
  }

  // Rows of the glyph, each as MSB-first bytes.
  std::vector<std::vector<uint8_t>> bitmap(int index, const Glyph& g) {
    std::size_t at = open(kBitmaps);
    const uint32_t count = i32(at);
    const uint32_t offset = i32(at + 4 + 4 * static_cast<std::size_t>(index));
    const std::size_t data = at + 4 + 4 * count + 16;
    const std::size_t pad = 1u << (format_ & 3), unit = 1u << ((format_ >> 4) & 3);
    const bool msbBytes = format_ & 4, msbBits = format_ & 8;
    const std::size_t width = static_cast<std::size_t>(g.right - g.left);
    const std::size_t stride = ((width + 7) / 8 + pad - 1) / pad * pad;
    std::vector<std::vector<uint8_t>> rows;
    for (int r = 0; r < g.ascent + g.descent; ++r) {
      std::vector<uint8_t> row(b_.begin() + static_cast<long>(data + offset + r * stride),
                               b_.begin() + static_cast<long>(data + offset + (r + 1) * stride));
      if (msbBytes != msbBits && unit > 1)
        for (std::size_t u = 0; u + unit <= row.size(); u += unit) std::reverse(row.begin() + u, row.begin() + u + unit);
      if (!msbBits)
        for (auto& byte : row) byte = static_cast<uint8_t>(reverseBits(byte));
      rows.push_back(row);
    }
    return rows;
  }

 private:
  struct Table {
    uint32_t type, size, offset;
  };
  static unsigned reverseBits(unsigned b) {
    unsigned r = 0;
    for (int i = 0; i < 8; ++i) r |= ((b >> i) & 1) << (7 - i);
    return r;
  }
  uint32_t le32(std::size_t at) const {
    return b_.at(at) | b_.at(at + 1) << 8 | b_.at(at + 2) << 16 | static_cast<uint32_t>(b_.at(at + 3)) << 24;
  }
  uint32_t i32(std::size_t at) const {
    if (!(format_ & 4)) return le32(at);
    return static_cast<uint32_t>(b_.at(at)) << 24 | b_.at(at + 1) << 16 | b_.at(at + 2) << 8 | b_.at(at + 3);
  }
  int i16(std::size_t at) const {
    const int v = (format_ & 4) ? (b_.at(at) << 8 | b_.at(at + 1)) : (b_.at(at) | b_.at(at + 1) << 8);
    return static_cast<int16_t>(v);
  }
  // Position after the table's format word; sets format_.
  std::size_t open(uint32_t type) {
    for (const Table& t : tables_)
      if (t.type == type) {
        format_ = le32(t.offset);
        return t.offset + 4;
      }
    throw std::runtime_error("PCF table missing");
  }

  std::vector<uint8_t> b_;
  std::vector<Table> tables_;
  uint32_t format_ = 0;
};

std::vector<uint8_t> readGz(const char* path) {
  korvo::GzHandle in(gzopen(path, "rb"));
  if (!in) throw std::runtime_error(std::string("cannot open ") + path);
  std::vector<uint8_t> out;
  uint8_t buf[65536];
  int n;
  while ((n = gzread(in.get(), buf, sizeof buf)) > 0) out.insert(out.end(), buf, buf + n);
  if (n < 0) throw std::runtime_error(std::string("cannot read ") + path);
  return out;
}

std::string generate(const char* fontPath) {
  Pcf pcf(readGz(fontPath));
  const auto metrics = pcf.metrics();
  const auto enc = pcf.encodings();
  int ascent = 0;
  for (int c = kFirst; c <= kLast; ++c)
    if (enc[c] >= 0) ascent = std::max(ascent, metrics.at(static_cast<std::size_t>(enc[c])).ascent);
  std::string out = std::string("// Generated at build time by tools/fontgen.cpp from ") + fontPath + ".\n" +
                    "// Printable ASCII 32..126, 6 columns each, bit 0 = top row.\n#pragma once\n#include <cstdint>\n" +
                    "namespace korvo {\ninline constexpr uint8_t kFont6x8[95][6] = {\n";
  for (int c = kFirst; c <= kLast; ++c) {
    uint8_t cols[kCellWidth] = {};
    if (enc[c] >= 0) {
      const Glyph& g = metrics.at(static_cast<std::size_t>(enc[c]));
      const int top = ascent - g.ascent;
      if (g.left < 0 || g.right > kCellWidth || top < 0 || top + g.ascent + g.descent > kCellHeight)
        throw std::runtime_error("glyph " + std::to_string(c) + " does not fit a 6x8 cell");
      const auto rows = pcf.bitmap(enc[c], g);
      for (std::size_t r = 0; r < rows.size(); ++r)
        for (int x = 0; x < g.right - g.left; ++x)
          if (rows[r][static_cast<std::size_t>(x / 8)] & (0x80 >> (x % 8)))
            cols[g.left + x] |= static_cast<uint8_t>(1 << (top + static_cast<int>(r)));
    }
    char line[96];
    snprintf(line, sizeof line, "    {0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X, 0x%02X},  // %d\n", cols[0], cols[1], cols[2],
             cols[3], cols[4], cols[5], c);
    out += line;
  }
  return out + "};\n}  // namespace korvo\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s <font.pcf.gz> <out.h>\n", argv[0]);
    return 2;
  }
  try {
    const std::string text = generate(argv[1]);
    std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::runtime_error(std::string("cannot write ") + argv[2]);
  } catch (const std::exception& e) {
    fprintf(stderr, "fontgen: %s\n", e.what());
    return 1;
  }
  return 0;
}
