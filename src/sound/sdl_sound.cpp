// The engine object, the mixer hooks and the frame counter.
#include "sound/sdl_sound.h"

#include <SDL2/SDL.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/stringutil.h"
#include "platform/clock.h"

namespace korvo {

namespace {
// The mixer's finished hooks carry no user pointer: they reach the engine whose
// device is open through this pointer (set by soundInit, cleared by soundShutdown).
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
  work.swap(e_->deferred_);
  lk_.unlock();
  if (work.empty()) return;
  // One thread at a time runs side effects (the settings writer and the outputs are
  // not thread-safe); recursive, because a Lua command may call back into the engine
  // and run its own effects on this thread.
  std::lock_guard effects(e_->effectsMutex_);
  for (auto& w : work) {
    try {
      w();
    } catch (const std::exception& ex) {
      LOG(LEVEL_ERROR, "sound engine side effect failed: %s", ex.what());
    }
  }
}

SoundEngine::SoundEngine(Settings& s) : settings_(s), index_(s) {
  // The index calls this with the engine lock held (a type gain changed).
  index_.hooks().reapplyVolume = [this] { setVolumeLocked(settings_.volume.load()); };
  for (int i = 0; i < kMixChannels; i++) {
    idPlayingOnChannel_[i].store(kChannelIdle);
    channelGen_[i].store(0);
    onsetPending_[i].store(false);
  }
}

SoundEngine::~SoundEngine() {
  stopSoundServiceThread();
  soundShutdown();
  Lock lk(*this);
  // Records own chunks: free them while the mixer library is still usable.
  index_.clearSamples();
  // Side effects queued at shutdown would reach subsystems that are already gone.
  deferred_.clear();
}

void SoundEngine::setOnsetObserver(OnsetObserver fn, void* user) {
  onsetUser_.store(user, std::memory_order_release);
  onsetObserver_.store(fn, std::memory_order_release);
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
  // Clearing the table entry first lets the ducking recomputation of this report
  // already exclude the finished sample. The record's own channel field is engine
  // state: the service thread clears it, and only if the generation still matches.
  const unsigned id = idPlayingOnChannel_[ch].exchange(kChannelIdle, std::memory_order_acq_rel);
  SoundServiceRequest req = ring_.buildRequest(CHANNEL_FINISHED);
  req.channelNumber = ch;
  req.id = static_cast<int32_t>(id);
  req.generation = channelGen_[ch].load(std::memory_order_acquire);
  ring_.queuePut(req);
}

void SoundEngine::onMusicFinished() {
  musicIdPlaying_.store(0, std::memory_order_release);
  musicPlaying_.store(0, std::memory_order_release);
  SoundServiceRequest req = ring_.buildRequest(MUSIC_FINISHED);
  req.id = 0;
  ring_.queuePut(req);
}

void SoundEngine::postMixCallback(void* udata, Uint8*, int len) {
  auto* e = static_cast<SoundEngine*>(udata);
  const int bpf = e->bytesPerFrame_.load(std::memory_order_relaxed);
  e->framesMixed_.fetch_add(static_cast<uint64_t>(len / bpf), std::memory_order_acq_rel);
  e->lastPassMicros_.store(micros(), std::memory_order_release);
}

// Registered on a channel just before a sample starts there; the first mixing pass
// that includes the sample records the frame counter (frames mixed before this pass).
void SoundEngine::onsetEffect(int chan, void*, int, void* udata) {
  auto* e = static_cast<SoundEngine*>(udata);
  if (chan < 0 || chan >= kMixChannels) return;
  if (!e->onsetPending_[chan].exchange(false, std::memory_order_acq_rel)) return;
  OnsetObserver fn = e->onsetObserver_.load(std::memory_order_acquire);
  if (fn)
    fn(e->onsetUser_.load(std::memory_order_acquire), e->idPlayingOnChannel_[chan].load(std::memory_order_acquire),
       chan, e->framesMixed_.load(std::memory_order_acquire));
}

// ---- device open / close (the ALSA side lives in audio_device.cpp) ----

int SoundEngine::openDevice(const std::string& device) {
  // The hooks go in before the device opens so the very first pass is counted.
  Mix_SetPostMix(&SoundEngine::postMixCallback, this);
  bytesPerFrame_ = 2 * (channels_ > 0 ? channels_ : 2);
  const char* name = device.empty() ? nullptr : device.c_str();
  const int chans = channels_ > 0 ? channels_ : 2;
  int rc = Mix_OpenAudioDevice(frequency_, AUDIO_S16SYS, chans, bufferFrames_, name, SDL_AUDIO_ALLOW_FREQUENCY_CHANGE);
  const char* driver = SDL_GetCurrentAudioDriver();
  if (rc != 0 && name && driver && std::strcmp(driver, "alsa") == 0) {
    // SDL lists ALSA devices by description; an ALSA PCM name ("hw:CARD=x,DEV=0")
    // reaches SDL's ALSA backend as the default device's name.
    const char* old = std::getenv("AUDIODEV");
    const std::string saved = old ? old : "";
    setenv("AUDIODEV", name, 1);
    rc = Mix_OpenAudioDevice(frequency_, AUDIO_S16SYS, chans, bufferFrames_, nullptr, SDL_AUDIO_ALLOW_FREQUENCY_CHANGE);
    if (old)
      setenv("AUDIODEV", saved.c_str(), 1);
    else
      unsetenv("AUDIODEV");
  }
  if (rc != 0) {
    LOG(LEVEL_ERROR, "could not open audio device '%s': %s", name ? name : "default", Mix_GetError());
    Mix_SetPostMix(nullptr, nullptr);
    return -1;
  }
  int freq = 0, gotChans = 0;
  Uint16 format = 0;
  if (Mix_QuerySpec(&freq, &format, &gotChans) != 0) {
    frequency_ = freq;
    bytesPerFrame_ = static_cast<int>(SDL_AUDIO_BITSIZE(format) / 8) * gotChans;
  }
  Mix_AllocateChannels(kMixChannels);
  for (int i = 0; i < kMixChannels; i++) idPlayingOnChannel_[i].store(kChannelIdle);
  gHookEngine.store(this, std::memory_order_release);
  Mix_ChannelFinished(&SoundEngine::channelFinishedCallback);
  Mix_HookMusicFinished(&SoundEngine::musicFinishedCallback);
  deviceOpen_ = true;
  openDevice_ = device;
  LOG(LEVEL_INFO, "audio device '%s' open: %d Hz, %d channels, %d frames per buffer", name ? name : "default",
      frequency_, gotChans, bufferFrames_);
  return 0;
}

void SoundEngine::closeDevice() {
  if (!deviceOpen_) return;
  stopAllSamplesLocked();
  haltMusicStream();
  spMusic_.reset();
  systemSoundMix_.reset();
  lastSystemSound_.clear();
  // Chunks must not outlive the device they were converted for.
  for (auto& node : index_.samplesMap()) {
    if (node.value) node.value->unloadChunks();
  }
  bytesUsedForLoadedSamples_ = 0;
  Mix_ChannelFinished(nullptr);
  Mix_HookMusicFinished(nullptr);
  Mix_SetPostMix(nullptr, nullptr);
  Mix_CloseAudio();
  SoundEngine* self = this;
  gHookEngine.compare_exchange_strong(self, nullptr);
  deviceOpen_ = false;
  for (int i = 0; i < kMixChannels; i++) idPlayingOnChannel_[i].store(kChannelIdle);
}

}  // namespace korvo
