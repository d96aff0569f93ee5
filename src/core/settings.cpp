#include "core/settings.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {
constexpr int kFallbackVolume = 64;
}  // namespace

const char* const protocolNames[kProtocolCount] = {"DATAEAST", "WPC",        "DATAEAST2", "DATAEAST3",  "SYS11",
                                                   "WPCDCS",   "DATAEAST_X", "WHITESTAR", "WHITESTAR_X"};

Settings settings;

int getProtocolFromString(const char* name) {
  // The search stops after "WHITESTAR": the rising-edge Whitestar variant is chosen
  // on the configuration page, not by name.
  for (int i = 0; name && i < kProtocolCount - 1; ++i)
    if (strcmp(name, protocolNames[i]) == 0) return i;
  LOG(LEVEL_ERROR, "invalid protocol name '%s", name ? name : "(null)");
  return DATAEAST;
}

const char* protocolName(int protocol) {
  return protocol >= 0 && protocol < kProtocolCount ? protocolNames[protocol] : "?";
}

void initSettings(Settings* s) {
  s->volume = 64;
  s->soundSet = 1;
  s->shakerEnabled = 0;
  s->samplePoolSizeInByte = 1073741824UL;
  s->protocol = DATAEAST;
  s->sayVersion = 1;
  s->sayPreload = 1;
  s->fadeSfxOnMusicChange = 0;
  s->fadeSfxOnMusicChangeTime = 1000;
  s->playBoot = 1;
  s->preloadThreshold = -1;
  s->attractTimeOut = 60000;
  s->shakerActiveLow = 0;
  s->suppressRepeated = 0;
  s->audioDevice.set("");
  s->sayMode = 1;
  s->enableSerial = 0;
  s->serialDevice = "/dev/ttyS0";
  s->serialBaud = 57600;
  s->noOfStopCmds = 0;
  for (int& c : s->stopCmds) c = 0;
  s->playMusicInLoops = 1;
  s->enableI2S = 1;
  s->pinShaker = 8;
  s->channels = 2;
  s->frequency = 44100;
  s->enable_minidisplay = 0;
  s->enable_dataeast_volume = 0;
  s->dataeast_volume_offset = 40;
  s->sms_port = 19999;
  s->sms_address.clear();
  s->enable_port_extender = 0;
  s->luaEnabled = 1;
  s->luaTimeLimit = 2000;
  s->dspLedIndicator = 1;
  s->enable_eventsrv = 1;
  s->dataeast_volume_range = 400;
  s->httpPassword.clear();
  s->updateServer = "http://update.veltaudio.com";
}

// ---- catalogue entries ----

int SettingsMap::intValue() const {
  if (auto p = std::get_if<int*>(&val)) return **p;
  if (auto p = std::get_if<std::atomic<int>*>(&val)) return (*p)->load();
  return 0;
}

void SettingsMap::setInt(int v) const {
  if (auto p = std::get_if<int*>(&val)) **p = v;
  if (auto p = std::get_if<std::atomic<int>*>(&val)) (*p)->store(v);
}

std::string SettingsMap::stringValue() const {
  if (auto p = std::get_if<std::string*>(&val)) return **p;
  if (auto p = std::get_if<LockedString*>(&val)) return (*p)->get();
  return {};
}

void SettingsMap::setString(const std::string& v) const {
  if (auto p = std::get_if<std::string*>(&val)) **p = v;
  if (auto p = std::get_if<LockedString*>(&val)) (*p)->set(v);
}

namespace {

SettingsMap entry(SettingType type, const char* name, SettingsMap::Target target = {},
                  std::vector<std::string> values = {}, std::vector<std::string> labels = {}) {
  SettingsMap e;
  e.type = type;
  e.name = name;
  e.val = target;
  e.values = std::move(values);
  e.labels = std::move(labels);
  return e;
}

// What a log line shows of a value: never the web password.
const char* shownValue(const SettingsMap& e, const std::string& value) {
  return e.name == "http_password" ? (value.empty() ? "" : "(set)") : value.c_str();
}

int valueFor(const char* line, const SettingsMap& e, char sep, int* intValue, std::string* strValue,
             const char* numberFormat) {
  if (!line || e.name.empty()) return 0;
  std::size_t keyLen = e.name.size();
  if (strlen(line) < keyLen || _strnicmp(line, e.name, keyLen) != 0) return 0;
  const char* p = line + keyLen;
  while (*p == ' ' || *p == '\t') ++p;
  while (*p == sep) ++p;
  while (*p == ' ' || *p == '\t') ++p;
  if (e.type == STRING) {
    std::size_t len = strcspn(p, "\r\n");
    if (len == 0) return 0;
    if (strValue) strValue->assign(p, len);
    return 1;
  }
  int v = 0;
  if (sscanf(p, numberFormat, &v) != 1) return 0;
  if (intValue) *intValue = v;
  return 1;
}

}  // namespace

int readValueFor(const char* line, const SettingsMap& entry, char separator, int* intValue,
                 std::string* strValue) {
  return valueFor(line, entry, separator, intValue, strValue, "%d");
}

int readHexValueFor(const char* line, const SettingsMap& entry, char separator, int* intValue,
                    std::string* strValue) {
  return valueFor(line, entry, separator, intValue, strValue, "%x");
}

namespace {

bool isBlankOrComment(const char* line) {
  const char* p = line + strspn(line, " \t\r\n");
  return *p == '\0' || *p == '#' || *p == ';';
}

// The key of a "key = value" line: the text before the separator, blanks trimmed.
std::string keyOf(const char* line) {
  std::string key(line, strcspn(line, "="));
  while (!key.empty() && strchr(" \t\r\n", key.back())) key.pop_back();
  return key.substr(strspn(key.c_str(), " \t"));
}

void storeValue(const SettingsMap& e, int iv, const std::string& sv) {
  switch (e.type) {
    case STRING:
      e.setString(sv);
      LOG(LEVEL_DEBUG, "read value for %s = %s", e.name.c_str(), shownValue(e, sv));
      break;
    case BOOL:
      e.setInt(iv != 0 ? 1 : 0);
      LOG(LEVEL_DEBUG, "read value for %s = %d", e.name.c_str(), iv);
      break;
    default:
      e.setInt(iv);
      LOG(LEVEL_DEBUG, "read value for %s = %d", e.name.c_str(), iv);
      break;
  }
}

// Every entry whose key the line begins with takes its value from it. A line that
// gives no value although it names a key of the catalogue, or that is no key=value
// line at all, is reported; unknown keys are left to whoever else reads the file.
void readConfigLine(const char* line, const SettingsCatalogue& map, const std::string& path, int lineNo) {
  if (isBlankOrComment(line)) return;
  bool read = false;
  for (const SettingsMap& e : map) {
    if (e.name.empty() || e.type == GROUP || e.type == HEX) continue;
    int iv = 0;
    std::string sv;
    if (!readValueFor(line, e, '=', &iv, &sv)) continue;
    storeValue(e, iv, sv);
    read = true;
  }
  if (read) return;
  const std::string key = keyOf(line);
  const bool known = std::any_of(map.begin(), map.end(), [&](const SettingsMap& e) {
    return !e.name.empty() && e.type != GROUP && strcasecmp(e.name.c_str(), key.c_str()) == 0;
  });
  if (!strchr(line, '=') || known)
    LOG(LEVEL_WARN, "%s:%d: malformed settings line ignored: %.80s", path.c_str(), lineNo, key.c_str());
}

}  // namespace

int readConfig(const char* base, const char* name, const SettingsCatalogue& map) {
  std::string path = strFormat("%s/%s", base, name);
  LOG(LEVEL_DEBUG, "reading config from: %s", path.c_str());
  FileHandle f(fopen(path.c_str(), "r"));
  if (!f) {
    LOG(LEVEL_WARN, "config %s not found in %s", name, base);
    return 0;
  }
  LOG(LEVEL_DEBUG, "read %s from %s", name, base);
  char line[512];
  int lineNo = 0;
  while (fgets(line, sizeof line, f.get())) readConfigLine(line, map, path, ++lineNo);
  return 1;
}

void parseStopCmds(const char* text, Settings& s) {
  LOG(LEVEL_DEBUG, "parsing stopCmds %s", text ? text : "");
  s.noOfStopCmds = 0;
  if (!text) return;
  std::string copy(text);
  char* save = nullptr;
  for (char* tok = strtok_r(copy.data(), ",; ", &save); tok && s.noOfStopCmds < kMaxStopCmds;
       tok = strtok_r(nullptr, ",; ", &save)) {
    int v = 0;
    bool ok = (tok[0] == '0' && tok[1] == 'x') ? sscanf(tok + 2, "%x", &v) == 1 : sscanf(tok, "%d", &v) == 1;
    if (!ok) {
      LOG(LEVEL_ERROR, "Failure when parsing stop cmds: %s", tok);
      break;
    }
    s.stopCmds[s.noOfStopCmds++] = v;
  }
  LOG(LEVEL_DEBUG, "got %d stopCmds", s.noOfStopCmds);
}

void dumpConfig(const SettingsCatalogue& map, const Settings& s) {
  for (const SettingsMap& e : map) {
    if (e.name.empty() || e.type == GROUP) continue;
    if (e.type == STRING)
      LOG(LEVEL_DEBUG, "%s = %s", e.name.c_str(), shownValue(e, e.stringValue()));
    else
      LOG(LEVEL_DEBUG, "%s = %d", e.name.c_str(), e.intValue());
  }
  for (int i = 0; i < s.noOfStopCmds; ++i) LOG(LEVEL_DEBUG, "stopCmd[%d] = %d", i, s.stopCmds[i]);
}

// ---- Configuration ----

Configuration::Configuration(Settings& s) : settings_(s) {
  settingsMap_ = {
      entry(INT, "volume", &ts_.volume),
      entry(INT, "sound_set", &ts_.soundSet),
      entry(STRING, "audio_device", &ts_.audioDevice),
  };
  Settings& t = settings_;
  masterConfigMap_ = {
      entry(GROUP, "Announcements"),
      entry(BOOL, "say_version", &t.sayVersion),
      entry(BOOL, "say_preload", &t.sayPreload),
      entry(BOOL, "play_boot", &t.playBoot),
      entry(ENUM, "say_mode", &t.sayMode, {"0", "1"}, {"NO", "YES"}),
      entry(GROUP, "Sound Settings"),
      entry(BOOL, "preload", &preload_),
      entry(STRING, "stop_cmds", &stopCmdBuffer_),
      entry(BOOL, "loop_music", &t.playMusicInLoops),
      entry(INT, "sample_pool_size", &poolSize_),
      entry(INT, "preload_threshold", &t.preloadThreshold),
      entry(INT, "attract_timeout", &t.attractTimeOut),
      entry(BOOL, "suppress_repeated", &t.suppressRepeated),
      entry(ENUM, "channels", &t.channels, {"2", "6"}, {"2.1", "5.1"}),
      entry(ENUM, "frequency", &t.frequency, {"44100", "48000"}, {"44.1 kHz", "48 kHz"}),
      entry(GROUP, "System Settings"),
      entry(ENUM, "log_level", &Log::instance().logLevelRef(), {"0", "1", "2", "3", "4", "5"},
            {"NO", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"}),
      entry(ENUM, "vendor", &vendor_, {"0", "1", "5", "6", "7", "8"},
            {"DATAEAST", "WPC", "WPCDCS", "DATAEAST*", "WHITESTAR", "WHITESTAR*"}),
      entry(BOOL, "enable_lua", &t.luaEnabled),
      entry(INT, "lua_time_limit", &t.luaTimeLimit),
      entry(BOOL, "enable_eventsrv", &t.enable_eventsrv),
      entry(STRING, "http_password", &t.httpPassword),
      entry(STRING, "update_server", &t.updateServer),
      entry(GROUP, "Shaker / Serial Settings"),
      entry(BOOL, "shaker_active_low", &t.shakerActiveLow),
      entry(BOOL, "shaker_enabled", &t.shakerEnabled),
      entry(ENUM, "pin_shaker", &t.pinShaker, {"8", "36"}, {"8", "36"}),
      entry(BOOL, "enable_serial", &t.enableSerial),
      entry(INT, "serial_baud", &t.serialBaud),
      entry(STRING, "serial_device", &t.serialDevice),
      entry(GROUP, "Deprecated Settings (older board revisions)"),
      entry(BOOL, "enable_i2s", &t.enableI2S),
      entry(BOOL, "enable_port_extender", &t.enable_port_extender),
      entry(BOOL, "enable_dataeast_volume", &t.enable_dataeast_volume),
      entry(INT, "dataeast_volume_offset", &t.dataeast_volume_offset),
      entry(INT, "dataeast_volume_range", &t.dataeast_volume_range),
      entry(BOOL, "enable_minidisplay", &t.enable_minidisplay),
      entry(GROUP, "Serial Media Server Settings"),
      entry(STRING, "sms_address", &t.sms_address),
      entry(INT, "sms_port", &t.sms_port),
  };
}

void Configuration::readSettings(const char* name) {
  // Fallbacks for what the file does not give in a readable form: a volume of 0 from an
  // empty or damaged file would silence the machine.
  ts_ = TransientSettings{};
  ts_.volume = kFallbackVolume;
  ts_.soundSet = 1;
  // A bare name is read from the working directory.
  std::string path(name);
  auto slash = path.find_last_of('/');
  std::string base = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
  if (readConfig(base.c_str(), file.c_str(), settingsMap_)) {
    settings_.volume = ts_.volume;
    settings_.soundSet = ts_.soundSet;
    settings_.audioDevice.set(ts_.audioDevice);
  } else {
    LOG(LEVEL_ERROR, "open settings for reading");
    settings_.volume = kFallbackVolume;
    settings_.soundSet = 1;
    settings_.audioDevice.set("");
  }
}

void Configuration::writeSettings(const char* name, const std::vector<std::string>& extraLines) {
  ts_.volume = settings_.volume;
  ts_.soundSet = settings_.soundSet;
  ts_.audioDevice = settings_.audioDevice.get();
  // An unset audio device is written as an empty value; reading an empty value
  // leaves the device unset again.
  std::string out;
  for (const SettingsMap& e : settingsMap_) {
    if (e.type == STRING)
      out += strFormat("%s=%s\n", e.name.c_str(), e.stringValue().c_str());
    else
      out += strFormat("%s=%d\n", e.name.c_str(), e.intValue());
  }
  for (const std::string& line : extraLines) out += line + "\n";
  if (writeFileAtomic(name, out) != 0) LOG(LEVEL_ERROR, "open setting for writing");
}

void Configuration::readMasterConfig(const char* baseDir, bool hasI2C) {
  poolSize_ = 0;
  vendor_ = 0;
  preload_ = 1;
  stopCmdBuffer_.clear();
  if (readConfig(baseDir, "mellosound.ini", masterConfigMap_)) {
    if (poolSize_ != 0) settings_.samplePoolSizeInByte = static_cast<unsigned long>(poolSize_) << 20;
    // A file without a vendor line selects DATAEAST: -w only matters without a file.
    int vendor = vendor_;
    if (vendor < 0 || vendor >= kProtocolCount) {
      // Every table of the bus capture is indexed by the protocol: an unknown vendor
      // must not reach them.
      LOG(LEVEL_ERROR, "vendor %d out of range, using %s", vendor, protocolNames[vendor < 0 ? 0 : kProtocolCount - 1]);
      vendor = vendor < 0 ? 0 : kProtocolCount - 1;
    }
    settings_.protocol = vendor;
    vendor_ = vendor;
    LOG(LEVEL_DEBUG, "vendor = %d", vendor_);
    if (preload_ == 1) settings_.preloadThreshold = 1;
    settings_.noOfStopCmds = 0;
    if (!stopCmdBuffer_.empty()) {
      parseStopCmds(stopCmdBuffer_.c_str(), settings_);
      stopCmdBuffer_.clear();
    }
    if (settings_.noOfStopCmds == 0) {
      switch (vendor_) {
        case DATAEAST:
        case DATAEAST2:
        case DATAEAST3:
        case DATAEAST_X:
          settings_.stopCmds[settings_.noOfStopCmds++] = 24;
          settings_.stopCmds[settings_.noOfStopCmds++] = 35;
          break;
        case WPCDCS:
          settings_.stopCmds[settings_.noOfStopCmds++] = 995;
          break;
        case WHITESTAR:
        case WHITESTAR_X:
          settings_.stopCmds[settings_.noOfStopCmds++] = 0;
          break;
        default:
          break;
      }
    }
  }
  if (hasI2C) dumpConfig(masterConfigMap_, settings_);
}

int Configuration::updateMasterConfig(const char* baseDir, const std::string& content) {
  std::string target = strFormat("%s/mellosound.ini", baseDir);
  LOG(LEVEL_DEBUG, "writing %d bytes to %s", static_cast<int>(content.size()), target.c_str());
  return writeFileAtomic(target, content);
}

void Configuration::extendMasterConfigMap(const std::vector<DspSetting>& dsp) {
  if (dsp.empty()) return;
  // The group heading and its settings share the free slots; one slot stays the end.
  if (masterConfigMap_.size() + 1 >= kMasterCatalogueSlots) return;
  masterConfigMap_.push_back(entry(GROUP, "DSP Settings"));
  int added = 0;
  for (const DspSetting& d : dsp) {
    if (added >= kMaxDspEntries || masterConfigMap_.size() + 1 >= kMasterCatalogueSlots) break;
    if (d.name.empty() || d.name[0] == '_' || !d.value) continue;
    masterConfigMap_.push_back(entry(INT, d.name.c_str(), d.value));
    ++added;
  }
}

}  // namespace korvo
