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
#include "soundsets/set_files.h"

namespace korvo {

class DirListing;

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

  // Wiring of the owner (set once, before the first load).
  Hooks& hooks() { return hooks_; }

  // ---- the index ----
  SampleMap& samplesMap() { return samples_; }
  const SampleMap& samplesMap() const { return samples_; }

  // ---- what the last PINSOUND scan found ----
  uint32_t hashOfAllIds() const { return scan_.hashOfAllIds; }  // sum mod 2^32 of accepted directory ids
  int scrambledIds() const { return scan_.scrambledIds; }        // some directory id > 900000
  int haveFilenameNumbers() const { return scan_.haveFilenameNumbers; }  // some file name starts with a number
  int hashingIsUsed() const { return scan_.hashingIsUsed; }      // some id was replaced through hashesMap

  // ---- type tables (a type outside 0..6 reads UNKNOWN's entry) and the loaded set ----
  int gainByType(int type) const { return config_.gainByType[typeIndex(type)]; }
  int duckingByType(int type) const { return config_.duckingByType[typeIndex(type)]; }
  // Empty = none.
  const std::string& serialCmdByType(int type) const { return config_.serialCmdByType[typeIndex(type)]; }
  int duckingIsActive() const { return config_.duckingIsActive; }
  // Directory the set configuration is written in; empty while no set is loaded.
  const std::string& configBase() const { return config_.configBase; }
  // "config.mellosnd" or "config.ini".
  const std::string& configFileToWrite() const { return config_.configFileToWrite; }
  // The storage type edits follow; every load takes it from the set it reads.
  SoundSet__SoundSetType setType() const { return config_.setType; }
  void setSetType(SoundSet__SoundSetType type) { config_.setType = type; }
  int setPreload() const { return config_.setPreload; }  // set-level "preload" key, -1 = not given
  int setVendor() const { return config_.setVendor; }    // set-level "vendor" key, -1 = not given

  // ---- id mapping ----
  const HashesMap& hashesMap() const { return mapping_.hashes; }
  // Shared mapping files of scrambled sets ("%u.mellosnd", gzip); default "configs",
  // relative to the working directory.
  const std::string& configsDir() const { return mapping_.configsDir; }
  void setConfigsDir(std::string dir) { mapping_.configsDir = std::move(dir); }

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
  // Both configuration files of `dir`, later lines winning; false when neither exists.
  bool readConfigFiles(const std::string& dir, PendingConfig& pending);
  void applyPending(SoundSet& set, const PendingConfig& pending);
  // The PINSOUND / ZIPFILE branch of initSamples.
  int loadTree(SoundSet& set, int copyMapping);
  static std::size_t typeIndex(int type) {
    return type >= 0 && type < kAudioTypeCount ? static_cast<std::size_t>(type) : 0;
  }

  // Left by the PINSOUND scanner; reset by every load.
  struct ScanState {
    uint32_t hashOfAllIds = 0;
    int scrambledIds = 0;
    int haveFilenameNumbers = 0;
    int hashingIsUsed = 0;
  };
  // The configuration editor's state: type tables and where edits are written.
  struct SetConfig {
    std::array<int, kAudioTypeCount> gainByType{50, 50, 50, 50, 50, 50, 50};
    std::array<int, kAudioTypeCount> duckingByType{100, 100, 80, 65, 10, 100, 100};
    std::array<std::string, kAudioTypeCount> serialCmdByType{};
    int duckingIsActive = 0;
    std::string configBase;
    std::string configFileToWrite;
    SoundSet__SoundSetType setType = PINSOUND;
    int setPreload = -1;
    int setVendor = -1;
  };
  struct IdMapping {
    HashesMap hashes{kHashBuckets};
    std::string configsDir = "configs";
  };

  Settings& settings_;
  Hooks hooks_;
  SampleMap samples_{kSampleBuckets};
  ScanState scan_;
  SetConfig config_;
  IdMapping mapping_;
};

}  // namespace korvo
