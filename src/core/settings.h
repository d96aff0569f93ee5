// The process-wide settings record and the configuration catalogue that drives the
// reading of "va.ini" / "mellosound.ini" and the web configuration page.
//
// Concurrency: `settings` is filled on the main thread during start-up. The fields
// changed later by other threads (volume, sound set, protocol, audio device) are
// atomics or locked; the rest are read-only after start-up.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace korvo {

enum WIREPROTOCOL : int {
  DATAEAST = 0,
  WPC = 1,
  DATAEAST2 = 2,
  DATAEAST3 = 3,
  SYS11 = 4,
  WPCDCS = 5,
  DATAEAST_X = 6,
  WHITESTAR = 7,
  WHITESTAR_X = 8,
};
constexpr int kProtocolCount = 9;
extern const char* const protocolNames[kProtocolCount];

// Index of `name` among the first eight protocol names (exact compare; "WHITESTAR_X"
// is not reachable this way). Null or unknown: ERROR line and DATAEAST.
int getProtocolFromString(const char* name);
// The protocol's name, "?" when out of range.
const char* protocolName(int protocol);

// A string other threads may change after start-up.
class LockedString {
 public:
  std::string get() const {
    std::lock_guard lock(m_);
    return s_;
  }
  void set(std::string v) {
    std::lock_guard lock(m_);
    s_ = std::move(v);
  }
  bool empty() const {
    std::lock_guard lock(m_);
    return s_.empty();
  }

 private:
  mutable std::mutex m_;
  std::string s_;
};

constexpr int kMaxStopCmds = 10;

struct Settings {
  std::atomic<int> volume{64};
  std::atomic<int> soundSet{1};
  int shakerEnabled = 0;
  unsigned long samplePoolSizeInByte = 0;
  std::atomic<int> protocol{DATAEAST};
  int sayVersion = 0;
  int sayPreload = 0;
  int fadeSfxOnMusicChange = 0;
  int fadeSfxOnMusicChangeTime = 0;
  int playBoot = 0;
  int preloadThreshold = 0;
  int attractTimeOut = 0;
  int shakerActiveLow = 0;
  int suppressRepeated = 0;
  LockedString audioDevice;  // empty = the default device
  int sayMode = 0;
  int enableSerial = 0;
  std::string serialDevice;
  int serialBaud = 0;
  int noOfStopCmds = 0;
  int stopCmds[kMaxStopCmds] = {};
  int playMusicInLoops = 0;
  int enableI2S = 0;
  int pinShaker = 0;
  int channels = 0;
  int frequency = 0;
  int enable_minidisplay = 0;
  int enable_dataeast_volume = 0;
  int dataeast_volume_offset = 0;
  int sms_port = 0;
  std::string sms_address;  // empty = off
  int enable_port_extender = 0;
  int luaEnabled = 0;
  int luaTimeLimit = 0;  // ms a Lua script may run before it is stopped; 0 = no limit
  int dspLedIndicator = 0;
  int enable_eventsrv = 0;
  int dataeast_volume_range = 0;
  std::string httpPassword;  // HTTP Basic password of the web API; empty = open. Never logged.
  std::string updateServer;  // base URL of the firmware update server
};

// The process-wide record.
extern Settings settings;

// Writes the built-in defaults.
void initSettings(Settings* s);

enum SettingType : int { INT = 0, BOOL = 1, HEX = 2, STRING = 3, ENUM = 4, GROUP = 5 };

// One catalogue entry. GROUP entries are section headings of the web page and have no
// target.
struct SettingsMap {
  using Target = std::variant<std::monostate, int*, std::atomic<int>*, std::string*, LockedString*>;
  SettingType type = INT;
  std::string name;
  Target val;
  std::vector<std::string> values;  // ENUM: allowed values as decimal strings
  std::vector<std::string> labels;  // ENUM: their display texts, same order
  std::string displayName;

  // The target's value as an int (INT, BOOL, HEX, ENUM); 0 for others.
  int intValue() const;
  void setInt(int v) const;
  std::string stringValue() const;
  void setString(const std::string& v) const;
};
using SettingsCatalogue = std::vector<SettingsMap>;

// The image of "va.ini".
struct TransientSettings {
  int volume = 0;
  int soundSet = 0;
  std::string audioDevice;
};

// A setting the DSP definition offers for the configuration catalogue.
struct DspSetting {
  std::string name;
  int* value = nullptr;
};

// The catalogues and the helper values that reading "mellosound.ini" goes through.
class Configuration {
 public:
  // The master catalogue has 57 slots: 40 built in, 17 free for the DSP, one of which
  // always stays free as the table's end.
  static constexpr std::size_t kMasterCatalogueSlots = 57;
  static constexpr int kMaxDspEntries = 15;

  explicit Configuration(Settings& s);

  SettingsCatalogue& settingsMap() { return settingsMap_; }
  SettingsCatalogue& masterConfigMap() { return masterConfigMap_; }
  TransientSettings& ts() { return ts_; }

  // "va.ini" in the current working directory (or any directory given in `name`).
  void readSettings(const char* name);
  // Writes the settings keys, then `extraLines` (lines of other owners of the file), in
  // one atomic replacement.
  void writeSettings(const char* name, const std::vector<std::string>& extraLines = {});
  // "mellosound.ini" under baseDir; `hasI2C` says whether the catalogue is dumped.
  void readMasterConfig(const char* baseDir, bool hasI2C);
  // Replaces "mellosound.ini" with `content` (atomically). 0 on success, -1 on failure.
  int updateMasterConfig(const char* baseDir, const std::string& content);
  // Appends the DSP's settings (names not beginning with "_", at most 15) under a
  // "DSP Settings" heading.
  void extendMasterConfigMap(const std::vector<DspSetting>& dsp);

 private:
  Settings& settings_;
  TransientSettings ts_;
  SettingsCatalogue settingsMap_;
  SettingsCatalogue masterConfigMap_;
  // Targets of catalogue entries that are not `settings` fields.
  int preload_ = 1;
  int vendor_ = 0;
  int poolSize_ = 0;
  std::string stopCmdBuffer_;
};

// Reads "%s/%s" into the catalogue's targets; 1 if the file was opened, 0 if not.
int readConfig(const char* base, const char* name, const SettingsCatalogue& map);
// Parses one line for one entry: the key (case-insensitive prefix), blanks, any number
// of separators, blanks, then a "%d" number, or for STRING the rest of the line.
int readValueFor(const char* line, const SettingsMap& entry, char separator, int* intValue,
                 std::string* strValue);
// The same with a hexadecimal number.
int readHexValueFor(const char* line, const SettingsMap& entry, char separator, int* intValue,
                    std::string* strValue);
// Splits at ',', ';' and ' ', "0x" tokens hexadecimal, at most ten; a token that does
// not parse ends the parsing with an ERROR line. Sets s.stopCmds / s.noOfStopCmds.
void parseStopCmds(const char* text, Settings& s);
void dumpConfig(const SettingsCatalogue& map, const Settings& s);

}  // namespace korvo
