// The records every part of the daemon uses to talk about sounds: one sound
// (`AudioSample`, addressed by the command id that plays it) and a loaded sound set
// (`SoundSet`), the audio types and the storage types of a set.
//
// The same records are what the xsnd container serialises (its index messages carry
// the same fields under the same names), what the web service reports and what the
// mixer plays from. In memory they are plain C++ objects owning their strings and
// decoded audio.
//
// Concurrency: records live in the sample index (sample_index.h) and are guarded by
// the sound engine's mutex like the index itself.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/handles.h"

namespace korvo {

enum AudioType : int {
  UNKNOWN = 0,
  MUSIC = 1,
  SFX = 2,
  VOICE = 3,
  JINGLE = 4,
  SINGLE = 5,
  SYSTEM = 6,
};
constexpr int kAudioTypeCount = 7;

// "unknown", "music", "sfx", "voice", "jingle", "single", "system": directory names of
// PINSOUND sets, configuration keys, web API.
extern const char* const audioTypeNames[kAudioTypeCount];

// Exact, case-sensitive match against audioTypeNames; anything else is UNKNOWN.
AudioType getAudioTypeForString(std::string_view name);
// The type's name; "unknown" for a value outside 0..6.
const char* audioTypeName(int type);

// How a sound set is stored.
enum SoundSet__SoundSetType : int {
  PINSOUND = 0,  // directory tree named by ids
  XSNDFILE = 1,  // one xsnd container file
  ZIPFILE = 2,   // zip archive, loaded like PINSOUND from where it was unpacked
  ALTSOUND = 3,  // directory described by "altsound.csv"
};

// Where one audio file's bytes lie inside an xsnd container.
struct CompFileChunk {
  enum State : int { REGULAR = 0, DELETED = 1 };
  uint32_t offset = 0;  // file position of the first audio byte
  uint32_t size = 0;    // audio byte count
  State state = REGULAR;
};

// One sound, by command id. Move-only (it owns decoded audio).
class AudioSample {
 public:
  static constexpr std::size_t kMaxFiles = 10;     // audio files per sound
  static constexpr int kNotPlaying = -1;

  AudioSample() = default;
  explicit AudioSample(uint32_t forId);
  AudioSample(AudioSample&&) noexcept = default;
  AudioSample& operator=(AudioSample&&) noexcept = default;
  AudioSample(const AudioSample&) = delete;
  AudioSample& operator=(const AudioSample&) = delete;

  AudioType type = UNKNOWN;
  uint32_t id = 0;
  // The id the sound had on disk before a file-name number or a hash mapping
  // replaced it; 0 when nothing was remapped.
  uint32_t magic = 0;
  // PINSOUND: the sound's directory (typedir/id-name). XSNDFILE: the container file.
  std::string basepath;
  std::string name;
  uint32_t gain = 0;  // percent 0..100, 50 neutral
  bool preload = false;
  std::vector<uint32_t> shakersequence;
  uint32_t lastused = 0;  // millis() of the last play, kept by the sample pool
  // Paths of the audio files; several files are alternatives for one sound.
  std::vector<std::string> samples;
  // Mixer channel the sound plays on, kNotPlaying when idle.
  int isplayingonchannel = kNotPlaying;
  uint32_t size = 0;  // bytes of the first audio file (preload threshold)
  std::string serialcmd;  // serial output commands; empty = none
  // Parallel to `samples`: the decoded audio of each file, filled by the sample pool.
  // Never serialised with content.
  std::vector<ChunkHandle> chunk;
  // XSNDFILE sets: one entry per entry of `samples`, same order.
  std::vector<CompFileChunk> filechunks;
  uint32_t ducking = 0;  // percent of the music volume while this sound plays
  bool gaindefault = false;     // no per-sound gain file: `gain` is the default
  bool duckingdefault = false;  // no per-sound ducking file: `ducking` is the type's

  // Resizes `chunk` to one (null) entry per entry of `samples`, keeping loaded ones.
  void syncChunks();
  // Frees every decoded chunk (entries stay, null).
  void unloadChunks();
  bool isLoaded(std::size_t index) const { return index < chunk.size() && chunk[index] != nullptr; }
  const std::string& firstPath() const;
};

// `newAudioSampleForId`: a zeroed record with `id` set, not playing, magic 0.
std::unique_ptr<AudioSample> newAudioSampleForId(uint32_t id);

// A sound set: the catalogue's entry for it and, once loaded, its sounds.
class SoundSet {
 public:
  std::string name;     // display name (directory or file name as found)
  std::string basedir;  // the directory, container file or CSV directory
  // One per entry of the sample index after a load. Not owned: the records belong to
  // the sample index and stay valid until the next load.
  std::vector<AudioSample*> samples;
  // Per type, used when the set is serialised; at run time the index's type tables
  // are authoritative.
  std::array<uint32_t, kAudioTypeCount> gains{};
  std::array<uint32_t, kAudioTypeCount> ducking{};
  bool shakerenabled = false;
  bool fade_sfx_on_music_change = false;
  uint32_t fade_sfx_on_music_change_time = 0;
  uint32_t attract_timeout = 0;
  bool playmusicinloops = false;
  SoundSet__SoundSetType type = PINSOUND;
};

// True exactly for XSNDFILE sets.
bool isComposite(const SoundSet* set);
inline bool isComposite(const SoundSet& set) { return set.type == XSNDFILE; }

}  // namespace korvo
