#include "soundsets/altsound_table.h"

#include <algorithm>

#include "base/fileutil.h"
#include "base/stringutil.h"

namespace korvo {

const char* const kCsvColumnNames[C_COUNT] = {"ID",    "CHANNEL", "DUCK",   "GAIN",    "LOOP",    "STOP", "NAME",
                                              "FNAME", "GROUP",   "SHAKER", "SERIAL", "PRELOAD", "STOPCMD", "TYPE"};

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

int columnForName(std::string_view name) {
  std::string n = toLower(trim(name));
  if (n == "stop cmd") return C_STOPCMD;
  for (int c = 0; c < C_COUNT; ++c)
    if (n == toLower(kCsvColumnNames[c])) return c;
  return -1;
}

}  // namespace

std::vector<CsvField> splitCsvLine(std::string_view line) {
  std::vector<CsvField> out;
  std::size_t i = 0;
  const std::size_t n = line.size();
  while (true) {
    CsvField f;
    while (i < n && isBlank(line[i])) ++i;
    f.start = i;
    if (i < n && line[i] == '"') {
      f.quoted = true;
      ++i;
      while (i < n) {
        if (line[i] == '"') {
          if (i + 1 < n && line[i + 1] == '"') {
            f.value += '"';
            i += 2;
            continue;
          }
          ++i;
          break;
        }
        f.value += line[i++];
      }
      // Anything between the closing quote and the comma is kept, as editors do.
      while (i < n && line[i] != ',') f.value += line[i++];
    } else {
      while (i < n && line[i] != ',') f.value += line[i++];
    }
    std::size_t end = i;
    while (end > f.start && isBlank(line[end - 1])) --end;
    f.end = end;
    f.value = std::string(trim(f.value));
    out.push_back(std::move(f));
    if (i >= n) break;
    ++i;  // the comma
  }
  return out;
}

bool parseHexId(std::string_view text, uint32_t& id) {
  text = trim(text);
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
  if (text.empty()) return false;
  // Leading zeros are fine ("0001A"); more than 32 bits of value are not.
  while (text.size() > 1 && text.front() == '0') text.remove_prefix(1);
  if (text.size() > 8) return false;
  uint32_t v = 0;
  for (char c : text) {
    int d = (c >= '0' && c <= '9') ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10 : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
    if (d < 0) return false;
    v = (v << 4) | static_cast<uint32_t>(d);
  }
  id = v;
  return true;
}

std::string csvQuote(std::string_view v) {
  std::string out = "\"";
  for (char c : v) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

bool CsvTable::load(const std::string& file) {
  std::string bytes;
  if (!readWholeFile(file, bytes)) return false;
  path = file;
  parse(bytes);
  return true;
}

void CsvTable::parse(std::string_view bytes) {
  lines.clear();
  bom = bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF";
  if (bom) bytes.remove_prefix(3);
  std::size_t pos = 0;
  while (pos < bytes.size()) {
    std::size_t nl = bytes.find('\n', pos);
    Line l;
    if (nl == std::string_view::npos) {
      l.text = std::string(bytes.substr(pos));
      pos = bytes.size();
    } else {
      l.text = std::string(bytes.substr(pos, nl - pos));
      l.eol = "\n";
      pos = nl + 1;
    }
    if (!l.text.empty() && l.text.back() == '\r') {
      l.text.pop_back();
      l.eol = "\r" + l.eol;
    }
    lines.push_back(std::move(l));
  }
  headerLine = -1;
  col.fill(-1);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (trim(lines[i].text).empty()) continue;
    auto f = splitCsvLine(lines[i].text);
    if (equalsIgnoreCase(f[0].value, "ID")) {
      headerLine = static_cast<int>(i);
      for (std::size_t k = 0; k < f.size(); ++k) {
        int c = columnForName(f[k].value);
        if (c >= 0 && col[c] < 0) col[c] = static_cast<int>(k);
      }
    }
    break;
  }
  if (headerLine < 0)
    for (int c = 0; c < C_COUNT; ++c) col[c] = c;
}

std::string CsvTable::serialize() const {
  std::string out;
  if (bom) out = "\xEF\xBB\xBF";
  for (const auto& l : lines) {
    out += l.text;
    out += l.eol;
  }
  return out;
}

std::vector<std::size_t> CsvTable::dataRows() const {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (static_cast<int>(i) != headerLine && !trim(lines[i].text).empty()) out.push_back(i);
  return out;
}

std::vector<std::size_t> CsvTable::rowsOf(uint32_t id) const {
  std::vector<std::size_t> out;
  for (std::size_t i : dataRows()) {
    uint32_t rowId = 0;
    if (parseHexId(field(splitCsvLine(lines[i].text), C_ID), rowId) && rowId == id) out.push_back(i);
  }
  return out;
}

std::string CsvTable::field(const std::vector<CsvField>& f, CsvCol c) const {
  int k = col[c];
  return k >= 0 && static_cast<std::size_t>(k) < f.size() ? f[static_cast<std::size_t>(k)].value : std::string();
}

void CsvTable::ensureColumn(CsvCol c) {
  if (col[c] >= 0) return;
  int width = 0;
  if (headerLine >= 0) {
    Line& h = lines[static_cast<std::size_t>(headerLine)];
    width = static_cast<int>(splitCsvLine(h.text).size());
    for (int k = 0; k <= c; ++k) {
      if (col[k] >= 0) continue;
      h.text += ",";
      h.text += kCsvColumnNames[k];
      col[k] = width++;
    }
  } else {
    width = c + 1;
  }
  for (std::size_t i : dataRows()) {
    int have = static_cast<int>(splitCsvLine(lines[i].text).size());
    if (have < width) lines[i].text.append(static_cast<std::size_t>(width - have), ',');
  }
}

bool CsvTable::setField(std::size_t i, CsvCol c, const std::string& value) {
  if (col[c] < 0) return false;
  Line& l = lines[i];
  const std::size_t k = static_cast<std::size_t>(col[c]);
  auto f = splitCsvLine(l.text);
  if (f.size() <= k) {
    // Commas appended after an unbalanced quote stay inside it: such a row cannot
    // take the field and is left alone.
    std::string padded = l.text + std::string(k + 1 - f.size(), ',');
    f = splitCsvLine(padded);
    if (f.size() <= k) return false;
    l.text = std::move(padded);
  }
  const CsvField& fld = f[k];
  const bool quote = fld.quoted || value.find_first_of(",\"") != std::string::npos;
  l.text.replace(fld.start, fld.end - fld.start, quote ? csvQuote(value) : value);
  return true;
}

std::string CsvTable::defaultEol() const {
  for (const auto& l : lines)
    if (!l.eol.empty()) return l.eol;
  return "\n";
}

void CsvTable::insertCopiesAfter(std::size_t after, const std::vector<std::string>& fnames) {
  const Line tmpl = lines[after];
  std::vector<Line> copies(fnames.size(), Line{tmpl.text, tmpl.eol.empty() ? defaultEol() : tmpl.eol});
  if (copies.empty()) return;
  // A last line without a line end keeps that style: the end moves to the new last.
  if (lines[after].eol.empty()) {
    lines[after].eol = defaultEol();
    copies.back().eol.clear();
  }
  auto pos = lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(after) + 1, copies.begin(), copies.end());
  std::size_t first = static_cast<std::size_t>(pos - lines.begin());
  for (std::size_t j = 0; j < fnames.size(); ++j) setField(first + j, C_FNAME, fnames[j]);
}

void CsvTable::appendRow(const std::string& id, const std::string& name, const std::vector<std::string>& fnames) {
  for (const auto& fname : fnames) {
    if (!lines.empty() && lines.back().eol.empty()) lines.back().eol = defaultEol();
    lines.push_back(Line{"", defaultEol()});
    setField(lines.size() - 1, C_ID, id);
    setField(lines.size() - 1, C_NAME, name);
    setField(lines.size() - 1, C_FNAME, fname);
  }
}

void CsvTable::removeLines(std::vector<std::size_t> which) {
  std::sort(which.begin(), which.end());
  for (auto it = which.rbegin(); it != which.rend(); ++it) {
    const bool wasLast = *it + 1 == lines.size();
    const bool noEol = lines[*it].eol.empty();
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(*it));
    if (wasLast && noEol && !lines.empty()) lines.back().eol.clear();
  }
}

}  // namespace korvo
