// The sample pool (lazy decoding under a byte budget, LRU eviction of idle sounds)
// and sound set loading and switching.
#include <cstdio>
#include <cstring>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "platform/clock.h"
#include "sound/sdl_sound.h"
#include "soundsets/streams.h"

namespace korvo {

namespace {
constexpr int kLoadAttempts = 10;
constexpr int kMaxEvictionsPerLoad = 20;
}  // namespace

SDL_RWops* SoundEngine::makeRW(const AudioSample* s, int idx) {
  if (idx < 0 || static_cast<std::size_t>(idx) >= s->samples.size()) return nullptr;
  switch (currentSetType_) {
    case XSNDFILE:
      return makeCompoundRW(currentSetBasedir_.c_str(), s, idx);
    case ZIPFILE:
      return makeZipRW(currentSetBasedir_.c_str(), s, idx);
    default:
      return SDL_RWFromFile(s->samples[static_cast<std::size_t>(idx)].c_str(), "rb");
  }
}

void SoundEngine::loadSample(int id) {
  Lock lk(*this);
  loadSampleLocked(id);
}

void SoundEngine::loadSampleLocked(int id) {
  AudioSample* s = getSampleForId(id);
  if (!s || s->samples.empty() || !deviceOpen_) return;
  s->syncChunks();
  const unsigned long budget = settings_.samplePoolSizeInByte;
  for (int attempt = 0; attempt < kLoadAttempts; attempt++) {
    LOG(LEVEL_DEBUG, "sample not in RAM, loading %zu samples", s->samples.size());
    bool failed = false;
    for (std::size_t i = 0; i < s->samples.size(); i++) {
      if (s->chunk[i]) continue;  // a retry never decodes or counts a variant twice
      LOG(LEVEL_DEBUG, "sample not in RAM, loading from %s", s->samples[i].c_str());
      SDL_RWops* rw = makeRW(s, static_cast<int>(i));
      Mix_Chunk* c = rw ? Mix_LoadWAV_RW(rw, 1) : nullptr;
      if (!c) {
        LOG(LEVEL_ERROR, "could not load sample: %d, '%s', error: %s", id, s->name.c_str(), Mix_GetError());
        failed = true;
        break;
      }
      s->chunk[i].reset(c);
      bytesUsedForLoadedSamples_ += c->alen;
      LOG(LEVEL_DEBUG, "Loaded sample %d:%zu: len: %s, used: %s", id, i, readableSize(c->alen).c_str(),
          readableSize(bytesUsedForLoadedSamples_).c_str());
      for (int n = 0; n < kMaxEvictionsPerLoad && bytesUsedForLoadedSamples_ >= budget; n++) {
        if (!tryToFreeSamplesLocked(static_cast<unsigned>(id))) break;
        LOG(LEVEL_DEBUG, "Sample Poolsize used/max: %s/%s", readableSize(bytesUsedForLoadedSamples_).c_str(),
            readableSize(budget).c_str());
      }
    }
    if (!failed) return;
    // Memory may be what failed: make room and try again, unless nothing can go.
    if (!tryToFreeSamplesLocked(static_cast<unsigned>(id))) return;
  }
}

int SoundEngine::tryToFreeSamples(unsigned id) {
  Lock lk(*this);
  return tryToFreeSamplesLocked(id);
}

int SoundEngine::tryToFreeSamplesLocked(unsigned id) {
  LOG(LEVEL_DEBUG, "try To free anything but %u", id);
  AudioSample* victim = nullptr;
  uint32_t best = 0xFFFFFFFFu;
  for (auto& node : index_.samplesMap()) {
    AudioSample* s = node.value.get();
    if (!s || node.key == id || s->id == id) continue;
    if (!s->isLoaded(0) || s->isplayingonchannel != AudioSample::kNotPlaying) continue;
    if (isSamplePlaying(node.key)) continue;  // finished report not yet handled
    if (s->lastused == 0) {  // loaded but never played (a preload): first to go
      victim = s;
      break;
    }
    if (s->lastused < best) {
      best = s->lastused;
      victim = s;
    }
  }
  if (!victim) return 0;
  LOG(LEVEL_DEBUG, "free sample %u %s", victim->id, victim->name.c_str());
  for (std::size_t i = 0; i < victim->chunk.size(); i++) {
    if (!victim->chunk[i]) continue;
    LOG(LEVEL_DEBUG, "free sample %u %s(%zu)", victim->id, victim->name.c_str(), i);
    const unsigned long len = victim->chunk[i]->alen;
    bytesUsedForLoadedSamples_ = bytesUsedForLoadedSamples_ >= len ? bytesUsedForLoadedSamples_ - len : 0;
    victim->chunk[i].reset();
  }
  return 1;
}

void SoundEngine::freeSamples() {
  Lock lk(*this);
  freeSamplesLocked();
}

void SoundEngine::freeSamplesLocked() {
  // Chunks are freed with their records; halting first keeps the channel table honest.
  stopAllSamplesLocked();
  index_.clearSamples();
  bytesUsedForLoadedSamples_ = 0;
}

void SoundEngine::stopAllSamples() {
  Lock lk(*this);
  stopAllSamplesLocked();
}

void SoundEngine::stopAllSamplesLocked() {
  if (deviceOpen_) Mix_HaltChannel(-1);
  for (int ch = 0; ch < kMixChannels; ch++) {
    const unsigned id = idPlayingOnChannel_[ch].exchange(kChannelIdle);
    if (id == kChannelIdle) continue;
    AudioSample* s = getSampleForId(static_cast<int>(id));
    if (s) s->isplayingonchannel = AudioSample::kNotPlaying;
  }
  // Reports of the halted plays are already on the ring; records whose id the hook
  // took first are cleared here.
  for (auto& node : index_.samplesMap())
    if (node.value) node.value->isplayingonchannel = AudioSample::kNotPlaying;
}

int SoundEngine::countPreloads() {
  Lock lk(*this);
  int n = 0;
  for (auto& node : index_.samplesMap())
    if (node.value && node.value->preload) n++;
  return n;
}

unsigned long SoundEngine::bytesUsedForLoadedSamples() {
  Lock lk(*this);
  return bytesUsedForLoadedSamples_;
}

long SoundEngine::getMemoryUsedForSamples() {
  FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return 0;
  char word[1024];
  long result = 0;
  while (std::fscanf(f, " %1023s", word) == 1) {
    if (std::strcmp(word, "RssAnon:") == 0) {
      int kb = 0;
      if (std::fscanf(f, " %d", &kb) == 1 && kb > 0) result = static_cast<long>(kb) * 1024;
      break;
    }
  }
  std::fclose(f);
  return result;
}

// ---- switching ----

int SoundEngine::soundSetCount() const { return catalogue_.maxSoundSets; }

int SoundEngine::startSoundSets(const std::string& baseDir) {
  Lock lk(*this);
  if (!baseDir.empty()) baseDir_ = baseDir;
  catalogue_.searchSoundSets(baseDir_);
  const int max = catalogue_.maxSoundSets;
  if (max == 0) {
    playSystemSoundLocked(&lk, "no-soundset.ogg", 1);
    if (hooks_.showDisplayLine) defer([this] { hooks_.showDisplayLine(0, 24, "NO SOUND FOUND"); });
    playSystemSoundLocked(&lk, "please-install-sound.ogg", 1);
    index_.clearSamples();
    return 0;
  }
  if (hooks_.showDisplayLine) defer([this, max] { hooks_.showDisplayLine(0, 24, strFormat("SOUNDSETS: %d", max)); });
  const int set = catalogue_.clampIndex(settings_.soundSet.load());
  settings_.soundSet.store(set);
  LOG(LEVEL_INFO, "max soundsets: %d", max);
  loadSoundSetLocked(lk, catalogue_.get(set), set);
  return max;
}

int SoundEngine::searchSoundSets() {
  Lock lk(*this);
  catalogue_.searchSoundSets(baseDir_);
  return catalogue_.maxSoundSets;
}

int SoundEngine::removeSoundSet(int number) {
  Lock lk(*this);
  if (loadingSoundSet_.load()) {
    LOG(LEVEL_WARN, "soundset %d not removed: a set is loading", number);
    return 1;
  }
  // The numbers shift under the loaded set: whatever was loaded, play the new set 1.
  int requested = 0;
  catalogue_.switchToSoundSet = [&requested](int n) { requested = n; };
  const int rc = catalogue_.removeSoundSet(number, baseDir_);
  catalogue_.switchToSoundSet = nullptr;
  if (rc != 0) return rc;
  if (requested > 0) {
    settings_.soundSet.store(requested);
    persistSettings();
    if (SoundSet* s = catalogue_.get(requested)) {
      loadSoundSetLocked(lk, s, requested);
    } else {
      stopAllSamplesLocked();
      stopMusicLocked();
      freeSamplesLocked();
    }
  }
  return 0;
}

int SoundEngine::switchToSoundSet(int set) {
  Lock lk(*this);
  return switchToSoundSetLocked(lk, set);
}

int SoundEngine::switchToSoundSetLocked(Lock& lk, int set) {
  const int max = soundSetCount();
  if (set < 1 || set > max) {
    LOG(LEVEL_WARN, "invalid soundset: %d (have %d)", set, max);
    return 1;
  }
  if (set == settings_.soundSet.load()) return 1;
  if (loadingSoundSet_.load()) {
    LOG(LEVEL_WARN, "soundset %d not switched: another set is loading", set);
    return 1;
  }
  SoundSet* target = catalogue_.get(set);
  if (!target) {
    LOG(LEVEL_ERROR, "soundset %d vanished from the catalogue", set);
    return 1;
  }
  LOG(LEVEL_INFO, "switch to soundset: %d", set);
  const int rc = loadSoundSetLocked(lk, target, set);
  if (rc == 2) return 1;  // nothing changed: the old set still plays
  settings_.soundSet.store(set);
  persistSettings();
  return rc == 0 ? 0 : 1;
}

void SoundEngine::cycleSoundSet(int n) {
  Lock lk(*this);
  cycleSoundSetLocked(lk, n);
}

void SoundEngine::cycleSoundSetLocked(Lock& lk, int n) {
  const int max = soundSetCount();
  if (max <= 0) {
    LOG(LEVEL_WARN, "no soundset to switch to");
    return;
  }
  const int music = musicIdPlaying_.load();
  setVolumeInternalLocked(30);
  const int current = settings_.soundSet.load();
  int target = current + n;
  while (target > max) target -= max;
  if (target < 1) target = 1;
  if (target != current) {
    playSystemSoundLocked(&lk, "switching-soundset.ogg", 1);
    switchToSoundSetLocked(lk, target);
  }
  setVolumeLocked(settings_.volume.load());
  if (music > 0) handleSoundLocked(music, -1, -1);
}

int SoundEngine::loadSoundSet(SoundSet* set, int number) {
  Lock lk(*this);
  return loadSoundSetLocked(lk, set, number);
}

// Dispatch ignores commands while loadingSoundSet is raised; the engine lock is let go
// only while a prompt plays, and nothing is kept across those waits but the set's
// catalogue record.
int SoundEngine::loadSoundSetLocked(Lock& lk, SoundSet* set, int number) {
  if (!set) {
    LOG(LEVEL_ERROR, "no soundset %d to load", number);
    return 1;
  }
  if (!isDirectory(set->basedir) && !fileExists(set->basedir)) {
    LOG(LEVEL_ERROR, "soundset %d '%s' is gone: %s", number, set->name.c_str(), set->basedir.c_str());
    return 2;
  }
  if (loadingSoundSet_.exchange(1)) {
    LOG(LEVEL_WARN, "soundset %d not loaded: another set is loading", number);
    return 2;
  }
  stopAllSamplesLocked();
  haltMusicStream();
  freeMusic();
  pausedMusicId_ = 0;
  setMusicIdPlaying(0);
  freeSamplesLocked();
  currentSetNumber_ = number;
  currentSetType_ = set->type;
  currentSetBasedir_ = set->basedir;
  set->samples.clear();
  LOG(LEVEL_INFO, "loading soundset %d '%s' from %s", number, set->name.c_str(), set->basedir.c_str());
  if (index_.initSamples(*set, copyMapping_ ? 1 : 0) != 0) {
    LOG(LEVEL_ERROR, "soundset %d '%s' could not be loaded", number, set->name.c_str());
    loadingSoundSet_.store(0);
    playSystemSoundLocked(&lk, "config-missing.ogg", 1);
    return 1;
  }
  // A set without configuration keeps the type tables: ducking follows them too.
  index_.setupDuckingConfig();
  int preloads = 0;
  for (auto& node : index_.samplesMap()) {
    AudioSample* s = node.value.get();
    if (!s) continue;
    s->isplayingonchannel = AudioSample::kNotPlaying;
    s->syncChunks();
    if (s->preload && !s->samples.empty()) preloads++;
  }
  if (preloads > 0 && deviceOpen_) {
    if (settings_.sayPreload) playSystemSoundWithOverrideLocked(&lk, "preloading.ogg", 1, set->basedir.c_str());
    // Waiting released the lock: walk the ids afresh, the records are the index's.
    int done = 0;
    for (unsigned id : index_.samplesMap().keys()) {
      AudioSample* s = index_.getSampleForId(id);
      if (!s || !s->preload || s->samples.empty()) continue;
      loadSampleLocked(static_cast<int>(id));
      done++;
    }
    LOG(LEVEL_INFO, "preloaded %d samples, pool used: %s", done, readableSize(bytesUsedForLoadedSamples_).c_str());
    if (settings_.sayPreload) playSystemSoundWithOverrideLocked(&lk, "click.ogg", 1, set->basedir.c_str());
  }
  LOG(LEVEL_INFO, "soundset %d loaded: %d sounds, ducking %s", number, index_.samplesMap().mapSize(),
      index_.duckingIsActive() ? "on" : "off");
  loadingSoundSet_.store(0);
  if (announceSoundSet_ && deviceOpen_) {
    playSystemSoundWithOverrideLocked(&lk, "soundset.ogg", 1, set->basedir.c_str());
    playSystemSoundLocked(&lk, strFormat("%d.ogg", number).c_str(), 1);
    playSystemSoundWithOverrideLocked(&lk, "ready.ogg", 1, set->basedir.c_str());
  }
  return 0;
}

}  // namespace korvo
