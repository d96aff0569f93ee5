// The engine's prompt entry points: each queues prompts with the engine lock held; a
// caller that asked to wait blocks after the lock is released.
#include "base/log.h"
#include "base/stringutil.h"
#include "sound/sdl_sound.h"

namespace korvo {

int SoundEngine::playSystemSound(const char* f, int wait) {
  uint64_t ticket = 0;
  int rc;
  {
    Lock lk(*this);
    rc = prompts_.play(f, &ticket);
  }
  if (rc == 0 && wait) prompts_.waitPlayed(ticket);
  return rc;
}

int SoundEngine::playSystemSoundWithOverride(const char* soundName, int wait, const char* basePath) {
  uint64_t ticket = 0;
  int rc;
  {
    Lock lk(*this);
    rc = prompts_.playWithOverride(soundName, basePath, &ticket);
  }
  if (rc == 0 && wait) prompts_.waitPlayed(ticket);
  return rc;
}

void SoundEngine::stopSystemSound() {
  Lock lk(*this);
  prompts_.stop();
}

void SoundEngine::setSoundsDir(std::string dir) {
  Lock lk(*this);
  prompts_.setSoundsDir(std::move(dir));
}

std::string SoundEngine::soundsDir() const {
  std::lock_guard lk(mutex_);
  return prompts_.soundsDir();
}

void SoundEngine::sayMode(int mode) {
  Lock lk(*this);
  prompts_.play("mode.ogg");
  switch (mode) {
    case DATAEAST:
      prompts_.play("dataeast.ogg");
      break;
    case WPC:
      prompts_.play("wpc.ogg");
      break;
    case DATAEAST2:
    case DATAEAST3:
      prompts_.play("dataeast.ogg");
      prompts_.play(mode == DATAEAST2 ? "2.ogg" : "3.ogg");
      break;
    case WPCDCS:
      prompts_.play("wpc.ogg");
      prompts_.play("dcs.ogg");
      break;
    case WHITESTAR:
    case WHITESTAR_X:
      prompts_.play("whitestar.ogg");
      break;
    default:
      break;  // SYS11, DATAEAST_X: nothing after "mode"
  }
}

void SoundEngine::sayVersion(const char* version) {
  playSystemSound("version.ogg", 0);
  if (!version) return;
  for (const char* p = version; *p; p++) {
    if (*p == '.')
      playSystemSound("point.ogg", 0);
    else if (*p == 'r')
      playSystemSound("r.ogg", 0);
    else if (*p == 'c')
      playSystemSound("c.ogg", 0);
    else if (*p >= '0' && *p <= '9')
      sayNumber(static_cast<unsigned>(*p - '0'));
  }
}

void SoundEngine::sayNumber(unsigned number) {
  const std::string buf = strFormat("%u", number);
  LOG(LEVEL_DEBUG, "buf: %s, len %d", buf.c_str(), static_cast<int>(buf.size()));
  for (char c : buf) playSystemSound(strFormat("%c.ogg", c).c_str(), 0);
}

}  // namespace korvo
