// AltSound sets: a directory with a table that maps command ids to sample files
// ("altsound.csv", or the g-sound variant "g-sound.csv"). Packs come from many hands
// and editors, so reading is forgiving (BOM, CRLF, quotes, hex ids with or without
// 0x, rows of one id anywhere in the file, file names in any case) and writing is
// conservative: an edit changes only the bytes of its fields and is written
// atomically.
//
// Stateless: every edit reads the table from disk again, so the file stays the one
// source of truth. Thread: the caller's, holding the engine mutex when a SampleIndex
// or one of its records is passed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "soundsets/model.h"
#include "soundsets/sample_index.h"

namespace korvo {

// The table of an AltSound set directory: the full path of "altsound.csv" or
// "g-sound.csv" (any case), chosen by altsound.ini's [format] format = g-sound |
// altsound when given, else g-sound.csv wins. Empty when there is none. `gsound`
// tells which one.
std::string findCsvTable(const std::string& setDir, bool* gsound = nullptr);
inline bool isAltsoundDir(const std::string& setDir) { return !findCsvTable(setDir).empty(); }

// Fills index.samplesMap from the set's table (the previous records are freed). Each
// record's basepath is the set directory. 0 on success, -1 when there is no readable
// table (the map is then left as it was). Bad rows are skipped with a WARN line.
int readSamplesFromCsv(SampleIndex& index, const std::string& setDir);

// Writes `value` into `column` of every row of sample.id in the table of
// sample.basepath, growing the header (and padding the rows) when the column is
// missing. 0 on success, 1 when the id has no row or the table cannot be read or
// written, 2 for g-sound tables (not editable).
int updateCsvColumn(AudioSample& sample, SampleIndex::CsvColumn column, const std::string& value);
// Writes TYPE and the type-dependent columns other readers use (CHANNEL, STOP, LOOP,
// and DUCK for music) for sample.id. Results as updateCsvColumn.
int updateCsvType(AudioSample& sample);
// After a file was added to or removed from the sound: a row per entry of
// sample.samples (a new one right after the id's last row, copying its fields), rows
// of files no longer listed dropped, every other row untouched. Results as
// updateCsvColumn.
int refreshCsvTable(const AudioSample& sample);

// Exports the loaded set as an altsound.csv that PinMAME's readers and ours read: one
// row per file, FNAME relative to `basePath`; with copyFiles each file is copied
// beside the CSV as "0xIIII-<name>" and FNAME names the copy. 0, or -1 on failure
// (also when a copy failed; the CSV is then not written).
int writeSamplesToCsv(SampleIndex& index, const std::string& csvPath, const std::string& basePath, bool copyFiles);

// ---- CSV lexing (exposed for tests and the fuzz target) ----
struct CsvField {
  std::string value;      // unquoted, trimmed
  std::size_t start = 0;  // byte span of the raw field in its line
  std::size_t end = 0;
  bool quoted = false;
};
// Splits one line (without its end) at commas outside double quotes.
std::vector<CsvField> splitCsvLine(std::string_view line);
// "0x1A", "1a", "001A" -> true and the value; false for anything else.
bool parseHexId(std::string_view text, uint32_t& id);

}  // namespace korvo
