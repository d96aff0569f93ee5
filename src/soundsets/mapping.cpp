// Id mapping of scrambled sets (hashesMap) and moving a PINSOUND sound between type
// groups.
#include <zlib.h>

#include <cctype>
#include <cstdio>
#include <filesystem>

#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "soundsets/sample_index.h"

namespace korvo {

namespace {

constexpr std::size_t kMappingLineMax = 1023;
// A mapping file is a few kilobytes; anything past this is not a mapping (and a gzip
// stream that inflates without end must not exhaust memory).
constexpr std::size_t kMappingFileMax = 16u << 20;
// Malformed lines are reported one by one up to this count, then summed up.
constexpr int kReportedJunkLines = 5;

// Reads at most kMappingFileMax bytes of a mapping file; false when it cannot be
// opened. A damaged gzip stream keeps what was read before the damage.
bool readGzipCapped(const std::string& path, std::string& content) {
  GzHandle gz(gzopen(path.c_str(), "r"));
  if (!gz) return false;
  LOG(LEVEL_INFO, "loading hashes from %s", path.c_str());
  char buf[8192];
  int n;
  while ((n = gzread(gz.get(), buf, sizeof buf)) > 0) {
    if (content.size() + static_cast<std::size_t>(n) > kMappingFileMax) {
      LOG(LEVEL_WARN, "mapping %s is larger than %zu bytes, rest ignored", path.c_str(), kMappingFileMax);
      return true;
    }
    content.append(buf, static_cast<std::size_t>(n));
  }
  if (n < 0) {
    int err = 0;
    const char* msg = gzerror(gz.get(), &err);
    LOG(LEVEL_WARN, "mapping %s is damaged (%s), using the lines read so far", path.c_str(), msg ? msg : "?");
  }
  return true;
}

bool readPlainCapped(const std::string& path, std::string& content) {
  FileHandle f(fopen(path.c_str(), "rb"));
  if (!f) return false;
  LOG(LEVEL_INFO, "loading hashes from %s", path.c_str());
  char buf[8192];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, f.get())) > 0) {
    if (content.size() + n > kMappingFileMax) {
      LOG(LEVEL_WARN, "mapping %s is larger than %zu bytes, rest ignored", path.c_str(), kMappingFileMax);
      return true;
    }
    content.append(buf, n);
  }
  return true;
}

// A rename is one step on the same file system; a copy is the fallback across file
// systems, and the old tree goes only once the copy is complete.
bool moveTree(const std::filesystem::path& oldDir, const std::filesystem::path& newDir) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::rename(oldDir, newDir, ec);
  if (!ec) return true;
  ec.clear();
  fs::copy(oldDir, newDir, fs::copy_options::recursive, ec);
  if (ec) {
    LOG(LEVEL_ERROR, "copy %s to %s failed: %s", oldDir.c_str(), newDir.c_str(), ec.message().c_str());
    std::error_code ignore;
    fs::remove_all(newDir, ignore);
    return false;
  }
  fs::remove_all(oldDir, ec);
  if (ec) LOG(LEVEL_WARN, "cannot remove %s: %s", oldDir.c_str(), ec.message().c_str());
  return true;
}

}  // namespace

void SampleIndex::initHashesMap() { mapping_.hashes.clear(); }

int SampleIndex::handleLine(std::string_view line) {
  if (line.empty()) return 0;
  if (line.front() == '#') return 0;
  // The set's "config.mellosnd" holds its configuration keys beside the mapping.
  if (line.find('=') != std::string_view::npos) return 0;
  std::string copy(line.substr(0, kMappingLineMax));
  unsigned realId = 0;
  unsigned scrambled = 0;
  if (sscanf(copy.c_str(), "%x %u", &realId, &scrambled) != 2) return -1;
  mapping_.hashes.mapSet(scrambled, realId);
  return 1;
}

int SampleIndex::loadHashMappingByName(const std::string& dir, const std::string& name) {
  initHashesMap();
  std::string path = dir + "/" + name;
  bool gzip = !name.empty() && isdigit(static_cast<unsigned char>(name.front()));
  std::string content;
  if (!(gzip ? readGzipCapped(path, content) : readPlainCapped(path, content))) {
    LOG(LEVEL_WARN, "no hashes found in '%s'", path.c_str());
    return 0;
  }
  int junk = 0;
  int lineNo = 0;
  std::size_t pos = 0;
  while (pos < content.size()) {
    std::size_t end = content.find_first_of("\r\n", pos);
    if (end == std::string::npos) end = content.size();
    // Lines longer than the line buffer are cut into pieces, each read on its own.
    for (std::size_t p = pos; p < end; p += kMappingLineMax) {
      ++lineNo;
      std::string_view piece(content.data() + p, std::min(kMappingLineMax, end - p));
      if (handleLine(piece) < 0 && ++junk <= kReportedJunkLines)
        LOG(LEVEL_WARN, "%s: line %d is not a mapping, ignored", path.c_str(), lineNo);
    }
    pos = end + 1;
  }
  if (junk > kReportedJunkLines) LOG(LEVEL_WARN, "%s: %d lines were not mappings", path.c_str(), junk);
  if (gzip)
    LOG(LEVEL_DEBUG, "loaded %d hashes", mapping_.hashes.mapSize());
  else
    LOG(LEVEL_INFO, "loaded %d hashes", mapping_.hashes.mapSize());
  return 1;
}

int SampleIndex::moveSoundToGroup(unsigned id, int type) {
  namespace fs = std::filesystem;
  AudioSample* s = getSampleForId(id);
  if (!s) {
    LOG(LEVEL_ERROR, "sample for id %d not found", static_cast<int>(id));
    return 1;
  }
  if (type < 0 || type >= kAudioTypeCount || type == s->type || config_.setType == XSNDFILE) return 0;
  if (type == UNKNOWN || type == SYSTEM) {
    // No group directory is scanned for these: the sound would vanish at the next load.
    LOG(LEVEL_ERROR, "sound %s cannot be moved to %s: no such group", s->name.c_str(), audioTypeName(type));
    return 1;
  }
  LOG(LEVEL_INFO, "moving sound %s to %s", s->name.c_str(), audioTypeNames[type]);
  // Only the group component is replaced, so a base path that itself holds a type
  // word ("/media/music/sets/...") stays as it is.
  fs::path oldDir(s->basepath);
  if (oldDir.parent_path().filename() != audioTypeName(s->type)) {
    LOG(LEVEL_ERROR, "sound directory %s is not in its group %s", s->basepath.c_str(), audioTypeName(s->type));
    return 1;
  }
  fs::path groupDir = oldDir.parent_path().parent_path() / audioTypeNames[type];
  fs::path newDir = groupDir / oldDir.filename();
  std::error_code ec;
  if (fs::exists(newDir, ec)) {
    LOG(LEVEL_ERROR, "cannot move %s: %s exists", s->basepath.c_str(), newDir.c_str());
    return 1;
  }
  fs::create_directories(groupDir, ec);
  if (!moveTree(oldDir, newDir)) return 1;
  std::string oldPrefix = oldDir.string() + "/";
  std::string newPrefix = newDir.string() + "/";
  for (auto& file : s->samples)
    if (file.starts_with(oldPrefix)) file = newPrefix + file.substr(oldPrefix.size());
  s->basepath = newDir.string();
  s->type = static_cast<AudioType>(type);
  return 0;
}

}  // namespace korvo
