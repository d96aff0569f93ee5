// The engine's music and volume entry points: each takes the engine lock and hands the
// work to the music player.
#include "base/log.h"
#include "base/stringutil.h"
#include "sound/sdl_sound.h"

namespace korvo {

void SoundEngine::playMusicWithFadeInAndPos(int id, int ms, int idx, double pos) {
  Lock lk(*this);
  playMusicLocked(id, ms, idx, pos);
}

void SoundEngine::stopMusic() {
  Lock lk(*this);
  music_.stop();
}

void SoundEngine::pauseMusic() {
  Lock lk(*this);
  music_.pause();
}

void SoundEngine::resumeMusic(int ms) {
  Lock lk(*this);
  music_.resume(ms);
}

void SoundEngine::fadeMusic(int ms) {
  Lock lk(*this);
  music_.fade(ms);
}

void SoundEngine::resetFadedMusic(int newId) {
  Lock lk(*this);
  music_.resetFaded(newId);
}

void SoundEngine::fadeJingleSingle(int ms) {
  Lock lk(*this);
  music_.fadeJingleSingle(ms);
}

void SoundEngine::fadeRunningEffects() {
  Lock lk(*this);
  music_.fadeRunningEffects();
}

void SoundEngine::fadeSoundType(int ms, int type) {
  Lock lk(*this);
  music_.fadeType(ms, type);
}

int SoundEngine::soundIsPlayingMusic() const {
  if (!output_.enabled()) return 0;
  return Mix_PlayingMusic();
}

int SoundEngine::pausedMusicId() {
  Lock lk(*this);
  return music_.pausedId();
}

int SoundEngine::getCurrentDucking() {
  Lock lk(*this);
  return music_.currentDucking();
}

void SoundEngine::setVolumeInternal(int v) {
  Lock lk(*this);
  music_.setStreamVolume(v);
}

int SoundEngine::musicVolume() const {
  std::lock_guard lk(mutex_);
  return music_.streamVolume();
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
  const int music = music_.idPlaying();
  if (music > 0) music_.applyVolume(music);
  if (settings_.luaEnabled && hooks_.setLuaGlobal)
    ctx_.defer([this, volume] { hooks_.setLuaGlobal("effectiveVolume", volume); });
  LOG(LEVEL_DEBUG, "volume: %d", volume);
  if (showDisplay && hooks_.showDisplayLine) {
    const std::string line = strFormat("M: %-11s V: %d", protocolName(settings_.protocol.load()), volume);
    ctx_.defer([this, line] { hooks_.showDisplayLine(0, 40, line); });
  }
  persistSettings();
}

}  // namespace korvo
