#include "soundsets/altsound.h"

#include <sys/stat.h>

#include <array>
#include <charconv>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "soundsets/altsound_table.h"
#include "soundsets/dir_listing.h"
#include "soundsets/unzip.h"
#include "soundsets/xsnd.h"

namespace korvo {

namespace {

// Resolves FNAME values against the set directory, one directory read per directory.
class PathResolver {
 public:
  explicit PathResolver(std::string setDir) : setDir_(std::move(setDir)) {}

  enum Outcome { FOUND, MISSING, OUTSIDE, DIRECTORY };
  // The path of `fname` below the set directory, each component matched ignoring
  // case. OUTSIDE (and `out` empty) when the name would leave the set directory;
  // DIRECTORY when it names one (".", "./", a folder): a row needs a file.
  Outcome resolve(std::string_view fname, std::string& out) {
    std::string name(trim(fname));
    for (auto& c : name)
      if (c == '\\') c = '/';
    while (startsWithMatchCase(name, "./")) name.erase(0, 2);
    out.clear();
    if (name.empty() || !isContainedPath(name)) return name.empty() ? DIRECTORY : OUTSIDE;
    std::string cur = setDir_;
    std::size_t start = 0;
    while (start < name.size()) {
      std::size_t end = name.find('/', start);
      if (end == std::string::npos) end = name.size();
      std::string_view comp(name.data() + start, end - start);
      if (!comp.empty() && comp != ".") {
        std::string found = listing(cur).find(comp);
        if (found.empty()) {
          out = cur + "/" + name.substr(start);
          return name.back() == '/' ? DIRECTORY : MISSING;
        }
        cur = found;
      }
      start = end + 1;
    }
    out = cur;
    return isDirectory(cur) ? DIRECTORY : FOUND;
  }

  // The file of row `line` of `table`, or false when the row is to be skipped (a WARN
  // line names the table and the line). A missing file is reported once and kept.
  bool rowFile(const std::string& table, std::size_t line, std::string_view fname, std::string& file) {
    if (trim(fname).empty()) {
      LOG(LEVEL_WARN, "%s:%zu: skipping row without FNAME", table.c_str(), line);
      return false;
    }
    switch (resolve(fname, file)) {
      case OUTSIDE:
        LOG(LEVEL_WARN, "%s:%zu: skipping row with bad file name '%.*s'", table.c_str(), line,
            static_cast<int>(fname.size()), fname.data());
        return false;
      case DIRECTORY:
        LOG(LEVEL_WARN, "%s:%zu: skipping row whose file name '%.*s' names a directory", table.c_str(), line,
            static_cast<int>(fname.size()), fname.data());
        return false;
      case MISSING:
        if (missingLogged_.insert(file).second) LOG(LEVEL_WARN, "%s:%zu: file '%s' not found", table.c_str(), line, file.c_str());
        return true;
      case FOUND:
        break;
    }
    return true;
  }

 private:
  const DirListing& listing(const std::string& dir) {
    auto it = cache_.find(dir);
    if (it == cache_.end()) it = cache_.emplace(dir, std::make_unique<DirListing>(dir)).first;
    return *it->second;
  }
  std::string setDir_;
  std::unordered_map<std::string, std::unique_ptr<DirListing>> cache_;
  std::set<std::string> missingLogged_;
};

bool parseIntField(std::string_view s, int& out) {
  s = trim(s);
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  if (s.empty()) return false;
  long long v = 0;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || p != s.data() + s.size()) return false;
  out = static_cast<int>(std::clamp<long long>(v, INT32_MIN, INT32_MAX));
  return true;
}

AudioType typeFromRow(const CsvTable& t, const std::vector<CsvField>& f) {
  std::string typeName = toLower(t.field(f, C_TYPE));
  if (!typeName.empty()) {
    for (AudioType ty : {MUSIC, SFX, VOICE, JINGLE, SINGLE})
      if (typeName == audioTypeNames[ty]) return ty;
  }
  int channel = -1, stop = 0;
  bool hasChannel = parseIntField(t.field(f, C_CHANNEL), channel);
  parseIntField(t.field(f, C_STOP), stop);
  if (hasChannel && channel == 0) return MUSIC;
  if (hasChannel && channel == 1) return stop == 1 ? SINGLE : JINGLE;
  return SFX;
}

void fillFromRow(AudioSample& rec, const CsvTable& t, const std::vector<CsvField>& f, const SampleIndex& index) {
  rec.type = typeFromRow(t, f);
  rec.name = t.field(f, C_NAME);
  int gain = 0;
  if (parseIntField(t.field(f, C_GAIN), gain)) {
    rec.gain = static_cast<uint32_t>(std::clamp(gain, 0, 100));
  } else {
    rec.gain = 50;
    rec.gaindefault = true;
  }
  int duck = 0;
  if (rec.type == MUSIC) {
    rec.ducking = 100;
  } else if (parseIntField(t.field(f, C_DUCK), duck)) {
    // A negative DUCK means "pause the music": the nearest we offer is no ducking.
    rec.ducking = duck < 0 ? 100u : static_cast<uint32_t>(std::min(duck, 100));
  } else {
    rec.ducking = static_cast<uint32_t>(index.duckingByType(rec.type));
    rec.duckingdefault = true;
  }
  int preload = 0;
  rec.preload = parseIntField(t.field(f, C_PRELOAD), preload) && preload != 0;
  parseShakerSequence(t.field(f, C_SHAKER), rec.shakersequence);
  rec.serialcmd = t.field(f, C_SERIAL);
}

// ---- g-sound tables ---------------------------------------------------------------

using IniSections = std::map<std::string, std::map<std::string, std::string>>;

IniSections readIni(const std::string& path) {
  IniSections out;
  std::string text;
  if (!readWholeFile(path, text)) return out;
  std::string section;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t nl = text.find('\n', pos);
    if (nl == std::string::npos) nl = text.size();
    std::string_view line = trim(std::string_view(text).substr(pos, nl - pos));
    pos = nl + 1;
    if (line.empty() || line.front() == ';' || line.front() == '#') continue;
    if (line.front() == '[') {
      auto close = line.find(']');
      section = toLower(trim(line.substr(1, close == std::string_view::npos ? line.size() - 1 : close - 1)));
      continue;
    }
    auto eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    out[section][toLower(trim(line.substr(0, eq)))] = std::string(trim(line.substr(eq + 1)));
  }
  return out;
}

std::string findIni(const std::string& setDir) { return getFileByName(setDir, "altsound.ini"); }

// The music percentage of a ducking profile such as "sfx:65, music:50"; 100 without.
uint32_t musicDucking(const IniSections& ini, const std::string& gtype, int profile) {
  if (profile <= 0) return 100;
  auto sec = ini.find(gtype + "_ducking_profiles");
  if (sec == ini.end()) return 100;
  auto key = sec->second.find("ducking_profile" + std::to_string(profile));
  if (key == sec->second.end()) return 100;
  std::vector<std::string_view> parts;
  split(key->second, ",", parts, 32);
  for (auto part : parts) {
    auto colon = part.find(':');
    if (colon == std::string_view::npos) continue;
    int v = 0;
    if (equalsIgnoreCase(trim(part.substr(0, colon)), "music") && parseIntField(part.substr(colon + 1), v))
      return static_cast<uint32_t>(std::clamp(v, 0, 100));
  }
  return 100;
}

// Replaces the index's sounds by the records read from a table: each record's size is
// its first file's, and its chunk slots match its files.
void installRecords(SampleIndex& index, std::vector<std::unique_ptr<AudioSample>>& records, const std::string& path) {
  for (auto& r : records) {
    struct stat st{};
    if (!r->samples.empty() && ::stat(r->samples.front().c_str(), &st) == 0) r->size = static_cast<uint32_t>(st.st_size);
    r->syncChunks();
  }
  index.clearSamples();
  for (auto& r : records) index.addSample(std::move(r));
  LOG(LEVEL_INFO, "read %d sounds from %s", index.samplesMap().mapSize(), path.c_str());
}

// The sound of the first g-sound row of an id: TYPE, GAIN and the music ducking of its
// profile; named after the row's file.
std::unique_ptr<AudioSample> gsoundRecord(uint32_t id, const std::string& setDir, const std::vector<CsvField>& f,
                                          const IniSections& ini, const std::string& file) {
  auto at = [&](std::size_t k) { return k < f.size() ? f[k].value : std::string(); };
  auto rec = newAudioSampleForId(id);
  rec->basepath = setDir;
  std::string gtype = toLower(at(1));
  rec->type = gtype == "music" ? MUSIC : gtype == "callout" ? VOICE : gtype == "solo" ? SINGLE
              : gtype == "overlay" ? JINGLE : SFX;
  int gain = 50;
  if (!parseIntField(at(2), gain)) rec->gaindefault = true;
  rec->gain = static_cast<uint32_t>(std::max(gain, 0));
  int profile = 0;
  parseIntField(at(3), profile);
  rec->ducking = musicDucking(ini, gtype, profile);
  std::string base(_basename(file));
  rec->name = base.substr(0, base.find_last_of('.'));
  return rec;
}

int readGSound(SampleIndex& index, const std::string& setDir, const std::string& path) {
  CsvTable t;
  if (!t.load(path)) {
    LOG(LEVEL_ERROR, "cannot read %s", path.c_str());
    return -1;
  }
  const IniSections ini = readIni(findIni(setDir));
  PathResolver resolver(setDir);
  std::vector<std::unique_ptr<AudioSample>> records;
  std::unordered_map<uint32_t, AudioSample*> byId;
  bool headerSeen = false;
  for (std::size_t i = 0; i < t.lines.size(); ++i) {
    if (trim(t.lines[i].text).empty()) continue;
    if (!headerSeen) {  // the first line names the columns
      headerSeen = true;
      continue;
    }
    auto f = splitCsvLine(t.lines[i].text);
    auto at = [&](std::size_t k) { return k < f.size() ? f[k].value : std::string(); };
    uint32_t id = 0;
    if (!parseHexId(at(0), id)) {
      LOG(LEVEL_WARN, "%s:%zu: skipping row with bad id '%s'", path.c_str(), i + 1, at(0).c_str());
      continue;
    }
    std::string file;
    if (!resolver.rowFile(path, i + 1, at(4), file)) continue;
    AudioSample*& rec = byId[id];
    if (rec == nullptr) {
      records.push_back(gsoundRecord(id, setDir, f, ini, file));
      rec = records.back().get();
    }
    rec->samples.push_back(file);
  }
  installRecords(index, records, path);
  return 0;
}

// Loads the editable table of an AltSound set directory; 2 for g-sound, 1 when none.
int loadEditable(const std::string& setDir, CsvTable& t) {
  bool gsound = false;
  std::string path = findCsvTable(setDir, &gsound);
  if (path.empty()) {
    LOG(LEVEL_ERROR, "no altsound table in %s", setDir.c_str());
    return 1;
  }
  if (gsound) {
    LOG(LEVEL_WARN, "editing %s is not supported", path.c_str());
    return 2;
  }
  if (!t.load(path)) {
    LOG(LEVEL_ERROR, "cannot read %s", path.c_str());
    return 1;
  }
  return 0;
}

int saveTable(const CsvTable& t) { return writeFileAtomic(t.path, t.serialize()) == 0 ? 0 : 1; }

// Sets `values` in every row of `id`; 0, or 1 when the id has no row.
int editRows(const std::string& setDir, uint32_t id, const std::vector<std::pair<CsvCol, std::string>>& values) {
  CsvTable t;
  int rc = loadEditable(setDir, t);
  if (rc != 0) return rc;
  for (const auto& v : values) t.ensureColumn(v.first);
  int rows = 0;
  for (std::size_t i : t.rowsOf(id)) {
    bool ok = true;
    for (const auto& v : values) ok = t.setField(i, v.first, v.second) && ok;
    if (ok) {
      ++rows;
    } else {
      LOG(LEVEL_WARN, "%s:%zu: row cannot be edited (unbalanced quotes)", t.path.c_str(), i + 1);
    }
  }
  if (rows == 0) {
    LOG(LEVEL_WARN, "no row for sound 0x%04X in %s", id, t.path.c_str());
    return 1;
  }
  return saveTable(t);
}

std::string relativeTo(const std::string& base, const std::string& path) {
  if (!base.empty() && path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
      path[base.size()] == '/')
    return path.substr(base.size() + 1);
  return path;
}

std::string csvQuoteIfNeeded(const std::string& v) {
  return v.find_first_of(",\"") == std::string::npos ? v : csvQuote(v);
}

struct TypeColumns {
  const char* channel;
  const char* stop;
  const char* loop;
};
TypeColumns typeColumns(AudioType type) {
  switch (type) {
    case MUSIC: return {"0", "0", "100"};
    case JINGLE: return {"1", "0", "0"};
    case SINGLE: return {"1", "1", "0"};
    default: return {"", "0", "0"};
  }
}

// Copies file `i` of `s` beside the exported CSV as "0xIIII-<name>"; the copy's
// name. Audio of a container set comes from its chunk, never from the path its index
// names (containerFilesHaveChunks ran first).
std::string copyBesideCsv(const AudioSample& s, std::size_t i, bool fromContainer, const std::string& csvDir,
                          bool& copied) {
  const std::string& file = s.samples[i];
  std::string copyName = strFormat("0x%04X-%s", s.id, std::string(_basename(file)).c_str());
  std::string dest = csvDir + "/" + copyName;
  int crc = fromContainer ? extractContainerFile(s.basepath, s.filechunks[i], dest) : copyFileAtomic(file, dest);
  if (crc != 0) {
    LOG(LEVEL_ERROR, "could not copy %s to %s", file.c_str(), dest.c_str());
    copied = false;
  }
  return copyName;
}

// One exported row: numbers unquoted, texts quoted when they hold a comma or quote.
std::string csvExportRow(const AudioSample& s, const std::string& fname) {
  TypeColumns tc = typeColumns(s.type);
  std::string shaker;
  for (std::size_t k = 0; k < s.shakersequence.size(); ++k) shaker += (k ? "," : "") + std::to_string(s.shakersequence[k]);
  std::string row = strFormat("0x%04X,%s,%u,%u,%s,%s,", s.id, tc.channel, s.ducking, s.gain, tc.loop, tc.stop);
  row += csvQuoteIfNeeded(s.name) + "," + csvQuoteIfNeeded(fname) + ",," + csvQuoteIfNeeded(shaker) + "," +
         csvQuoteIfNeeded(s.serialcmd) + "," + (s.preload ? "1" : "0") + ",," + audioTypeName(s.type) + "\n";
  return row;
}

// A table is a file: a folder that happens to carry the name does not make a set.
std::string findTableFile(const DirListing& dir, std::string_view name) {
  for (const auto& e : dir.entries())
    if (equalsIgnoreCase(e.name, name) && dir.isRegularFile(e)) return dir.dir() + "/" + e.name;
  return "";
}

}  // namespace

// ---- public -----------------------------------------------------------------------

std::string findCsvTable(const std::string& setDir, bool* gsound) {
  DirListing dir(setDir);
  std::string alt = findTableFile(dir, "altsound.csv");
  std::string gs = findTableFile(dir, "g-sound.csv");
  bool useG = !gs.empty();
  std::string iniPath = dir.find("altsound.ini");
  if (!iniPath.empty() && !alt.empty() && !gs.empty()) {
    IniSections ini = readIni(iniPath);
    auto sec = ini.find("format");
    if (sec != ini.end()) {
      auto fmt = sec->second.find("format");
      if (fmt != sec->second.end()) useG = equalsIgnoreCase(fmt->second, "g-sound");
    }
  }
  if (gsound) *gsound = useG;
  return useG ? gs : alt;
}

int readSamplesFromCsv(SampleIndex& index, const std::string& setDir) {
  bool gsound = false;
  std::string path = findCsvTable(setDir, &gsound);
  if (path.empty()) {
    LOG(LEVEL_ERROR, "no altsound table in %s", setDir.c_str());
    return -1;
  }
  if (gsound) return readGSound(index, setDir, path);
  CsvTable t;
  if (!t.load(path)) {
    LOG(LEVEL_ERROR, "cannot read %s", path.c_str());
    return -1;
  }
  PathResolver resolver(setDir);
  std::vector<std::unique_ptr<AudioSample>> records;
  std::unordered_map<uint32_t, AudioSample*> byId;
  for (std::size_t i : t.dataRows()) {
    auto f = splitCsvLine(t.lines[i].text);
    std::string idText = t.field(f, C_ID);
    uint32_t id = 0;
    if (!parseHexId(idText, id)) {
      LOG(LEVEL_WARN, "%s:%zu: skipping row with bad id '%s'", path.c_str(), i + 1, idText.c_str());
      continue;
    }
    std::string fname = t.field(f, C_FNAME);
    std::string file;
    if (!resolver.rowFile(path, i + 1, fname, file)) continue;
    AudioSample*& rec = byId[id];
    if (rec == nullptr) {
      records.push_back(newAudioSampleForId(id));
      rec = records.back().get();
      rec->basepath = setDir;
      fillFromRow(*rec, t, f, index);
    }
    rec->samples.push_back(file);
  }
  installRecords(index, records, path);
  return 0;
}

int updateCsvColumn(AudioSample& sample, SampleIndex::CsvColumn column, const std::string& value) {
  CsvCol col;
  switch (column) {
    case SampleIndex::CSV_SERIAL: col = C_SERIAL; break;
    case SampleIndex::CSV_SHAKER: col = C_SHAKER; break;
    case SampleIndex::CSV_GAIN: col = C_GAIN; break;
    case SampleIndex::CSV_DUCK: col = C_DUCK; break;
    case SampleIndex::CSV_NAME: col = C_NAME; break;
    case SampleIndex::CSV_PRELOAD: col = C_PRELOAD; break;
    default: return 1;
  }
  return editRows(sample.basepath, sample.id, {{col, value}});
}

int updateCsvType(AudioSample& sample) {
  TypeColumns tc = typeColumns(sample.type);
  std::vector<std::pair<CsvCol, std::string>> values = {
      {C_TYPE, audioTypeName(sample.type)}, {C_CHANNEL, tc.channel}, {C_STOP, tc.stop}, {C_LOOP, tc.loop}};
  if (sample.type == MUSIC) values.emplace_back(C_DUCK, "100");
  return editRows(sample.basepath, sample.id, values);
}

int refreshCsvTable(const AudioSample& sample) {
  CsvTable t;
  int rc = loadEditable(sample.basepath, t);
  if (rc != 0) return rc;
  PathResolver resolver(sample.basepath);
  std::map<std::string, int> wanted;
  for (const auto& p : sample.samples)
    if (!p.empty()) ++wanted[p];
  std::vector<std::size_t> rows = t.rowsOf(sample.id);
  std::vector<std::size_t> drop;
  for (std::size_t i : rows) {
    std::string file;
    resolver.resolve(t.field(splitCsvLine(t.lines[i].text), C_FNAME), file);
    auto it = wanted.find(file);
    if (it != wanted.end() && it->second > 0) {
      --it->second;
    } else {
      drop.push_back(i);
    }
  }
  // New rows go right after the id's last row, in the order of the sound's files.
  std::vector<std::string> added;
  for (const auto& p : sample.samples) {
    auto it = wanted.find(p);
    if (it != wanted.end() && it->second > 0) {
      --it->second;
      added.push_back(relativeTo(sample.basepath, p));
    }
  }
  if (drop.empty() && added.empty()) return 0;
  if (!added.empty()) {
    if (rows.empty()) {
      t.appendRow(strFormat("0x%04X", sample.id), sample.name, added);
    } else {
      t.insertCopiesAfter(rows.back(), added);
    }
  }
  t.removeLines(drop);
  return saveTable(t);
}

int writeSamplesToCsv(SampleIndex& index, const std::string& csvPath, const std::string& basePath, bool copyFiles) {
  if (copyFiles && !containerFilesHaveChunks(index)) {
    LOG(LEVEL_ERROR, "export to %s refused: the container's index names files it does not hold", csvPath.c_str());
    return -1;
  }
  auto slash = csvPath.find_last_of('/');
  const std::string csvDir = slash == std::string::npos ? "." : csvPath.substr(0, slash);
  std::string out = "ID,CHANNEL,DUCK,GAIN,LOOP,STOP,NAME,FNAME,GROUP,SHAKER,SERIAL,PRELOAD,STOPCMD,TYPE\n";
  int rows = 0;
  bool copied = true;
  for (auto& node : index.samplesMap()) {
    const AudioSample* s = node.value.get();
    if (s == nullptr) continue;
    for (std::size_t i = 0; i < s->samples.size(); ++i) {
      std::string fname = relativeTo(basePath, s->samples[i]);
      if (copyFiles) fname = copyBesideCsv(*s, i, index.setType() == XSNDFILE, csvDir, copied);
      out += csvExportRow(*s, fname);
      ++rows;
    }
  }
  // A table naming copies that are not there is no pack.
  if (!copied) {
    LOG(LEVEL_ERROR, "export to %s failed: not every sample file could be copied", csvPath.c_str());
    return -1;
  }
  if (writeFileAtomic(csvPath, out) != 0) return -1;
  LOG(LEVEL_INFO, "wrote %d rows to %s", rows, csvPath.c_str());
  return 0;
}

}  // namespace korvo
