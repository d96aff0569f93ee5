// Spoken prompts on the music stream: boot, ready, mode, version, numbers, warnings.
#include <chrono>
#include <cstring>
#include <thread>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "sound/sdl_sound.h"

namespace korvo {

int SoundEngine::playSystemSound(const char* f, int wait) {
  Lock lk(*this);
  return playSystemSoundLocked(&lk, f, wait);
}

int SoundEngine::playSystemSoundWithOverride(const char* soundName, int wait, const char* basePath) {
  Lock lk(*this);
  return playSystemSoundWithOverrideLocked(&lk, soundName, wait, basePath);
}

int SoundEngine::playSystemSoundLocked(Lock* lk, const char* f, int wait) {
  if (!f) return 1;
  LOG(LEVEL_DEBUG, "playSystemSound sound: %s", f);
  if (!enableAudio_.load() || !deviceOpen_) return 1;
  if (std::strstr(f, "..")) {
    LOG(LEVEL_ERROR, "sound name is illegal: '%s'", f);
    return 1;
  }
  const std::string path = f[0] == '/' ? std::string(f) : strFormat("%s/%s", soundsDir_.c_str(), f);
  // The prompt takes the music stream; the previous holder ends here (its finished
  // hook clears the music id).
  haltMusicStream();
  if (!systemSoundMix_ || path != lastSystemSound_) {
    systemSoundMix_.reset();
    lastSystemSound_.clear();
    LOG(LEVEL_DEBUG, "load system sound: %s", path.c_str());
    systemSoundMix_.reset(Mix_LoadMUS(path.c_str()));
    if (!systemSoundMix_) {
      LOG(LEVEL_ERROR, "error loading sound: %s", path.c_str());
      return 1;
    }
  }
  lastSystemSound_ = path.substr(0, 511);
  LOG(LEVEL_DEBUG, "play sound: %s", path.c_str());
  musicPlaying_.store(1);
  if (Mix_PlayMusic(systemSoundMix_.get(), 1) != 0) {
    musicPlaying_.store(0);
    LOG(LEVEL_ERROR, "play music: %s, %s", path.c_str(), Mix_GetError());
    return 0;
  }
  if (wait) waitForPrompt(lk, Mix_MusicDuration(systemSoundMix_.get()));
  return 0;
}

// Blocks until the music-finished hook clears musicPlaying. The engine lock is let go
// meanwhile. A prompt that never reports its end (a stalled device) is given up after
// its length plus two seconds.
void SoundEngine::waitForPrompt(Lock* lk, double durationSec) {
  const auto limit = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<long>((durationSec > 0 ? durationSec : 10.0) * 1000) + 2000);
  if (lk) lk->unlock();
  while (checkPlaying() == 1 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(promptPollMs_));
  if (lk) lk->lock();
}

int SoundEngine::playSystemSoundWithOverrideLocked(Lock* lk, const char* soundName, int wait, const char* basePath) {
  const std::string custom = strFormat("%s/%s", basePath ? basePath : "", soundName);
  LOG(LEVEL_DEBUG, "looking for custom system sound: '%s'", custom.c_str());
  if (basePath && !std::strstr(soundName, "..") && fileExists(custom))
    return playSystemSoundLocked(lk, custom.c_str(), wait);
  return playSystemSoundLocked(lk, soundName, wait);
}

void SoundEngine::stopSystemSound() {
  Lock lk(*this);
  stopSystemSoundLocked();
}

void SoundEngine::stopSystemSoundLocked() {
  LOG(LEVEL_DEBUG, "stopping system sound ...");
  if (!systemSoundMix_) return;
  // Halt rather than fade: freeing a fading music would block the mixer until the
  // fade ends.
  haltMusicStream();
  systemSoundMix_.reset();
  lastSystemSound_.clear();
}

void SoundEngine::sayMode(int mode) {
  playSystemSound("mode.ogg", 1);
  switch (mode) {
    case DATAEAST:
      playSystemSound("dataeast.ogg", 1);
      break;
    case WPC:
      playSystemSound("wpc.ogg", 1);
      break;
    case DATAEAST2:
      playSystemSound("dataeast.ogg", 1);
      playSystemSound("2.ogg", 1);
      break;
    case DATAEAST3:
      playSystemSound("dataeast.ogg", 1);
      playSystemSound("3.ogg", 1);
      break;
    case WPCDCS:
      playSystemSound("wpc.ogg", 1);
      playSystemSound("dcs.ogg", 1);
      break;
    case WHITESTAR:
    case WHITESTAR_X:
      playSystemSound("whitestar.ogg", 1);
      break;
    default:
      break;  // SYS11, DATAEAST_X: nothing after "mode"
  }
}

void SoundEngine::sayVersion(const char* version) {
  playSystemSound("version.ogg", 1);
  if (!version) return;
  for (const char* p = version; *p; p++) {
    if (*p == '.')
      playSystemSound("point.ogg", 1);
    else if (*p == 'r')
      playSystemSound("r.ogg", 1);
    else if (*p == 'c')
      playSystemSound("c.ogg", 1);
    else if (*p >= '0' && *p <= '9')
      sayNumber(static_cast<unsigned>(*p - '0'));
  }
}

void SoundEngine::sayNumber(unsigned number) {
  const std::string buf = strFormat("%u", number);
  LOG(LEVEL_DEBUG, "buf: %s, len %d", buf.c_str(), static_cast<int>(buf.size()));
  for (char c : buf) playSystemSound(strFormat("%c.ogg", c).c_str(), 1);
}

}  // namespace korvo
