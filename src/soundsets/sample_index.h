// The index of the loaded sound set: command id -> AudioSample (`samplesMap`), the id
// mapping of scrambled sets (`hashesMap`), the state a PINSOUND scan leaves behind,
// the per-type tables (gain, ducking, serial commands) and the set configuration that
// per-sound edits write back to.
//
// Concurrency: one SampleIndex belongs to the sound engine and is guarded by the
// engine mutex; every method expects the caller to hold it. Records handed out by
// getSampleForId stay valid until the next load (initSamples, clearSamples or a
// container read).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/map.h"
#include "core/settings.h"
#include "soundsets/model.h"

namespace korvo {

class DirListing;

// true for names not beginning with "." that end, case-sensitively, in ".ogg", ".wav"
// or ".mp3".
bool isAudioFileType(std::string_view fileName);
// The entry of `dir` whose name equals `name` ignoring case, as "dir/entry" spelled as
// on disk; empty when there is none or the directory cannot be read.
std::string getFileByName(const std::string& dir, std::string_view name);
// "serial.txt" of `dir`: 1 and the first line (trailing white space removed) when it
// is non-empty, else 0 and `out` empty.
int getSerialCmds(const std::string& dir, std::string& out);
// "shaker.txt" of `dir` / a text: the integers separated by any of ",; \t\n" (atoi of
// each token, so junk gives 0). Returns the count.
int getShakerSequence(const std::string& dir, std::vector<uint32_t>& out);
int parseShakerSequence(std::string_view text, std::vector<uint32_t>& out);
int countElements(std::string_view text, std::string_view delimiters);
int checkRange(int min, int max, int value);
// Writes key=value into dir/fileName: every line starting with `key` is replaced, or
// the line is appended; a missing file is created with a comment line first. The file
// is replaced atomically.
void updateConfig(const std::string& dir, const std::string& fileName, std::string_view key, int value);

class SampleIndex {
 public:
  static constexpr int kSampleBuckets = 1024;
  static constexpr int kHashBuckets = 512;
  static constexpr uint32_t kScrambledIdLimit = 900000;
  using SampleMap = HashTable<unsigned, std::unique_ptr<AudioSample>>;
  using HashesMap = HashTable<unsigned, unsigned>;

  // Columns of an AltSound CSV row that per-sound edits write.
  enum CsvColumn : int { CSV_SERIAL, CSV_SHAKER, CSV_GAIN, CSV_DUCK, CSV_NAME, CSV_PRELOAD };

  // Calls out of this layer, wired by the owner. Unset hooks do nothing. They run on
  // the caller's thread with the engine mutex held: they must not take it again.
  struct Hooks {
    // Re-apply the master volume after a type gain or ducking changed (the engine's
    // setVolume with the current volume setting).
    std::function<void()> reapplyVolume;
    // True once the bus capture runs: a set may then no longer change the protocol.
    std::function<bool()> captureStarted;
  };

  explicit SampleIndex(Settings& s = settings);
  SampleIndex(const SampleIndex&) = delete;
  SampleIndex& operator=(const SampleIndex&) = delete;

  // ---- scan state ----
  SampleMap samplesMap{kSampleBuckets};
  HashesMap hashesMap{kHashBuckets};
  uint32_t hashOfAllIds = 0;    // sum mod 2^32 of the accepted directory ids
  int scrambledIds = 0;         // some directory id > 900000
  int haveFilenameNumbers = 0;  // some audio file name starts with a number
  int hashingIsUsed = 0;        // some id was replaced through hashesMap

  // ---- type tables, indexed by AudioType ----
  std::array<int, kAudioTypeCount> gainByType{50, 50, 50, 50, 50, 50, 50};
  std::array<int, kAudioTypeCount> duckingByType{100, 100, 80, 65, 10, 100, 100};
  std::array<std::string, kAudioTypeCount> serialCmdByType{};  // empty = none
  int duckingIsActive = 0;

  // ---- configuration of the loaded set ----
  std::string configBase;         // directory the set configuration is written in
  std::string configFileToWrite;  // "config.mellosnd" or "config.ini"
  SoundSet__SoundSetType setType = PINSOUND;
  int setPreload = -1;  // set-level "preload" key, -1 = not given
  int setVendor = -1;   // set-level "vendor" key, -1 = not given
  // Shared mapping files of scrambled sets ("%u.mellosnd", gzip). Relative to the
  // working directory.
  std::string configsDir = "configs";

  Hooks hooks;

  Settings& settingsRef() { return settings_; }

  // The sound for a command id, or null.
  AudioSample* getSampleForId(unsigned id);
  // Frees every record and starts an empty map of 1024 buckets.
  void clearSamples();
  // Inserts under rec->id (a record already under that id is replaced and freed).
  AudioSample* addSample(std::unique_ptr<AudioSample> rec);

  // ---- PINSOUND layout ----
  // Loads `set` into samplesMap and fills set.samples. 0 on success, 1 when a
  // scrambled set has no mapping. XSNDFILE and ALTSOUND sets are read by their own
  // readers (see the dispatch in initSamples).
  int initSamples(SoundSet& set, int copyMapping);
  void scanAll(const std::string& basedir);
  void scan(const std::string& typedir, AudioType type);
  void scanForSamples(AudioSample& sample, const std::string& dir);
  // "gain.txt" of dir on the 0..30 scale -> percent 0..100; `sample` (may be null)
  // gets gaindefault.
  int getGain(const std::string& dir, int defaultValue, AudioSample* sample);
  // "ducking.txt" of dir, percent, unscaled; default the type's ducking.
  int getDucking(const std::string& dir, AudioType type, AudioSample* sample);

  // ---- set configuration ----
  void readSoundConfig(SoundSet& set);
  void setupDuckingConfig();
  // 0 accepted, 1 rejected (WARN line).
  int setGainByType(int type, int gain);
  int setDuckingByType(int type, int ducking);
  // Per-sound edits from the web service; `value` null = missing. Results as the
  // web API documents them (0 ok, 1 not found / invalid, 2 not supported). ALTSOUND
  // sets write the sound's CSV row (altsound.h); when that fails the record is left
  // as it was and the writer's result is returned.
  int updateSerialCmdForSample(unsigned id, const char* value);
  int updateShakerCmdForSample(unsigned id, const char* value);
  int updateGainForSample(unsigned id, const char* value);
  int updateDuckingForSample(unsigned id, const char* value);
  int updateNameForSample(unsigned id, const char* value);
  int updatePreloadForSample(unsigned id, const char* value);
  int updateTypeForSample(unsigned id, int type);

  // ---- id mapping ----
  void initHashesMap();
  // 1 when the file was read (gzip when the name begins with a digit), else 0.
  int loadHashMappingByName(const std::string& dir, const std::string& name);
  int loadHashMapping(const std::string& setDir) { return loadHashMappingByName(setDir, "config.mellosnd"); }
  // 1 mapped, 0 comment, empty or key=value line, -1 malformed (ignored).
  int handleLine(std::string_view line);
  // PINSOUND only: moves the sound's directory to the type's group. 0 moved or
  // nothing to do, 1 unknown sound or failed copy.
  int moveSoundToGroup(unsigned id, int type);

 // One line of a set configuration file, applied to the values being read (the
  // fuzzer drives this). 1 when a key was taken, 0 when nothing matched, -1 when a
  // known key carried an invalid value (WARN line, value ignored).
  int applySetConfigLine(std::string_view line, const char* fileName);

 private:
  struct PendingConfig;
  void fillSetSamples(SoundSet& set);
  void scanForSamples(AudioSample& sample, const DirListing& dir);
  int loadContainer(SoundSet& set);
  int loadAltSound(SoundSet& set);
  int applyConfigLine(std::string_view line, const char* fileName, PendingConfig& pending);
  Settings& settings_;
};

}  // namespace korvo
