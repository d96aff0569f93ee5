// Music on the mixer's music stream: start, stop, pause, fade and resume; effect
// fades; ducking; the master volume and its persistence.
#include "base/log.h"
#include "base/stringutil.h"
#include "sound/sdl_sound.h"

namespace korvo {

void SoundEngine::playMusicWithFadeInAndPos(int id, int ms, int idx, double pos) {
  Lock lk(*this);
  playMusicLocked(id, ms, idx, pos);
}

void SoundEngine::playMusicLocked(int id, int ms, int idx, double pos) {
  AudioSample* s = getSampleForId(id);
  sendCmd(s);
  if (!s || s->samples.empty()) return;
  if (spMusic_ && musicIdPlaying_.load() == id) {
    LOG(LEVEL_DEBUG, "Music %d '%s' is already playing.", id, s->name.c_str());
    return;
  }
  if (settings_.fadeSfxOnMusicChange) fadeRunningEffectsLocked();
  const int n = static_cast<int>(s->samples.size());
  if (idx == -1)
    idx = chooseSampleIndex(s);
  else if (idx < -1)
    idx = 0;
  else if (idx > n - 1)
    idx = n - 1;
  if (!deviceOpen_) return;
  // Whatever holds the stream (old music or a prompt) stops now.
  haltMusicStream();
  freeMusic();
  SDL_RWops* rw = makeRW(s, idx);
  if (rw) spMusic_.reset(Mix_LoadMUS_RW(rw, 1));
  if (!spMusic_) {
    LOG(LEVEL_ERROR, "error loading music %d, '%s', error: %s", id, s->name.c_str(), Mix_GetError());
    return;
  }
  const std::string& file = s->samples[static_cast<std::size_t>(idx)];
  LOG(LEVEL_DEBUG, "loaded music from '%s'", file.c_str());
  const int loops = settings_.playMusicInLoops ? -1 : 1;
  // The id is recorded before the start so that a music ending at once is seen ending;
  // the volume goes first so the first mixing pass already has it.
  setMusicIdPlaying(id);
  setMusicVolume(id);
  int rc;
  if (pos > 0.01)
    rc = Mix_FadeInMusicPos(spMusic_.get(), loops, ms > 0 ? ms : 1, pos);
  else if (ms >= 1)
    rc = Mix_FadeInMusic(spMusic_.get(), loops, ms);
  else
    rc = Mix_PlayMusic(spMusic_.get(), loops);
  if (rc != 0) {
    LOG(LEVEL_ERROR, "error playing music %d '%s', error: %s", id, s->name.c_str(), Mix_GetError());
    setMusicIdPlaying(0);
    return;
  }
  if (pausedMusicId_ != 0 && pausedMusicId_ != id) resetFadedMusic(id);
  LOG(LEVEL_DEBUG, "Playing Music id=%d, '%s:%d' gain:%u, from %s", id, s->name.c_str(), idx, s->gain, file.c_str());
  if (settings_.shakerEnabled && !s->shakersequence.empty() && hooks_.playbackShakerSequence)
    defer([this, seq = s->shakersequence] { hooks_.playbackShakerSequence(seq); });
}

void SoundEngine::resetFadedMusic(int newId) {
  LOG(LEVEL_DEBUG, "reset faded music %d, start new %d", pausedMusicId_, newId);
  pausedMusicId_ = 0;
}

void SoundEngine::setMusicIdPlaying(int id) {
  if (id == 0) musicPlaying_.store(0);
  musicIdPlaying_.store(id);
  if (settings_.luaEnabled && hooks_.setLuaGlobal) defer([this, id] { hooks_.setLuaGlobal("musicPlayingId", id); });
}

// Halting (rather than freeing a fading music) keeps the mixer from blocking until a
// fade-out has run its course. The finished hook runs inside and clears the music id.
void SoundEngine::haltMusicStream() {
  if (deviceOpen_ && (Mix_PlayingMusic() || Mix_PausedMusic())) Mix_HaltMusic();
}

void SoundEngine::freeMusic() {
  if (spMusic_) haltMusicStream();
  spMusic_.reset();
}

void SoundEngine::stopMusic() {
  Lock lk(*this);
  stopMusicLocked();
}

void SoundEngine::stopMusicLocked() {
  if (!spMusic_ || musicIdPlaying_.load() == 0) return;
  haltMusicStream();
  freeMusic();
  setMusicIdPlaying(0);
}

void SoundEngine::pauseMusic() {
  Lock lk(*this);
  pauseMusicLocked();
}

void SoundEngine::pauseMusicLocked() {
  if (!spMusic_ || musicIdPlaying_.load() == 0) return;
  pausedMusicPos_ = Mix_GetMusicPosition(spMusic_.get());
  Mix_PauseMusic();
  pausedMusicId_ = musicIdPlaying_.load();
  setMusicIdPlaying(0);
}

void SoundEngine::fadeMusic(int ms) {
  Lock lk(*this);
  fadeMusicLocked(ms);
}

void SoundEngine::fadeMusicLocked(int ms) {
  if (!spMusic_ || musicIdPlaying_.load() == 0 || !Mix_PlayingMusic()) return;
  pausedMusicPos_ = Mix_GetMusicPosition(spMusic_.get());
  Mix_FadeOutMusic(ms);
  pausedMusicId_ = musicIdPlaying_.load();
  LOG(LEVEL_DEBUG, "fading out music: %d", pausedMusicId_);
}

void SoundEngine::resumeMusic(int ms) {
  Lock lk(*this);
  resumeMusicLocked(ms);
}

void SoundEngine::resumeMusicLocked(int ms) {
  if (!spMusic_ || pausedMusicId_ == 0) return;
  const int id = pausedMusicId_;
  if (ms != 0) {
    // A fade-out may still be running: start afresh rather than find it "already playing".
    freeMusic();
    playMusicLocked(id, ms, -1, pausedMusicPos_);
  } else {
    Mix_ResumeMusic();
    setMusicIdPlaying(id);
    setMusicVolume(id);
  }
  pausedMusicId_ = 0;
}

int SoundEngine::pausedMusicId() {
  Lock lk(*this);
  return pausedMusicId_;
}

int SoundEngine::soundIsPlayingMusic() const {
  if (!enableAudio_.load()) return 0;
  return Mix_PlayingMusic();
}

// ---- effect fades ----

void SoundEngine::fadeChannel(int ch, int ms, const AudioSample* s) {
  LOG(LEVEL_DEBUG, "Fading out channel %d for %d ms, playing '%s'", ch, ms, s->name.c_str());
  Mix_FadeOutChannel(ch, ms);
}

void SoundEngine::fadeJingleSingle(int ms) {
  Lock lk(*this);
  fadeJingleSingleLocked(ms);
}

void SoundEngine::fadeRunningEffects() {
  Lock lk(*this);
  fadeRunningEffectsLocked();
}

void SoundEngine::fadeSoundType(int ms, int type) {
  Lock lk(*this);
  fadeSoundTypeLocked(ms, type);
}

void SoundEngine::fadeJingleSingleLocked(int ms) {
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = idPlayingOnChannel_[ch].load();
    if (id == kChannelIdle) continue;
    const AudioSample* s = getSampleForId(static_cast<int>(id));
    if (s && (s->type == JINGLE || s->type == SINGLE)) {
      LOG(LEVEL_DEBUG, "fading out %s on channel %d", audioTypeName(s->type), ch);
      Mix_FadeOutChannel(ch, ms);
    }
  }
}

void SoundEngine::fadeRunningEffectsLocked() {
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = idPlayingOnChannel_[ch].load();
    if (id == kChannelIdle) continue;
    const AudioSample* s = getSampleForId(static_cast<int>(id));
    if (s && (s->type == SFX || s->type == JINGLE || s->type == SINGLE))
      fadeChannel(ch, settings_.fadeSfxOnMusicChangeTime, s);
  }
}

void SoundEngine::fadeSoundTypeLocked(int ms, int type) {
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = idPlayingOnChannel_[ch].load();
    if (id == kChannelIdle) continue;
    const AudioSample* s = getSampleForId(static_cast<int>(id));
    if (s && s->type == type) fadeChannel(ch, ms, s);
  }
}

// ---- ducking ----

int SoundEngine::getCurrentDucking() {
  Lock lk(*this);
  return getCurrentDuckingLocked();
}

int SoundEngine::getCurrentDuckingLocked() {
  if (!index_.duckingIsActive()) return 100;
  int ducking = 100;
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = idPlayingOnChannel_[ch].load();
    if (id == kChannelIdle) continue;
    const AudioSample* s = getSampleForId(static_cast<int>(id));
    if (s && static_cast<int>(s->ducking) < ducking) ducking = static_cast<int>(s->ducking);
  }
  return ducking;
}

void SoundEngine::setMusicVolume(int id) {
  const AudioSample* s = getSampleForId(id);
  if (!s) {
    LOG(LEVEL_ERROR, "setMusicVolume: no music sample for %d found", id);
    return;
  }
  const int musicVol = getVolumeForSample(s, -1);
  const int ducking = getCurrentDuckingLocked();
  const int vol = static_cast<int>(static_cast<float>(musicVol) * static_cast<float>(ducking) / 100.0f);
  LOG(LEVEL_DEBUG, "setMusicVolume to %d (musicVol=%d, ducking=%d)", vol, musicVol, ducking);
  setVolumeInternalLocked(vol);
}

void SoundEngine::doCheckDucking(int ch) {
  if (ch == -1)
    LOG(LEVEL_DEBUG, "sample starts playing on channel %d", ch);
  else
    LOG(LEVEL_DEBUG, "channel %d has finished", ch);
  const int music = musicIdPlaying_.load();
  if (music > 0) setMusicVolume(music);
}

// ---- master volume ----

void SoundEngine::setVolumeInternal(int v) {
  Lock lk(*this);
  setVolumeInternalLocked(v);
}

void SoundEngine::setVolumeInternalLocked(int v) {
  if (v < 0) v = 0;
  if (v > MIX_MAX_VOLUME) v = MIX_MAX_VOLUME;
  if (deviceOpen_) Mix_VolumeMusic(v);
}

int SoundEngine::musicVolume() const {
  std::lock_guard lk(mutex_);
  return deviceOpen_ ? Mix_VolumeMusic(-1) : 0;
}

int SoundEngine::setVolume(int volume) {
  Lock lk(*this);
  return setVolumeLocked(volume);
}

int SoundEngine::setVolumeLocked(int volume) {
  if (volume < 0 || volume > MIX_MAX_VOLUME) {
    LOG(LEVEL_ERROR, "volume out of range: %d", volume);
    return -1;
  }
  settings_.volume.store(volume);
  volumeChanged(true);
  return 0;
}

void SoundEngine::adjustVolume(int delta) {
  if (delta == 0) return;
  Lock lk(*this);
  int v = settings_.volume.load() + delta * 5;
  if (v < 0) v = 0;
  if (v > MIX_MAX_VOLUME) v = MIX_MAX_VOLUME;
  settings_.volume.store(v);
  volumeChanged(false);
}

void SoundEngine::volumeChanged(bool showDisplay) {
  const int volume = settings_.volume.load();
  const int music = musicIdPlaying_.load();
  if (music > 0) setMusicVolume(music);
  if (settings_.luaEnabled && hooks_.setLuaGlobal)
    defer([this, volume] { hooks_.setLuaGlobal("effectiveVolume", volume); });
  LOG(LEVEL_DEBUG, "volume: %d", volume);
  if (showDisplay && hooks_.showDisplayLine) {
    const std::string line = strFormat("M: %-11s V: %d", protocolName(settings_.protocol.load()), volume);
    defer([this, line] { hooks_.showDisplayLine(0, 40, line); });
  }
  persistSettings();
}

}  // namespace korvo
