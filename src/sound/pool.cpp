// The engine's pool and sound set entry points: each takes the engine lock and hands
// the work to the sample pool or the set switcher.
#include "sound/sdl_sound.h"

namespace korvo {

void SoundEngine::loadSample(int id) {
  Lock lk(*this);
  pool_.load(id);
}

int SoundEngine::tryToFreeSamples(unsigned id) {
  Lock lk(*this);
  return pool_.tryToFree(id);
}

void SoundEngine::freeSamples() {
  Lock lk(*this);
  // Halting first keeps the channel table honest: chunks go with their records.
  stopAllSamplesLocked();
  pool_.freeAll();
}

int SoundEngine::countPreloads() {
  Lock lk(*this);
  return pool_.countPreloads();
}

unsigned long SoundEngine::bytesUsedForLoadedSamples() {
  Lock lk(*this);
  return pool_.bytesUsed();
}

int SoundEngine::startSoundSets(const std::string& baseDir) {
  Lock lk(*this);
  return sets_.start(baseDir);
}

int SoundEngine::searchSoundSets() {
  Lock lk(*this);
  return sets_.search();
}

int SoundEngine::removeSoundSet(int number) {
  Lock lk(*this);
  return sets_.remove(number);
}

int SoundEngine::switchToSoundSet(int set) {
  Lock lk(*this);
  return sets_.switchTo(set);
}

void SoundEngine::cycleSoundSet(int n) {
  Lock lk(*this);
  sets_.cycle(n);
}

int SoundEngine::loadSoundSet(SoundSet* set, int number) {
  Lock lk(*this);
  return sets_.load(set, number);
}

void SoundEngine::setCopyMapping(bool on) {
  Lock lk(*this);
  sets_.setCopyMapping(on);
}

void SoundEngine::setAnnounceSoundSet(bool on) {
  Lock lk(*this);
  sets_.setAnnounce(on);
}

// The music that played before a switch comes back once the switch's prompts have
// played: started now, it would be cut by the next prompt.
void SoundEngine::replayMusicAfterPrompts(int id) {
  if (prompts_.idle())
    handleSoundLocked(id, -1, -1);
  else
    musicAfterPrompts_ = id;
}

}  // namespace korvo
