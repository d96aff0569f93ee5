// The sound engine: the narrow surface that the bus, HTTP, Lua, the front panel and the
// main loop call. It owns the parts (audio output, channel table, sample pool, music
// player, prompt player, set switcher), the one engine mutex, the request ring and the
// service thread "SndService" that dispatches its requests.
//
// Threads and locks:
// - One engine mutex guards all engine state. Every public method takes it unless it
//   says otherwise. It is never held while a prompt plays or while sleeping.
// - The mixer's channel-finished and music-finished hooks run on the audio thread with
//   the mixer's lock held, and also inside our own Mix_HaltChannel / Mix_HaltMusic
//   calls. They touch only atomics, post to the ring without logging, and wake the
//   prompt player; they never take the engine mutex and never call Mix_*.
// - Lock order: engine mutex -> mixer lock -> ring mutex / prompt player mutex.
// - `soundHandler` (bus capture threads) only filters repeats and posts.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sound/audio_device.h"
#include "sound/audio_output.h"
#include "sound/channel_table.h"
#include "sound/engine_context.h"
#include "sound/music_player.h"
#include "sound/prompt_player.h"
#include "sound/sample_pool.h"
#include "sound/service.h"
#include "sound/set_switcher.h"
#include "sound/volume_gesture.h"

namespace korvo {

class SoundEngine {
 public:
  explicit SoundEngine(Settings& s = settings);
  ~SoundEngine();
  SoundEngine(const SoundEngine&) = delete;
  SoundEngine& operator=(const SoundEngine&) = delete;

  // The engine lock. Work that leaves the engine (Lua, side outputs, the display, the
  // settings file) is queued while it is held and runs, in order, right after release.
  class EngineLock {
   public:
    explicit EngineLock(SoundEngine& e) : e_(&e), lk_(e.mutex_) {}
    EngineLock(EngineLock&&) noexcept = default;
    EngineLock& operator=(EngineLock&&) = delete;
    ~EngineLock() { unlock(); }
    void unlock();  // releases the lock, then runs the queued work
    void lock() { lk_.lock(); }
    bool owns_lock() const { return lk_.owns_lock(); }

   private:
    SoundEngine* e_;
    std::unique_lock<std::mutex> lk_;
  };
  EngineLock lock() { return EngineLock(*this); }

  SoundHooks& hooks() { return hooks_; }
  // The loaded set's index and the installed sets: callers hold lock() while they use
  // them or any record they hand out.
  SampleIndex& index() { return index_; }
  SoundSetCatalogue& catalogue() { return sets_.catalogue(); }

  // The parts (tests and measurements; the lock rules of each part apply).
  AudioOutput& output() { return output_; }
  ChannelTable& channels() { return channels_; }
  SamplePool& pool() { return pool_; }
  MusicPlayer& music() { return music_; }
  PromptPlayer& prompts() { return prompts_; }
  SetSwitcher& sets() { return sets_; }

  // ---- audio device ----
  // Opens the device (settings.audioDevice, else the default), applies `volume`, queues
  // "boot.ogg" when playBoot is set ("<baseDir>/boot.ogg" overrides the built-in one),
  // and applies the `numid` lines of va.ini to the card. 0, or -1 with an ERROR line and
  // audio off: the daemon runs on without sound.
  int soundInit(int volume, const char* baseDir, int channels, int frequency);
  void soundShutdown();  // stops the threads, halts everything, closes the device
  void setBufferFrames(int frames) { output_.setBufferFrames(frames); }
  int bufferFrames() const { return output_.bufferFrames(); }
  int frequency() const { return output_.frequency(); }
  int enableAudio() const { return output_.enabled(); }
  uint64_t framesMixed() const { return output_.framesMixed(); }        // any thread
  uint64_t lastPassMicros() const { return output_.lastPassMicros(); }  // any thread
  std::vector<AudioDeviceInfo> listAudioDevices() const { return getAudioDevices(); }
  // Reopens on device n of listAudioDevices(): n, or -1 (the previous device reopened).
  int reopenAudioDevice(int n);
  int cycleAudioDevice();
  std::string currentAudioDevice() const;
  void setTransientSettingsFile(std::string path);
  std::string transientSettingsFile() const;
  // Sets one control value of the open card and records it in va.ini.
  int setControlValue(int numid, int index, long value);

  // ---- service thread ----
  RequestRing& ring() { return ring_; }
  void startSoundServiceThread();
  void stopSoundServiceThread();  // posts TERM_SERVICE_THREAD and joins; no lock held
  // SCHED_FIFO priority of the service thread (0 = normal), used when it starts.
  void setServiceThreadPriority(int prio) { servicePriority_.store(prio); }
  bool serviceThreadRunning() const { return serviceThread_.joinable(); }
  void doSoundService(const SoundServiceRequest& req);  // one request, as the thread does

  // ---- dispatch ----
  // Repeat filter, then HANDLE_SND_CMD on the ring. Any thread; no engine lock.
  void soundHandler(unsigned id) { soundHandlerExt(id, -1); }
  void soundHandlerExt(unsigned id, int overrideVol);
  void handleSoundByType(int id) { handleSoundByTypeWithIdx(id, -1, -1); }
  void handleSoundByTypeWithIdx(int id, int idx, int overrideVol);
  void playSample(int id, int idx, int overrideVol);
  int getVolumeForSample(const AudioSample* sample, int overideVol);  // lock held
  int isStopCommand(int id) const;
  int isSamplePlaying(unsigned id) const { return channels_.isPlaying(id) ? 1 : 0; }  // lock-free
  unsigned idPlayingOnChannel(int ch) const { return channels_.id(ch); }              // lock-free
  void restartAttractTimer();
  // Main loop: volume-zero gesture, shuffle mode, attract fade. Never waits; takes the
  // engine lock only when something is due.
  void updateSound(unsigned now);
  void countVolumeZero(unsigned now) { gesture_.count(now); }  // any thread, no lock
  // Runs a command string (pieces joined by ";"): PORT, PORTSEQ, I2CWRITE, else Lua or
  // the serial line and socket.
  void playCommand(const char* cmd);
  static int isPortCmd(const char* cmd, const Settings& s);
  static int isI2CCmd(const char* cmd);
  void dumpWhatsPlaying();
  int randomSampleId();  // a random id of the loaded set, -1 when empty

  // ---- music, fading, ducking, volume ----
  void playMusic(int id, int idx) { playMusicWithFadeIn(id, 0, idx); }
  void playMusicWithFadeIn(int id, int ms, int idx) { playMusicWithFadeInAndPos(id, ms, idx, 0.0); }
  void playMusicWithFadeInAndPos(int id, int ms, int idx, double pos);
  void stopMusic();
  void pauseMusic();
  void resumeMusic(int ms);
  void fadeMusic(int ms);
  void resetFadedMusic(int newId);
  void fadeJingleSingle(int ms);
  void fadeRunningEffects();
  void fadeSoundType(int ms, int type);
  int soundIsPlayingMusic() const;  // the mixer's own report; lock-free
  int musicIdPlaying() const { return music_.idPlaying(); }
  int pausedMusicId();
  int getCurrentDucking();
  int setVolume(int volume);
  void setVolumeInternal(int v);
  void adjustVolume(int delta);
  int musicVolume() const;

  // ---- pool and sets ----
  AudioSample* getSampleForId(int id) { return ctx_.sample(id); }  // lock held
  void loadSample(int id);
  int tryToFreeSamples(unsigned id);
  void freeSamples();
  void stopAllSamples();
  int countPreloads();
  unsigned long bytesUsedForLoadedSamples();
  static long getMemoryUsedForSamples() { return SamplePool::memoryUsedForSamples(); }
  int currentSoundSet() const { return settings_.soundSet.load(); }
  // 0 when switched, 1 for an invalid number or the current set.
  int switchToSoundSet(int set);
  void cycleSoundSet(int n);
  // 0 ok; 1 failed after the previous set was freed; 2 refused, nothing changed.
  int loadSoundSet(SoundSet* set, int number);
  // Start-up: scans `baseDir` and loads the stored set. Returns the number of sets.
  int startSoundSets(const std::string& baseDir);
  int searchSoundSets();
  int removeSoundSet(int number);  // then plays set 1; 1 for an invalid number
  int loadingSoundSet() const { return sets_.loading(); }
  void setCopyMapping(bool on);
  void setAnnounceSoundSet(bool on);

  // ---- prompts ----
  // 0 when queued, 1 when not (audio off, illegal name, load failure). With `wait` the
  // caller blocks (no engine lock held) until the prompt has played; nothing inside the
  // engine or on the main loop waits.
  int playSystemSound(const char* f, int wait);
  int playSystemSoundWithOverride(const char* soundName, int wait, const char* basePath);
  void stopSystemSound();
  int checkPlaying() const { return music_.promptOnStream(); }
  void sayMode(int mode);
  void sayVersion(const char* version);
  void sayNumber(unsigned number);
  void setSoundsDir(std::string dir);
  std::string soundsDir() const;

  void setOnsetObserver(OnsetObserver fn, void* user) { channels_.setOnsetObserver(fn, user); }

 private:
  using Lock = EngineLock;
  static void channelFinishedCallback(int ch);
  static void musicFinishedCallback();
  void onChannelFinished(int ch);
  void onMusicFinished();

  // Engine mutex held by the caller.
  void soundServiceHandler();
  void logHookOverruns();
  void handleSoundLocked(int id, int idx, int overrideVol);
  void playTypeLocked(AudioSample* s, int id, int idx, int overrideVol);
  void playSampleLocked(int id, int idx, int overrideVol);
  void playMusicLocked(int id, int ms, int idx, double pos);
  void stopAllSamplesLocked();
  void channelFinishedLocked(const SoundServiceRequest& req);
  void gestureEndedLocked(int count, unsigned now);
  void updateSoundLocked(int burst, unsigned now);
  void playCommandLocked(const char* cmd);
  void processCmd(const char* cmd);
  void sendPortCmd(const char* cmd);
  int sendI2CCmd(const char* cmd);
  int setVolumeLocked(int volume);
  void volumeChanged(bool showDisplay);
  void replayMusicAfterPrompts(int id);
  void persistSettings();
  int openDevice(const std::string& device);
  void closeDevice();

  Settings& settings_;
  SoundHooks hooks_;
  SampleIndex index_;
  EngineContext ctx_;
  mutable std::mutex mutex_;  // the engine mutex
  // Serialises the side effects queued under mutex_; never taken with mutex_ held.
  std::recursive_mutex effectsMutex_;
  RequestRing ring_;
  std::thread serviceThread_;

  AudioOutput output_;
  ChannelTable channels_;
  SamplePool pool_;
  MusicPlayer music_;
  PromptPlayer prompts_;
  SetSwitcher sets_;
  VolumeZeroGesture gesture_;

  // ---- guarded by mutex_ ----
  int shuffleMode_ = 0;
  unsigned shuffleTimer_ = 0;
  int musicAfterPrompts_ = 0;  // music to restart when the queued prompts have played

  std::atomic<unsigned> lastSoundCmd_{0};
  std::atomic<bool> shuffleModeHint_{false};  // mirrors shuffleMode_ for the lock-free check
  std::atomic<int> servicePriority_{0};
  // Repeat filter of soundHandlerExt: its own short lock (bus threads).
  std::mutex repeatMutex_;
  int lastCmdId_ = -1;
  unsigned long lastCmdTime_ = 0;
};

// "%.1f KB" style sizes for log lines.
std::string readableSize(unsigned long bytes);

}  // namespace korvo
