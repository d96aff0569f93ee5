// The engine object: its parts wired together, the lock and its queued side effects,
// the mixer hooks, and the device's life (open, reopen, close, controls, va.ini).
#include "sound/sdl_sound.h"

#include <SDL2/SDL.h>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "base/thread.h"

namespace korvo {

namespace {
// The mixer's finished hooks carry no user pointer: they reach the engine whose
// device is open through this pointer (set when it opens, cleared when it closes).
std::atomic<SoundEngine*> gHookEngine{nullptr};
}  // namespace

std::string readableSize(unsigned long bytes) {
  if (bytes >= (1ul << 30)) return strFormat("%.1f GB", static_cast<double>(bytes) / (1ul << 30));
  if (bytes >= (1ul << 20)) return strFormat("%.1f MB", static_cast<double>(bytes) / (1ul << 20));
  if (bytes >= (1ul << 10)) return strFormat("%.1f KB", static_cast<double>(bytes) / (1ul << 10));
  return strFormat("%lu B", bytes);
}

void SoundEngine::EngineLock::unlock() {
  if (!lk_.owns_lock()) return;
  std::vector<std::function<void()>> work;
  work.swap(e_->ctx_.deferred);
  lk_.unlock();
  if (work.empty()) return;
  // One thread at a time runs side effects (the settings writer and the outputs are
  // not thread-safe); recursive, because a Lua command may call back into the engine
  // and run its own effects on this thread.
  std::lock_guard effects(e_->effectsMutex_);
  for (auto& w : work) runGuarded("sound engine side effect", w);
}

SoundEngine::SoundEngine(Settings& s)
    : settings_(s),
      index_(s),
      ctx_{s, index_, hooks_, {}},
      channels_(output_.frameCounter()),
      pool_(ctx_, output_, channels_),
      music_(ctx_, output_, channels_, pool_),
      prompts_(output_, music_),
      sets_(ctx_, output_, pool_, music_, prompts_,
            SetSwitcher::Actions{[this] { stopAllSamplesLocked(); }, [this] { persistSettings(); },
                                 [this] { setVolumeLocked(settings_.volume.load()); },
                                 [this](int id) { replayMusicAfterPrompts(id); }}) {
  // The index calls this with the engine lock held (a type gain changed).
  index_.hooks().reapplyVolume = [this] { setVolumeLocked(settings_.volume.load()); };
  prompts_.setOnIdle([this] {
    if (musicAfterPrompts_ > 0) handleSoundLocked(std::exchange(musicAfterPrompts_, 0), -1, -1);
  });
}

SoundEngine::~SoundEngine() {
  stopSoundServiceThread();
  soundShutdown();
  Lock lk(*this);
  // Records own chunks: free them while the mixer library is still usable.
  index_.clearSamples();
  // Side effects queued at shutdown would reach subsystems that are already gone.
  ctx_.deferred.clear();
}

// ---- mixer hooks ----

void SoundEngine::channelFinishedCallback(int ch) {
  SoundEngine* e = gHookEngine.load(std::memory_order_acquire);
  if (e) e->onChannelFinished(ch);
}

void SoundEngine::musicFinishedCallback() {
  SoundEngine* e = gHookEngine.load(std::memory_order_acquire);
  if (e) e->onMusicFinished();
}

void SoundEngine::onChannelFinished(int ch) {
  if (ch < 0 || ch >= kMixChannels) return;
  // The record's own channel field is engine state: the service thread clears it, and
  // only if the generation still matches.
  SoundServiceRequest req = ring_.buildRequest(CHANNEL_FINISHED);
  req.channelNumber = ch;
  req.id = static_cast<int32_t>(channels_.finish(ch, &req.generation));
  ring_.postFromHook(req);
}

void SoundEngine::onMusicFinished() {
  music_.onStreamFinished();
  SoundServiceRequest req = ring_.buildRequest(MUSIC_FINISHED);
  req.id = 0;
  ring_.postFromHook(req);
}

// ---- device ----

int SoundEngine::openDevice(const std::string& device) {
  if (output_.open(device) != 0) return -1;
  channels_.clearAll();
  gHookEngine.store(this, std::memory_order_release);
  Mix_ChannelFinished(&SoundEngine::channelFinishedCallback);
  Mix_HookMusicFinished(&SoundEngine::musicFinishedCallback);
  return 0;
}

void SoundEngine::closeDevice() {
  if (!output_.isOpen()) return;
  stopAllSamplesLocked();
  prompts_.dropAll();
  music_.haltStream();
  music_.release();
  pool_.unloadChunks();
  Mix_ChannelFinished(nullptr);
  Mix_HookMusicFinished(nullptr);
  output_.close();
  SoundEngine* self = this;
  gHookEngine.compare_exchange_strong(self, nullptr);
  channels_.clearAll();
}

int SoundEngine::soundInit(int volume, const char* baseDir, int channels, int frequency) {
  Lock lk(*this);
  sets_.setBaseDir(baseDir ? baseDir : "");
  output_.configure(channels, frequency);
  if (!output_.initAudio()) {
    output_.setEnabled(false);
    return -1;
  }
  const std::string device = settings_.audioDevice.get();
  if (openDevice(device) != 0) {
    // A stored device that went away: try the default before giving up.
    if (device.empty() || openDevice("") != 0) {
      LOG(LEVEL_ERROR, "no audio device, running without audio");
      output_.setEnabled(false);
      return -1;
    }
  }
  output_.setEnabled(true);
  output_.findDeviceIndex();
  music_.setStreamVolume(volume);
  output_.applyStoredControls();
  prompts_.startThread([this](const std::function<void()>& work) {
    Lock l(*this);
    work();
  });
  if (settings_.playBoot) prompts_.playWithOverride("boot.ogg", sets_.baseDir().c_str());
  return 0;
}

void SoundEngine::soundShutdown() {
  stopSoundServiceThread();
  prompts_.stopThread();
  Lock lk(*this);
  closeDevice();
  output_.setEnabled(false);
  output_.quitAudio();
}

std::string SoundEngine::currentAudioDevice() const {
  std::lock_guard lk(mutex_);
  return output_.deviceName();
}

int SoundEngine::reopenAudioDevice(int n) {
  Lock lk(*this);
  const auto devices = getAudioDevices();
  if (n < 0 || static_cast<std::size_t>(n) >= devices.size()) {
    LOG(LEVEL_ERROR, "no audio device %d (have %zu)", n, devices.size());
    return -1;
  }
  if (!output_.audioInitialised()) {
    LOG(LEVEL_ERROR, "audio is not initialised");
    return -1;
  }
  const std::string previous = output_.deviceName();
  // "default" is SDL's own default device; others are opened by their ALSA name.
  const auto& entry = devices[static_cast<std::size_t>(n)];
  const std::string wanted = entry.name == "default" ? std::string() : entry.name;
  closeDevice();
  if (openDevice(wanted) != 0) {
    if (openDevice(previous) != 0) {
      LOG(LEVEL_ERROR, "previous audio device could not be opened again, running without audio");
      output_.setEnabled(false);
    }
    return -1;
  }
  output_.setEnabled(true);
  output_.setDeviceIndex(n);
  music_.setStreamVolume(settings_.volume.load());
  settings_.audioDevice.set(wanted);
  persistSettings();
  output_.applyStoredControls();
  prompts_.play("ready.ogg");
  return n;
}

int SoundEngine::cycleAudioDevice() {
  const auto devices = getAudioDevices();
  int next;
  {
    Lock lk(*this);
    next = (output_.deviceIndex() + 1) % static_cast<int>(devices.size());
  }
  return reopenAudioDevice(next);
}

void SoundEngine::setTransientSettingsFile(std::string path) {
  std::lock_guard lk(mutex_);
  output_.setControlsFile(std::move(path));
}

std::string SoundEngine::transientSettingsFile() const {
  std::lock_guard lk(mutex_);
  return output_.controlsFile();
}

int SoundEngine::setControlValue(int numid, int index, long value) {
  Lock lk(*this);
  if (output_.setControl(numid, index, value) != 0) return -1;
  const std::string key = controlKey(numid, index) + "=";
  const std::string line = key + strFormat("%ld", value);
  const std::string path = output_.controlsFile();
  if (updateConfigFile(path.c_str(), key.c_str(), line.c_str()) != 0)
    LOG(LEVEL_ERROR, "could not store %s in %s", line.c_str(), path.c_str());
  return 0;
}

// The settings writer knows only its own keys: the control lines go along in the same
// write, so a cut between two writes can never lose them.
void SoundEngine::persistSettings() {
  if (!hooks_.writeSettings) return;
  ctx_.defer([&hooks = hooks_, lines = output_.controlLines()] { hooks.writeSettings(lines); });
}

}  // namespace korvo
