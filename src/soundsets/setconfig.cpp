// Set configuration: the per-set key=value files, the per-type tables and the edits
// of single sounds that the web service writes back to the set's files.
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <optional>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "soundsets/altsound.h"
#include "soundsets/dir_listing.h"
#include "soundsets/sample_index.h"

namespace korvo {

namespace {

enum KeyKind { KEY_INT, KEY_BOOL };
enum KeyTarget { T_DUCKING, T_GAIN, T_SHAKER, T_FADE, T_FADE_TIME, T_ATTRACT, T_PRELOAD, T_VENDOR };

struct ConfigKey {
  const char* name;
  KeyKind kind;
  KeyTarget target;
  int type;  // AudioType for the table keys
};

// `soundConfigMap`, in the order lines are matched against.
constexpr ConfigKey kSoundConfigMap[] = {
    {"ducking_music", KEY_INT, T_DUCKING, MUSIC},
    {"ducking_jingle", KEY_INT, T_DUCKING, JINGLE},
    {"ducking_sfx", KEY_INT, T_DUCKING, SFX},
    {"ducking_voice", KEY_INT, T_DUCKING, VOICE},
    {"ducking_single", KEY_INT, T_DUCKING, SINGLE},
    {"gain_music", KEY_INT, T_GAIN, MUSIC},
    {"gain_sfx", KEY_INT, T_GAIN, SFX},
    {"gain_voice", KEY_INT, T_GAIN, VOICE},
    {"gain_jingle", KEY_INT, T_GAIN, JINGLE},
    {"gain_single", KEY_INT, T_GAIN, SINGLE},
    {"shaker_enabled", KEY_BOOL, T_SHAKER, 0},
    {"fade_sfx_on_music_change", KEY_BOOL, T_FADE, 0},
    {"fade_sfx_on_music_change_time", KEY_INT, T_FADE_TIME, 0},
    {"attract_timeout", KEY_INT, T_ATTRACT, 0},
    {"preload", KEY_BOOL, T_PRELOAD, 0},
    {"vendor", KEY_INT, T_VENDOR, 0},
};

// The key (ignoring case), blanks, any number of '=', blanks, then a "%d" number. A
// longer key that merely starts with this one ("..._change_time") does not match.
// nullopt: the key does not match; otherwise the number, or nullopt inside when the
// value is not a number.
std::optional<std::optional<int>> matchKey(std::string_view line, std::string_view key) {
  if (line.size() < key.size() || !equalsIgnoreCase(line.substr(0, key.size()), key)) return std::nullopt;
  std::size_t i = key.size();
  if (i < line.size() && (isalnum(static_cast<unsigned char>(line[i])) || line[i] == '_')) return std::nullopt;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  while (i < line.size() && line[i] == '=') ++i;
  int v = 0;
  if (!readFirstInt(line.substr(i), v)) return std::optional<int>{};
  return std::optional<int>{v};
}

// Writes `content` to dir/<existing name ignoring case> or dir/exactName.
int writeSoundFile(const std::string& dir, const char* exactName, std::string_view content) {
  std::string path = getFileByName(dir, exactName);
  if (path.empty()) path = dir + "/" + exactName;
  return writeFileAtomic(path, content);
}

void deleteSoundFile(const std::string& dir, const char* name) {
  std::string path = getFileByName(dir, name);
  if (!path.empty() && unlink(path.c_str()) != 0)
    LOG(LEVEL_WARN, "cannot delete %s: %s", path.c_str(), strerror(errno));
}

}  // namespace

// Values read from the two files of one load, applied only once both are read so
// that a file's values override the other's and unnamed entries stay untouched.
struct SampleIndex::PendingConfig {
  std::array<int, kAudioTypeCount> gain;
  std::array<int, kAudioTypeCount> ducking;
  int shaker = -1, fade = -1, fadeTime = -1, attract = -1, preload = -1, vendor = -1;
  PendingConfig() {
    gain.fill(-1);
    ducking.fill(-1);
  }
};

namespace {

bool inRange(const ConfigKey& k, int v) {
  switch (k.target) {
    case T_DUCKING:
    case T_GAIN:
      return v >= 0 && v <= 100;
    case T_VENDOR:
      return v >= 0 && v < kProtocolCount;
    case T_FADE_TIME:
    case T_ATTRACT:
      return v >= 0;
    default:
      return true;
  }
}

}  // namespace

int SampleIndex::applyConfigLine(std::string_view line, const char* fileName, PendingConfig& p) {
  std::size_t end = line.find_first_of("\r\n");
  if (end != std::string_view::npos) line = line.substr(0, end);
  for (const ConfigKey& k : kSoundConfigMap) {
    auto m = matchKey(line, k.name);
    if (!m) continue;
    if (!*m) {
      LOG(LEVEL_WARN, "%s: value of %s is not a number: '%.*s'", fileName, k.name, static_cast<int>(line.size()),
          line.data());
      return -1;
    }
    int v = **m;
    if (!inRange(k, v)) {
      LOG(LEVEL_WARN, "%s: value %d of %s out of range, ignored", fileName, v, k.name);
      return -1;
    }
    if (k.kind == KEY_BOOL) v = v != 0 ? 1 : 0;
    switch (k.target) {
      case T_DUCKING: p.ducking[k.type] = v; break;
      case T_GAIN: p.gain[k.type] = v; break;
      case T_SHAKER: p.shaker = v; break;
      case T_FADE: p.fade = v; break;
      case T_FADE_TIME: p.fadeTime = v; break;
      case T_ATTRACT: p.attract = v; break;
      case T_PRELOAD: p.preload = v; break;
      case T_VENDOR: p.vendor = v; break;
    }
    LOG(LEVEL_DEBUG, "read value for %s = %d", k.name, v);
    return 1;
  }
  return 0;
}

int SampleIndex::applySetConfigLine(std::string_view line, const char* fileName) {
  PendingConfig p;
  return applyConfigLine(line, fileName, p);
}

bool SampleIndex::readConfigFiles(const std::string& dir, PendingConfig& p) {
  bool found = false;
  for (const char* name : {"config.ini", "config.mellosnd"}) {
    std::string path = dir + "/" + name;
    std::string content;
    LOG(LEVEL_DEBUG, "reading config from: %s", path.c_str());
    if (!readWholeFile(path, content)) {
      LOG(LEVEL_DEBUG, "config %s not found in %s", name, dir.c_str());
      continue;
    }
    found = true;
    std::size_t pos = 0;
    while (pos < content.size()) {
      std::size_t end = content.find('\n', pos);
      if (end == std::string::npos) end = content.size();
      applyConfigLine(std::string_view(content).substr(pos, end - pos), name, p);
      pos = end + 1;
    }
  }
  return found;
}

void SampleIndex::applyPending(SoundSet& set, const PendingConfig& p) {
  for (int t = 0; t < kAudioTypeCount; ++t) {
    int g = p.gain[t];
    if (g >= 0) {
      // Files written before gains were percent hold 0..30; larger values are percent.
      if (set.type == PINSOUND && g <= 30) g = g * 100 / 30;
      config_.gainByType[t] = g;
    }
    if (p.ducking[t] >= 0) config_.duckingByType[t] = p.ducking[t];
    LOG(LEVEL_DEBUG, "gainByType[%d]=%d", t, config_.gainByType[t]);
    set.gains[t] = static_cast<uint32_t>(config_.gainByType[t]);
    set.ducking[t] = static_cast<uint32_t>(config_.duckingByType[t]);
  }
  if (p.shaker >= 0) settings_.shakerEnabled = p.shaker;
  if (p.fade >= 0) settings_.fadeSfxOnMusicChange = p.fade;
  if (p.fadeTime >= 0) settings_.fadeSfxOnMusicChangeTime = p.fadeTime;
  if (p.attract >= 0) settings_.attractTimeOut = p.attract;
  set.shakerenabled = settings_.shakerEnabled != 0;
  set.fade_sfx_on_music_change = settings_.fadeSfxOnMusicChange != 0;
  set.fade_sfx_on_music_change_time = static_cast<uint32_t>(settings_.fadeSfxOnMusicChangeTime);
  set.attract_timeout = static_cast<uint32_t>(settings_.attractTimeOut);
  config_.setPreload = p.preload;
  config_.setVendor = p.vendor;
}

void SampleIndex::readSoundConfig(SoundSet& set) {
  config_.setPreload = -1;
  config_.setVendor = -1;
  config_.configBase = set.basedir;
  config_.setType = set.type;
  PendingConfig p;
  const bool found = readConfigFiles(set.basedir, p);
  config_.configFileToWrite = fileExists(set.basedir + "/config.mellosnd") ? "config.mellosnd" : "config.ini";
  if (!found) return;
  applyPending(set, p);
  setupDuckingConfig();
  if (config_.setPreload == 1) settings_.preloadThreshold = 1;
  bool captureRuns = hooks_.captureStarted && hooks_.captureStarted();
  if (config_.setVendor >= 0 && config_.setVendor != settings_.protocol.load() && !captureRuns) {
    settings_.protocol = config_.setVendor;
    LOG(LEVEL_DEBUG, "vendor was set through sound config (first time) to %d", config_.setVendor);
  }
}

void SampleIndex::setupDuckingConfig() {
  config_.duckingIsActive = 0;
  for (int d : config_.duckingByType)
    if (d <= 99) config_.duckingIsActive = 1;
  if (config_.duckingIsActive) LOG(LEVEL_DEBUG, "type ducking activated");
}

int SampleIndex::setGainByType(int type, int gain) {
  if (type < 0 || type >= kAudioTypeCount || gain < 0 || gain > 100) {
    LOG(LEVEL_WARN, "setGainByType not valid: type=%d, gain=%d", type, gain);
    return 1;
  }
  LOG(LEVEL_DEBUG, "setting gainByType: type=%d, gain=%d", type, gain);
  if (config_.gainByType[type] != gain) {
    config_.gainByType[type] = gain;
    updateConfig(config_.configBase, config_.configFileToWrite, strFormat("gain_%s", audioTypeNames[type]),
                 config_.setType == PINSOUND ? gain * 30 / 100 : gain);
  }
  if (config_.setType == PINSOUND) {
    for (auto& node : samples_)
      if (node.value->type == type && node.value->gaindefault) node.value->gain = static_cast<uint32_t>(gain);
  }
  if (hooks_.reapplyVolume) hooks_.reapplyVolume();
  return 0;
}

int SampleIndex::setDuckingByType(int type, int ducking) {
  if (type < 0 || type >= kAudioTypeCount || ducking < 0 || ducking > 100) {
    LOG(LEVEL_WARN, "setDuckingByType not valid: type=%d, ducking=%d", type, ducking);
    return 1;
  }
  LOG(LEVEL_DEBUG, "setting duckingByType: type=%d, ducking=%d", type, ducking);
  if (config_.duckingByType[type] != ducking) {
    config_.duckingByType[type] = ducking;
    updateConfig(config_.configBase, config_.configFileToWrite, strFormat("ducking_%s", audioTypeNames[type]), ducking);
    setupDuckingConfig();
  }
  if (config_.setType == PINSOUND) {
    for (auto& node : samples_)
      if (node.value->type == type && node.value->duckingdefault) node.value->ducking = static_cast<uint32_t>(ducking);
  }
  if (hooks_.reapplyVolume) hooks_.reapplyVolume();
  return 0;
}

void updateConfig(const std::string& dir, const std::string& fileName, std::string_view key, int value) {
  if (fileName.empty() || dir.empty()) {
    LOG(LEVEL_ERROR, "config filename is empty for param %.*s. can't update.", static_cast<int>(key.size()),
        key.data());
    return;
  }
  std::string path = dir + "/" + fileName;
  LOG(LEVEL_DEBUG, "reading config from: %s", path.c_str());
  std::string old;
  bool existed = readWholeFile(path, old);
  if (!existed) old = "# file was auto created by VELT!Audio\n";
  std::string newLine = strFormat("%.*s=%d\n", static_cast<int>(key.size()), key.data(), value);
  std::string out;
  out.reserve(old.size() + newLine.size());
  bool replaced = false;
  int lineNo = 0;
  std::size_t pos = 0;
  while (pos < old.size()) {
    std::size_t end = old.find('\n', pos);
    std::size_t next = end == std::string::npos ? old.size() : end + 1;
    std::string_view line(old.data() + pos, next - pos);
    ++lineNo;
    // A plain prefix test: "gain_sfx" also rewrites a line "gain_sfx2=..." (kept so
    // that files written by earlier versions read back the same).
    if (line.starts_with(key)) {
      out += newLine;
      replaced = true;
      LOG(LEVEL_DEBUG, "replace line %d: %s", lineNo, newLine.c_str());
    } else {
      out.append(line);
      if (end == std::string::npos) out.push_back('\n');
    }
    pos = next;
  }
  if (!replaced) {
    out += newLine;
    LOG(LEVEL_DEBUG, "insert new line: %s", newLine.c_str());
  }
  if (writeFileAtomic(path, out) != 0) return;
  if (existed)
    LOG(LEVEL_DEBUG, "copy from %s to %s", "(temporary file)", path.c_str());
  else
    LOG(LEVEL_DEBUG, "creating config %s to %s", "(temporary file)", path.c_str());
}

// ---- per-sound edits ----

namespace {

AudioSample* lookup(SampleIndex& idx, unsigned id, const char* op) {
  AudioSample* s = idx.getSampleForId(id);
  if (!s) LOG(LEVEL_WARN, "%s: sample %u not found", op, id);
  return s;
}

int csv(AudioSample& s, SampleIndex::CsvColumn column, const std::string& value) {
  int rc = updateCsvColumn(s, column, value);
  if (rc != 0) LOG(LEVEL_WARN, "sample %u: the altsound table was not changed (%d)", s.id, rc);
  return rc;
}

// An integer edit value: missing gives `missing`; text that is not a number is refused.
bool editValue(const char* value, int missing, int& out) {
  if (value == nullptr || *value == '\0') {
    out = missing;
    return true;
  }
  return readFirstInt(value, out);
}

}  // namespace

int SampleIndex::updateSerialCmdForSample(unsigned id, const char* value) {
  AudioSample* s = lookup(*this, id, "updateSerialCmdForSample");
  if (!s) return 1;
  std::string text = value ? value : "";
  if (config_.setType == ALTSOUND) {
    if (int rc = csv(*s, CSV_SERIAL, text)) return rc;
    s->serialcmd = text;
    return 0;
  }
  if (!text.empty())
    writeSoundFile(s->basepath, "serial.txt", text);
  else
    deleteSoundFile(s->basepath, "serial.txt");
  getSerialCmds(s->basepath, s->serialcmd);
  return 0;
}

int SampleIndex::updateShakerCmdForSample(unsigned id, const char* value) {
  AudioSample* s = lookup(*this, id, "updateShakerCmdForSample");
  if (!s) return 1;
  std::string text = value ? value : "";
  if (config_.setType == ALTSOUND) {
    if (int rc = csv(*s, CSV_SHAKER, text)) return rc;
    parseShakerSequence(text, s->shakersequence);
    return 0;
  }
  if (!text.empty())
    writeSoundFile(s->basepath, "shaker.txt", text);
  else
    deleteSoundFile(s->basepath, "shaker.txt");
  getShakerSequence(s->basepath, s->shakersequence);
  return 0;
}

int SampleIndex::updateGainForSample(unsigned id, const char* value) {
  AudioSample* s = lookup(*this, id, "updateGainForSample");
  if (!s) return 1;
  int v = 0;
  if (!editValue(value, 50, v)) {
    LOG(LEVEL_WARN, "updateGainForSample: '%s' is not a number", value);
    return 1;
  }
  if (config_.setType == ALTSOUND) {
    if (int rc = csv(*s, CSV_GAIN, std::to_string(v))) return rc;
    s->gain = static_cast<uint32_t>(v);
    return 0;
  }
  v = checkRange(0, 100, v);
  if (v == 50) {
    s->gain = 50;
    s->gaindefault = true;
    deleteSoundFile(s->basepath, "gain.txt");
  } else {
    s->gain = static_cast<uint32_t>(v);
    s->gaindefault = false;
    writeSoundFile(s->basepath, "gain.txt", strFormat("%d", v * 30 / 100));
  }
  return 0;
}

int SampleIndex::updateDuckingForSample(unsigned id, const char* value) {
  AudioSample* s = lookup(*this, id, "updateDuckingForSample");
  if (!s) return 1;
  int v = 0;
  if (!editValue(value, 100, v)) {
    LOG(LEVEL_WARN, "updateDuckingForSample: '%s' is not a number", value);
    return 1;
  }
  v = checkRange(0, 100, v);
  if (config_.setType == ALTSOUND) {
    if (int rc = csv(*s, CSV_DUCK, std::to_string(v))) return rc;
    s->ducking = static_cast<uint32_t>(v);
    return 0;
  }
  if (v == 100) {
    s->ducking = 100;
    s->duckingdefault = true;
    deleteSoundFile(s->basepath, "ducking.txt");
  } else {
    s->ducking = static_cast<uint32_t>(v);
    s->duckingdefault = false;
    // The text as the client sent it; the record holds the clamped value.
    writeSoundFile(s->basepath, "ducking.txt", value);
  }
  return 0;
}

int SampleIndex::updateNameForSample(unsigned id, const char* value) {
  if (value == nullptr) return 1;
  AudioSample* s = lookup(*this, id, "updateNameForSample");
  if (!s) return 0;
  if (config_.setType != ALTSOUND) return 2;
  if (int rc = csv(*s, CSV_NAME, value)) return rc;
  s->name = value;
  return 0;
}

int SampleIndex::updatePreloadForSample(unsigned id, const char* value) {
  LOG(LEVEL_DEBUG, "setting preload for %i to %s", static_cast<int>(id), value ? value : "(null)");
  AudioSample* s = lookup(*this, id, "updatePreloadForSample");
  if (!s) return 1;
  if (config_.setType != ALTSOUND) {
    LOG(LEVEL_WARN, "setting preload not supported");
    return 2;
  }
  bool on = value != nullptr && equalsIgnoreCase(value, "true");
  if (int rc = csv(*s, CSV_PRELOAD, on ? "1" : "0")) return rc;
  s->preload = on;
  return 0;
}

int SampleIndex::updateTypeForSample(unsigned id, int type) {
  type = checkRange(0, kAudioTypeCount - 1, type);
  AudioSample* s = getSampleForId(id);
  if (!s) {
    LOG(LEVEL_ERROR, "updateTypeForSample: sample %d not found", static_cast<int>(id));
    return 1;
  }
  switch (config_.setType) {
    case PINSOUND:
      return moveSoundToGroup(id, type);
    case ALTSOUND: {
      AudioType old = s->type;
      s->type = static_cast<AudioType>(type);
      if (int rc = updateCsvType(*s)) {
        LOG(LEVEL_WARN, "sample %u: the altsound table was not changed (%d)", s->id, rc);
        s->type = old;
        return rc;
      }
      return 0;
    }
    default:
      LOG(LEVEL_ERROR, "change of type not supported for soundset type: %d", static_cast<int>(config_.setType));
      return 2;
  }
}

}  // namespace korvo
