// PINSOUND layout: the scan of a directory tree whose names carry ids, names and
// types into the sample index, and the load of a set (initSamples).
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "soundsets/dir_listing.h"
#include "soundsets/sample_index.h"

namespace korvo {

namespace {

// The type directories of a PINSOUND set, matched exactly.
constexpr AudioType kGroupTypes[] = {MUSIC, SFX, JINGLE, VOICE, SINGLE};

AudioType groupTypeOf(std::string_view name) {
  for (AudioType t : kGroupTypes)
    if (name == audioTypeNames[t]) return t;
  return UNKNOWN;
}

// Small per-sound files are read up to this many bytes.
constexpr std::size_t kSmallFileMax = 1024;

bool readSmallFile(const std::string& path, std::string& out) {
  FileHandle f(fopen(path.c_str(), "r"));
  if (!f) return false;
  char buf[kSmallFileMax];
  std::size_t n = fread(buf, 1, sizeof buf, f.get());
  out.assign(buf, n);
  return true;
}

// "%u-%s" then "0x%x-%s": the id and the name up to the first white space.
bool parseSoundDirName(const std::string& entry, uint32_t& id, std::string& name) {
  std::vector<char> buf(entry.size() + 1, '\0');
  unsigned v = 0xFFFFFFFFu;
  int n = sscanf(entry.c_str(), "%u-%s", &v, buf.data());
  if (n != 2) {
    v = 0xFFFFFFFFu;
    n = sscanf(entry.c_str(), "0x%x-%s", &v, buf.data());
  }
  if (n != 2 || v == 0xFFFFFFFFu) return false;
  id = v;
  name = buf.data();
  return true;
}

int serialCmdsIn(const DirListing& dir, std::string& out) {
  out.clear();
  std::string path = dir.find("serial.txt");
  if (path.empty()) return 0;
  if (!readFirstLine(path, out)) {
    LOG(LEVEL_WARN, "cannot read %s", path.c_str());
    return 0;
  }
  trim_right(out);
  while (!out.empty() && (out.back() == '\t' || out.back() == '\v' || out.back() == '\f')) {
    out.pop_back();
    trim_right(out);
  }
  return out.empty() ? 0 : 1;
}

int shakerIn(const DirListing& dir, std::vector<uint32_t>& out) {
  out.clear();
  std::string path = dir.find("shaker.txt");
  if (path.empty()) return 0;
  std::string line;
  if (!readFirstLine(path, line)) {
    LOG(LEVEL_WARN, "cannot read %s", path.c_str());
    return 0;
  }
  return parseShakerSequence(line, out);
}

int gainIn(const DirListing& dir, int defaultValue, AudioSample* sample) {
  int value = defaultValue;
  std::string path = dir.find("gain.txt");
  if (sample) sample->gaindefault = path.empty();
  if (!path.empty()) {
    std::string text;
    int v = 0;
    if (!readSmallFile(path, text))
      LOG(LEVEL_WARN, "cannot read %s, gain stays %d", path.c_str(), defaultValue);
    else if (!readFirstInt(text, v))
      LOG(LEVEL_WARN, "no number in %s, gain stays %d", path.c_str(), defaultValue);
    else
      value = v;
  }
  long long pct = static_cast<long long>(value) * 100 / 30;
  return pct < 0 ? 0 : pct > 100 ? 100 : static_cast<int>(pct);
}

int duckingIn(const DirListing& dir, int typeDefault, AudioSample* sample) {
  int value = typeDefault;
  std::string path = dir.find("ducking.txt");
  if (sample) sample->duckingdefault = path.empty();
  if (!path.empty()) {
    std::string text;
    int v = 0;
    if (!readSmallFile(path, text))
      LOG(LEVEL_WARN, "cannot read %s, ducking stays %d", path.c_str(), typeDefault);
    else if (!readFirstInt(text, v))
      LOG(LEVEL_WARN, "no number in %s, ducking stays %d", path.c_str(), typeDefault);
    else
      value = v;
  }
  return value;
}

// A scrambled set whose mapping misses some sounds: each one left under its
// scrambled id is named.
void logUnmapped(const SoundSet& set) {
  for (const AudioSample* s : set.samples) {
    if (s->type == UNKNOWN || s->magic != 0) continue;
    LOG(LEVEL_ERROR, "unmapped sample %010u 0x%08x 0x%08x, type: %s, gain: %d, name: %s, path: %s", s->id, s->id,
        s->magic, audioTypeName(s->type), static_cast<int>(s->gain), s->name.c_str(), s->firstPath().c_str());
  }
}

}  // namespace

bool isAudioFileType(std::string_view fileName) {
  if (fileName.empty() || fileName.front() == '.') return false;
  return fileName.ends_with(".ogg") || fileName.ends_with(".wav") || fileName.ends_with(".mp3");
}

std::string getFileByName(const std::string& dir, std::string_view name) { return DirListing(dir).find(name); }

int getSerialCmds(const std::string& dir, std::string& out) { return serialCmdsIn(DirListing(dir), out); }

int getShakerSequence(const std::string& dir, std::vector<uint32_t>& out) { return shakerIn(DirListing(dir), out); }

int countElements(std::string_view text, std::string_view delimiters) {
  int count = 0;
  bool inToken = false;
  for (char c : text) {
    bool delim = delimiters.find(c) != std::string_view::npos;
    if (!delim && !inToken) ++count;
    inToken = !delim;
  }
  return count;
}

int parseShakerSequence(std::string_view text, std::vector<uint32_t>& out) {
  static constexpr std::string_view kDelims = ",; \t\n";
  out.clear();
  out.reserve(static_cast<std::size_t>(countElements(text, kDelims)));
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t start = text.find_first_not_of(kDelims, pos);
    if (start == std::string_view::npos) break;
    std::size_t end = text.find_first_of(kDelims, start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view token = text.substr(start, end - start);
    int v = 0;
    if (!readFirstInt(token, v) || v < 0) {
      // A step that is not a duration must not drive the motor: it becomes a pause of 0.
      LOG(LEVEL_WARN, "shaker step '%.*s' is not a duration, using 0", static_cast<int>(token.size()), token.data());
      v = 0;
    }
    out.push_back(static_cast<uint32_t>(v));
    pos = end;
  }
  LOG(LEVEL_DEBUG, "loaded shaker seq: %d", static_cast<int>(out.size()));
  return static_cast<int>(out.size());
}

int checkRange(int min, int max, int value) { return value < min ? min : value > max ? max : value; }

// ---- SampleIndex: records ----

SampleIndex::SampleIndex(Settings& s) : settings_(s) {}

AudioSample* SampleIndex::getSampleForId(unsigned id) {
  auto* p = samples_.mapGet1(id);
  return p ? p->get() : nullptr;
}

void SampleIndex::clearSamples() { samples_.clear(); }

AudioSample* SampleIndex::addSample(std::unique_ptr<AudioSample> rec) {
  AudioSample* raw = rec.get();
  unsigned id = rec->id;
  samples_.mapSet(id, std::move(rec));
  return raw;
}

int SampleIndex::getGain(const std::string& dir, int defaultValue, AudioSample* sample) {
  return gainIn(DirListing(dir), defaultValue, sample);
}

int SampleIndex::getDucking(const std::string& dir, AudioType type, AudioSample* sample) {
  return duckingIn(DirListing(dir), config_.duckingByType[checkRange(0, kAudioTypeCount - 1, type)], sample);
}

// ---- scan ----

void SampleIndex::scanAll(const std::string& basedir) {
  scan_.hashOfAllIds = 0;
  scan_.scrambledIds = 0;
  DirListing base(basedir);
  for (const auto& e : base.entries()) {
    AudioType type = groupTypeOf(e.name);
    if (type == UNKNOWN || !base.isDirectory(e)) continue;
    scan(basedir + "/" + e.name, type);
  }
  LOG(LEVEL_DEBUG, "scan done id hash is: %u", scan_.hashOfAllIds);
}

void SampleIndex::scan(const std::string& typedir, AudioType type) {
  DirListing tdir(typedir);
  if (!tdir.ok()) return;
  config_.gainByType[type] = gainIn(tdir, config_.gainByType[type] * 30 / 100, nullptr);
  LOG(LEVEL_DEBUG, "gain for %s is %d", audioTypeNames[type], config_.gainByType[type]);
  serialCmdsIn(tdir, config_.serialCmdByType[type]);

  std::string name;
  std::string serial;
  for (const auto& e : tdir.entries()) {
    uint32_t dirId = 0;
    if (!tdir.isDirectory(e) || !parseSoundDirName(e.name, dirId, name)) continue;
    if (dirId > kScrambledIdLimit) scan_.scrambledIds = 1;

    auto rec = newAudioSampleForId(dirId);
    rec->basepath = typedir + "/" + e.name;
    DirListing sdir(rec->basepath);
    scanForSamples(*rec, sdir);
    int haveSerial = serialCmdsIn(sdir, serial);
    if (rec->samples.empty() && !haveSerial) {
      LOG(LEVEL_ERROR, "Found sound directory, but no sound file: %s", rec->basepath.c_str());
      continue;
    }
    rec->type = type;
    rec->name = name;
    rec->gain = static_cast<uint32_t>(gainIn(sdir, 15, rec.get()));
    rec->ducking = static_cast<uint32_t>(duckingIn(sdir, config_.duckingByType[type], rec.get()));
    shakerIn(sdir, rec->shakersequence);
    if (!sdir.find("dontpreload").empty())
      rec->preload = false;
    else if (rec->size > static_cast<unsigned>(settings_.preloadThreshold))
      rec->preload = true;
    if (haveSerial) rec->serialcmd = serial;
    scan_.hashOfAllIds += dirId;
    if (const unsigned* mapped = mapping_.hashes.mapGet1(dirId)) {
      rec->magic = dirId;
      rec->id = *mapped;
      scan_.hashingIsUsed = 1;
    }
    addSample(std::move(rec));
  }
}

void SampleIndex::scanForSamples(AudioSample& sample, const std::string& dir) {
  scanForSamples(sample, DirListing(dir));
}

void SampleIndex::scanForSamples(AudioSample& sample, const DirListing& dir) {
  for (const auto& e : dir.entries()) {
    if (!isAudioFileType(e.name) || !dir.isRegularFile(e)) continue;
    int number = 0;
    std::vector<char> rest(e.name.size() + 1, '\0');
    if (sscanf(e.name.c_str(), "%d-%s", &number, rest.data()) == 2) {
      scan_.haveFilenameNumbers = 1;
      if (sample.magic == 0) sample.magic = sample.id;
      sample.id = static_cast<uint32_t>(number);
    }
    if (sample.samples.size() < AudioSample::kMaxFiles) {
      sample.samples.push_back(dir.dir() + "/" + e.name);
      if (sample.size == 0) {
        struct stat st{};
        if (::stat(sample.samples.back().c_str(), &st) == 0) sample.size = static_cast<uint32_t>(st.st_size);
      }
    }
  }
  sample.syncChunks();
}

// ---- load ----

void SampleIndex::fillSetSamples(SoundSet& set) {
  set.samples.clear();
  set.samples.reserve(static_cast<std::size_t>(samples_.mapSize()));
  for (auto& node : samples_) {
    AudioSample* s = node.value.get();
    set.samples.push_back(s);
    if (s->type != UNKNOWN)
      LOG(LEVEL_DEBUG, "sample %010u 0x%08x 0x%08x, type: %s, gain: %d, name: %s, path: %s", s->id, s->id,
          s->magic, audioTypeName(s->type), static_cast<int>(s->gain), s->name.c_str(), s->firstPath().c_str());
  }
}

int SampleIndex::loadTree(SoundSet& set, int copyMapping) {
  clearSamples();
  int haveMapping = loadHashMapping(set.basedir);
  readSoundConfig(set);
  scanAll(set.basedir);
  std::string shared = mapping_.configsDir + "/" + strFormat("%u.mellosnd", scan_.hashOfAllIds);
  if (copyMapping && haveMapping && scan_.scrambledIds) {
    std::string from = set.basedir + "/config.mellosnd";
    std::error_code ec;
    std::filesystem::create_directories(mapping_.configsDir, ec);
    LOG(LEVEL_INFO, "copy mapping from %s to %s", from.c_str(), shared.c_str());
    copyFileAtomic(from, shared);
  }
  if (!haveMapping && scan_.scrambledIds && !scan_.haveFilenameNumbers) {
    if (!loadHashMappingByName(mapping_.configsDir, strFormat("%u.mellosnd", scan_.hashOfAllIds))) {
      LOG(LEVEL_ERROR, "looks like a scrambled soundset is used, but no mapping provided");
      return 1;
    }
    // The set's own file is not the one the mapping came from: edits go to a file
    // of their own.
    config_.configFileToWrite = "config.ini";
    clearSamples();
    scanAll(set.basedir);
  }
  return 0;
}

int SampleIndex::initSamples(SoundSet& set, int copyMapping) {
  scan_ = ScanState{};
  config_.setType = set.type;
  // Until this set's configuration is read, edits have nowhere to go (a container set
  // has none): they must never land in the previous set's file.
  config_.configBase.clear();
  config_.configFileToWrite.clear();
  int result = 0;
  switch (set.type) {
    case XSNDFILE:
      result = loadContainer(set);
      initHashesMap();
      break;
    case ALTSOUND:
      readSoundConfig(set);
      result = loadAltSound(set);
      initHashesMap();
      break;
    case PINSOUND:
    case ZIPFILE:
    default:
      if (loadTree(set, copyMapping) != 0) {
        fillSetSamples(set);
        return 1;
      }
      break;
  }
  fillSetSamples(set);
  LOG(LEVEL_DEBUG, "scanned %d sounds, using %d hashes", samples_.mapSize(), mapping_.hashes.mapSize());
  if (scan_.hashingIsUsed) logUnmapped(set);
  return result;
}

}  // namespace korvo
