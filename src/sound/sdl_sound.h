// The sound engine: plays the samples of the loaded sound set on eleven mixer
// channels plus the music stream, with gains, ducking, fades, the sample pool, sound
// set switching, spoken system prompts and the audio device.
//
// Threads and locks:
// - One engine mutex guards all engine state (sample index, channel records, music
//   state, pool). Every public method takes it unless it says otherwise; the service
//   thread, HTTP, Lua and the main loop all come in through these methods. It is never
//   held while waiting for a prompt to end or while sleeping.
// - The mixer's channel-finished and music-finished hooks run on the audio thread with
//   the mixer's lock held, and also synchronously inside our own Mix_HaltChannel /
//   Mix_HaltMusic calls. They touch only atomics and post to the request ring; they
//   never take the engine mutex and never call Mix_*.
// - Lock order: engine mutex -> mixer lock -> ring mutex. Nothing takes the engine
//   mutex while holding either of the others.
// - `soundHandler` (bus capture threads) only filters repeats and posts; the
//   protocol handlers' volume-zero counters are atomics.
#pragma once

#include <SDL2/SDL_mixer.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/settings.h"
#include "sound/audio_device.h"
#include "sound/service.h"
#include "soundsets/catalogue.h"
#include "soundsets/model.h"
#include "soundsets/sample_index.h"

namespace korvo {

class Gpio;
class Configuration;

constexpr int kMixChannels = 11;
constexpr unsigned kChannelIdle = 0xFFFFFFFFu;

// Calls out of the engine into subsystems above or beside it (bus outputs, Lua, the
// display, the catalogue). The owner wires them at start-up; an empty hook means the
// subsystem is absent and the call does nothing.
struct SoundHooks {
  // "PORT <pin> <on|off>": one port-extender pin.
  std::function<void(int pin, bool on)> setPortExtenderPin;
  // "PORTSEQ <text>": build a pin sequence from the text and queue it.
  std::function<void(const std::string& sequence)> addPortPinSequence;
  // Shaker motor pattern of a sample that starts (when shakerEnabled).
  std::function<void(const std::vector<uint32_t>& sequence)> playbackShakerSequence;
  // Lua: run a chunk; set an integer global ("musicPlayingId", "effectiveVolume").
  std::function<void(const std::string& chunk)> luaRun;
  std::function<void(const char* name, int value)> setLuaGlobal;
  // Auxiliary outputs.
  std::function<void(const std::string& text)> serialSend;
  std::function<void(const std::string& text)> sendSocketCmd;
  // A line of the mini display at pixel row y.
  std::function<void(int x, int y, const std::string& text)> showDisplayLine;
  // Persist the transient settings ("va.ini": volume, sound set, audio device).
  std::function<void()> writeSettings;
  // The protocol handlers' list of ids ignored silently when the set lacks them.
  std::function<bool(int id)> suppressNotFound;
  // I2C for "I2CWRITE" commands (not owned; may be null).
  Gpio* gpio = nullptr;
};

// Called on the audio thread at the mixing pass that starts a sample (only atomics
// and plain stores may happen there). For measurements.
using OnsetObserver = void (*)(void* user, unsigned id, int channel, uint64_t frame);

class SoundEngine {
 public:
  explicit SoundEngine(Settings& s = settings);
  ~SoundEngine();
  SoundEngine(const SoundEngine&) = delete;
  SoundEngine& operator=(const SoundEngine&) = delete;

  SoundHooks& hooks() { return hooks_; }
  // The index of the loaded set. Callers outside the engine hold lock() while they use
  // it or any record it hands out.
  SampleIndex& index() { return index_; }

  // The engine lock. Work that leaves the engine (Lua, side outputs, the display, the
  // settings file) is queued while the lock is held and runs, in order, right after it
  // is released: a Lua script may call back into the engine, and slow I/O never holds
  // up the service thread.
  class EngineLock {
   public:
    explicit EngineLock(SoundEngine& e) : e_(&e), lk_(e.mutex_) {}
    EngineLock(EngineLock&&) noexcept = default;
    EngineLock& operator=(EngineLock&&) = delete;
    ~EngineLock() { unlock(); }
    // Releases the lock, then runs the queued work.
    void unlock();
    void lock() { lk_.lock(); }
    bool owns_lock() const { return lk_.owns_lock(); }

   private:
    SoundEngine* e_;
    std::unique_lock<std::mutex> lk_;
  };
  // The installed sets (same lock as the index).
  SoundSetCatalogue& catalogue() { return catalogue_; }
  EngineLock lock() { return EngineLock(*this); }

  // ---- audio device (audio_device.cpp) ----
  // Opens the device (settings.audioDevice if set, else the default), 11 channels,
  // the hooks and the frame counter; applies `volume`; plays "boot.ogg" when playBoot
  // is set ("<baseDir>/boot.ogg" overrides the built-in one) without waiting, then
  // applies the `numid` lines of "va.ini" to the card. 0 on success; -1 with an ERROR
  // line and audio off (enableAudio 0): the daemon runs on without sound.
  int soundInit(int volume, const char* baseDir, int channels, int frequency);
  // Halts everything, closes the device. Stops the service thread first.
  void soundShutdown();
  void setBufferFrames(int frames) { bufferFrames_ = frames > 0 ? frames : 512; }
  int bufferFrames() const { return bufferFrames_; }
  int frequency() const { return frequency_; }
  int enableAudio() const { return enableAudio_.load(std::memory_order_relaxed); }
  // Frames mixed since the device opened (post-mix hook). Any thread.
  uint64_t framesMixed() const { return framesMixed_.load(std::memory_order_acquire); }
  // micros() at the end of the last mixing pass. Any thread.
  uint64_t lastPassMicros() const { return lastPassMicros_.load(std::memory_order_acquire); }
  // The device list (ALSA PCM hints that can play, "default" first).
  std::vector<AudioDeviceInfo> listAudioDevices() const { return getAudioDevices(); }
  // Closes and reopens on device n of listAudioDevices(). Returns n, or -1 when n is
  // invalid or the device does not open (the previous device is opened again).
  int reopenAudioDevice(int n);
  // The next device of the list, wrapping. Returns its index or -1.
  int cycleAudioDevice();
  // Name of the open device ("" = default).
  std::string currentAudioDevice() const;
  // va.ini where the `numid` lines of the ALSA controls are kept.
  void setTransientSettingsFile(std::string path) { vaIniPath_ = std::move(path); }
  const std::string& transientSettingsFile() const { return vaIniPath_; }
  // Sets one control value of the open device's card and records it in va.ini.
  int setControlValue(int numid, int index, long value);

  // ---- service thread (service.cpp) ----
  RequestRing& ring() { return ring_; }
  void startSoundServiceThread();
  // Posts TERM_SERVICE_THREAD and joins the thread. No lock held by the caller.
  void stopSoundServiceThread();
  // SCHED_FIFO priority of the service thread (0 = normal scheduling, the default).
  // Takes effect when the thread starts.
  void setServiceThreadPriority(int prio) { servicePriority_.store(prio); }
  bool serviceThreadRunning() const { return serviceThread_.joinable(); }
  // Runs one request as the service thread does (tests drive it directly).
  void doSoundService(const SoundServiceRequest& req);

  // ---- dispatch (dispatch.cpp) ----
  // Repeat filter, then HANDLE_SND_CMD on the ring. Any thread; no engine lock.
  void soundHandler(unsigned id) { soundHandlerExt(id, -1); }
  void soundHandlerExt(unsigned id, int overrideVol);
  void handleSoundByType(int id) { handleSoundByTypeWithIdx(id, -1, -1); }
  void handleSoundByTypeWithIdx(int id, int idx, int overrideVol);
  void playSample(int id, int idx, int overrideVol);
  // master + gain + type gain - 100 (or master + override - 50), clamped to 1..128.
  // Engine lock held.
  int getVolumeForSample(const AudioSample* sample, int overideVol);
  int isStopCommand(int id) const;
  // 1 if any channel plays `id`. Lock-free (reads the channel table).
  int isSamplePlaying(unsigned id) const;
  // The id playing on channel ch, kChannelIdle when idle. Lock-free.
  unsigned idPlayingOnChannel(int ch) const;
  void restartAttractTimer();
  // Main loop: volume-zero gesture, shuffle mode, attract fade. Takes the engine lock
  // only when something is due.
  void updateSound(unsigned now);
  // The protocol handlers count volume commands of value 0 (DEBUG "count vol null").
  void countVolumeZero(unsigned now);
  // Runs a command string (pieces joined by ";"): PORT, PORTSEQ, I2CWRITE, else Lua or
  // the serial line and socket.
  void playCommand(const char* cmd);
  static int isPortCmd(const char* cmd, const Settings& s);
  static int isI2CCmd(const char* cmd);
  void dumpWhatsPlaying();
  // The id of a random sound of the loaded set (keyboard Enter without a number), -1
  // when the set is empty.
  int randomSampleId();

  // ---- music, fading, ducking, volume (music.cpp) ----
  void playMusic(int id, int idx) { playMusicWithFadeIn(id, 0, idx); }
  void playMusicWithFadeIn(int id, int ms, int idx) { playMusicWithFadeInAndPos(id, ms, idx, 0.0); }
  void playMusicWithFadeInAndPos(int id, int ms, int idx, double pos);
  void stopMusic();
  void pauseMusic();
  void resumeMusic(int ms);
  void fadeMusic(int ms);
  void fadeJingleSingle(int ms);
  void fadeRunningEffects();
  void fadeSoundType(int ms, int type);
  // The mixer's own report whether the music stream plays. Lock-free.
  int soundIsPlayingMusic() const;
  int musicIdPlaying() const { return musicIdPlaying_.load(std::memory_order_acquire); }
  int pausedMusicId();
  int getCurrentDucking();
  int setVolume(int volume);
  void setVolumeInternal(int v);
  void adjustVolume(int delta);
  int musicVolume() const;  // the music stream's current volume

  // ---- pool and switching (pool.cpp) ----
  AudioSample* getSampleForId(int id) { return index_.getSampleForId(static_cast<unsigned>(id)); }  // lock held
  void loadSample(int id);
  int tryToFreeSamples(unsigned id);
  void freeSamples();
  void stopAllSamples();
  int countPreloads();
  unsigned long bytesUsedForLoadedSamples();
  static long getMemoryUsedForSamples();
  // 0 when switched, 1 for an invalid number or the current set.
  int switchToSoundSet(int set);
  void cycleSoundSet(int n);
  // Frees the previous set and loads `set` (catalogue number `number`): index, type
  // gains and ducking from its configuration, preloads, prompts. 0 ok; 1 failed after
  // the previous set was freed; 2 refused with nothing changed (the set's files are
  // gone, or another load is running).
  int loadSoundSet(SoundSet* set, int number);
  // Start-up: scans `baseDir` for sets. With none: "no-soundset.ogg", "NO SOUND FOUND"
  // on the display, "please-install-sound.ogg" and an empty index. Otherwise INFO
  // "max soundsets: %d", "SOUNDSETS: %d" on the display, and the stored set
  // (settings.soundSet clamped to 1..max) is loaded. Returns the number of sets.
  int startSoundSets(const std::string& baseDir);
  // Rescans the base directory (after uploads). Returns the number of sets.
  int searchSoundSets();
  // Removes set `number` (see SoundSetCatalogue::removeSoundSet) and plays set 1.
  // 1 for an invalid number, else 0.
  int removeSoundSet(int number);
  int loadingSoundSet() const { return loadingSoundSet_.load(std::memory_order_acquire); }
  // -J: a scrambled set's own mapping file is copied to the shared "configs" folder
  // when the set loads (off by default).
  void setCopyMapping(bool on) { copyMapping_ = on; }
  // Play "soundset", the number and "ready" after a set load (default on).
  void setAnnounceSoundSet(bool on) { announceSoundSet_ = on; }

  // ---- system sounds (system_sounds.cpp) ----
  // 0 when started (or refused by the mixer), 1 when not (audio off, illegal name,
  // load failure). With `wait` the caller blocks until it ends (engine lock released).
  int playSystemSound(const char* f, int wait);
  int playSystemSoundWithOverride(const char* soundName, int wait, const char* basePath);
  void stopSystemSound();
  int checkPlaying() const { return musicPlaying_.load(std::memory_order_acquire); }
  void sayMode(int mode);
  void sayVersion(const char* version);
  void sayNumber(unsigned number);
  // Where the prompts live ("sounds" relative to the working directory by default).
  void setSoundsDir(std::string dir) { soundsDir_ = std::move(dir); }
  const std::string& soundsDir() const { return soundsDir_; }
  // How often a waiting prompt checks for its end (300 ms by default).
  void setPromptPollMillis(int ms) { promptPollMs_ = ms > 0 ? ms : 1; }

  // ---- measurement ----
  void setOnsetObserver(OnsetObserver fn, void* user);

 private:
  using Lock = EngineLock;
  // Queues work to run after the engine lock is released (lock held).
  void defer(std::function<void()> fn) { deferred_.push_back(std::move(fn)); }
  struct MusicDeleter {
    void operator()(Mix_Music* m) const {
      if (m) Mix_FreeMusic(m);
    }
  };
  using MusicPtr = std::unique_ptr<Mix_Music, MusicDeleter>;

  // Mixer hooks (audio thread or inside our own Mix_* calls): atomics and posts only.
  static void channelFinishedCallback(int ch);
  static void musicFinishedCallback();
  static void postMixCallback(void* udata, Uint8* stream, int len);
  static void onsetEffect(int chan, void* stream, int len, void* udata);
  void onChannelFinished(int ch);
  void onMusicFinished();

  // Everything below: engine mutex held by the caller.
  void soundServiceHandler();
  void handleSoundLocked(int id, int idx, int overrideVol);
  // The pieces of playCommand. The outputs run after the lock is released.
  void sendCmd(const AudioSample* s);
  void playCommandLocked(const char* cmd);
  void processCmd(const char* cmd);
  void sendPortCmd(const char* cmd);
  int sendI2CCmd(const char* cmd);
  void playSampleLocked(int id, int idx, int overrideVol);
  int chooseSampleIndex(const AudioSample* s);
  int findChannelFor(const AudioSample* s, unsigned id);
  void updateSoundLocked(Lock& lk, unsigned now);
  void channelFinishedLocked(const SoundServiceRequest& req);
  void dumpWhatsPlayingLocked();

  void playMusicLocked(int id, int ms, int idx, double pos);
  void stopMusicLocked();
  void freeMusic();
  void haltMusicStream();
  void pauseMusicLocked();
  void resumeMusicLocked(int ms);
  void fadeMusicLocked(int ms);
  void resetFadedMusic(int newId);
  void fadeChannel(int ch, int ms, const AudioSample* s);
  void fadeJingleSingleLocked(int ms);
  void fadeRunningEffectsLocked();
  void fadeSoundTypeLocked(int ms, int type);
  void setMusicIdPlaying(int id);
  void setMusicVolume(int id);
  void doCheckDucking(int ch);
  int getCurrentDuckingLocked();
  int setVolumeLocked(int volume);
  void setVolumeInternalLocked(int v);
  void volumeChanged(bool showDisplay);

  SDL_RWops* makeRW(const AudioSample* s, int idx);
  void loadSampleLocked(int id);
  int tryToFreeSamplesLocked(unsigned id);
  void freeSamplesLocked();
  void stopAllSamplesLocked();
  int switchToSoundSetLocked(Lock& lk, int set);
  void cycleSoundSetLocked(Lock& lk, int n);
  int loadSoundSetLocked(Lock& lk, SoundSet* set, int number);
  int soundSetCount() const;

  int playSystemSoundLocked(Lock* lk, const char* f, int wait);
  int playSystemSoundWithOverrideLocked(Lock* lk, const char* soundName, int wait, const char* basePath);
  void waitForPrompt(Lock* lk, double durationSec);
  void stopSystemSoundLocked();

  // Queues the "va.ini" write (hook), then puts the mixer control lines back: the
  // settings writer knows only its own keys.
  void persistSettings();
  int openDevice(const std::string& device);
  void closeDevice();
  void applyStoredControls();

  Settings& settings_;
  SoundHooks hooks_;
  RequestRing ring_;
  std::thread serviceThread_;

  mutable std::mutex mutex_;  // the engine mutex
  // Serialises the side effects queued under mutex_; never taken with mutex_ held.
  std::recursive_mutex effectsMutex_;

  // ---- guarded by mutex_ ----
  SampleIndex index_;
  SoundSetCatalogue catalogue_;
  std::vector<std::function<void()>> deferred_;
  MusicPtr spMusic_;
  MusicPtr systemSoundMix_;
  std::string lastSystemSound_;
  int pausedMusicId_ = 0;
  double pausedMusicPos_ = 0.0;
  int shuffleMode_ = 0;
  unsigned shuffleTimer_ = 0;
  unsigned long bytesUsedForLoadedSamples_ = 0;
  int currentSetNumber_ = 0;
  SoundSet__SoundSetType currentSetType_ = PINSOUND;
  std::string currentSetBasedir_;
  std::string baseDir_;
  bool announceSoundSet_ = true;
  bool copyMapping_ = false;
  std::string soundsDir_ = "sounds";
  int promptPollMs_ = 300;
  std::string openDevice_;  // name of the open device, "" = default
  int deviceIndex_ = 0;
  int channels_ = 2;
  std::string vaIniPath_ = "va.ini";
  std::map<std::string, long> storedControls_;  // "numid3_0" -> value, as in va.ini
  bool deviceOpen_ = false;
  bool sdlAudioInit_ = false;

  // ---- atomics: read lock-free, written by hooks or under mutex_ ----
  std::array<std::atomic<unsigned>, kMixChannels> idPlayingOnChannel_;
  std::array<std::atomic<uint32_t>, kMixChannels> channelGen_;
  std::array<std::atomic<bool>, kMixChannels> onsetPending_;
  std::atomic<int> musicIdPlaying_{0};
  std::atomic<int> musicPlaying_{0};
  std::atomic<int> loadingSoundSet_{0};
  std::atomic<unsigned> lastSoundCmd_{0};
  std::atomic<int> countVolNull_{0};
  std::atomic<bool> shuffleModeHint_{false};  // mirrors shuffleMode_ for the lock-free check
  std::atomic<unsigned> switchTimer_{0};
  std::atomic<int> enableAudio_{0};
  std::atomic<int> servicePriority_{0};
  std::atomic<uint64_t> framesMixed_{0};
  std::atomic<uint64_t> lastPassMicros_{0};
  std::atomic<OnsetObserver> onsetObserver_{nullptr};
  std::atomic<void*> onsetUser_{nullptr};
  std::atomic<int> bytesPerFrame_{4};  // read by the post-mix hook on the audio thread
  int frequency_ = 44100;
  int bufferFrames_ = 512;

  // Repeat filter of soundHandlerExt: its own short lock (bus threads).
  std::mutex repeatMutex_;
  int lastCmdId_ = -1;
  unsigned long lastCmdTime_ = 0;
};

// "%.1f KB" style sizes for log lines.
std::string readableSize(unsigned long bytes);

}  // namespace korvo
