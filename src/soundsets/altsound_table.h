// The bytes of one altsound.csv held as lines, so that an edit rewrites only the
// fields it changes: line ends (LF or CRLF, a missing last one), the byte-order mark,
// quoting and every other column stay as they were.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "soundsets/altsound.h"

namespace korvo {

// Columns by meaning; the value is the position in the standard order, which also
// applies to a table without a header line.
enum CsvCol : int {
  C_ID, C_CHANNEL, C_DUCK, C_GAIN, C_LOOP, C_STOP, C_NAME, C_FNAME,
  C_GROUP, C_SHAKER, C_SERIAL, C_PRELOAD, C_STOPCMD, C_TYPE, C_COUNT
};
extern const char* const kCsvColumnNames[C_COUNT];

// `v` in double quotes, inner quotes doubled.
std::string csvQuote(std::string_view v);

struct CsvTable {
  struct Line {
    std::string text;  // without its line end
    std::string eol;   // "\n", "\r\n" or "" (last line without one)
  };
  std::string path;
  bool bom = false;
  std::vector<Line> lines;
  int headerLine = -1;                  // index into lines, -1 without a header
  std::array<int, C_COUNT> col{};       // field position per column, -1 absent

  bool load(const std::string& file);
  void parse(std::string_view bytes);
  std::string serialize() const;
  // Lines that are rows: not blank, not the header.
  std::vector<std::size_t> dataRows() const;
  // Rows whose ID parses to `id`.
  std::vector<std::size_t> rowsOf(uint32_t id) const;
  // The value of column `c` of a split row; empty when absent.
  std::string field(const std::vector<CsvField>& f, CsvCol c) const;
  // Makes sure column `c` exists: a header gets the missing standard names up to it,
  // and every row is padded with empty fields to the new width.
  void ensureColumn(CsvCol c);
  // Replaces the bytes of one field of line `i` (padding the row when short); a field
  // that was quoted stays quoted, a value with a comma or quote gets quotes. False
  // when the row cannot hold the field (an unbalanced quote swallows the padding).
  bool setField(std::size_t i, CsvCol c, const std::string& value);
  // Inserts copies of line `after`, one per FNAME of `fnames`, right after it.
  void insertCopiesAfter(std::size_t after, const std::vector<std::string>& fnames);
  // Appends minimal rows (ID, NAME, FNAME) for a sound that had none.
  void appendRow(const std::string& id, const std::string& name, const std::vector<std::string>& fnames);
  void removeLines(std::vector<std::size_t> which);
  std::string defaultEol() const;
};

}  // namespace korvo
