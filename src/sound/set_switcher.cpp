#include "sound/set_switcher.h"

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "sound/audio_output.h"
#include "sound/music_player.h"
#include "sound/prompt_player.h"
#include "sound/sample_pool.h"
#include "sound/sdl_sound.h"

namespace korvo {

SetSwitcher::SetSwitcher(EngineContext& ctx, const AudioOutput& out, SamplePool& pool, MusicPlayer& music,
                         PromptPlayer& prompts, Actions actions)
    : ctx_(ctx), out_(out), pool_(pool), music_(music), prompts_(prompts), actions_(std::move(actions)) {}

int SetSwitcher::start(const std::string& baseDir) {
  if (!baseDir.empty()) baseDir_ = baseDir;
  catalogue_.searchSoundSets(baseDir_);
  const int max = catalogue_.maxSoundSets;
  SoundHooks& hooks = ctx_.hooks;
  if (max == 0) {
    prompts_.play("no-soundset.ogg");
    if (hooks.showDisplayLine) ctx_.defer([&hooks] { hooks.showDisplayLine(0, 24, "NO SOUND FOUND"); });
    prompts_.play("please-install-sound.ogg");
    ctx_.index.clearSamples();
    return 0;
  }
  if (hooks.showDisplayLine)
    ctx_.defer([&hooks, max] { hooks.showDisplayLine(0, 24, strFormat("SOUNDSETS: %d", max)); });
  const int set = catalogue_.clampIndex(ctx_.settings.soundSet.load());
  ctx_.settings.soundSet.store(set);
  LOG(LEVEL_INFO, "max soundsets: %d", max);
  load(catalogue_.get(set), set);
  return max;
}

int SetSwitcher::search() {
  catalogue_.searchSoundSets(baseDir_);
  return catalogue_.maxSoundSets;
}

int SetSwitcher::remove(int number) {
  if (loading_.load()) {
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
    ctx_.settings.soundSet.store(requested);
    actions_.persistSettings();
    if (SoundSet* s = catalogue_.get(requested)) {
      load(s, requested);
    } else {
      actions_.stopAllSamples();
      music_.stop();
      pool_.freeAll();
    }
  }
  return 0;
}

int SetSwitcher::switchTo(int set) {
  const int max = count();
  if (set < 1 || set > max) {
    LOG(LEVEL_WARN, "invalid soundset: %d (have %d)", set, max);
    return 1;
  }
  if (set == ctx_.settings.soundSet.load()) return 1;
  if (loading_.load()) {
    LOG(LEVEL_WARN, "soundset %d not switched: another set is loading", set);
    return 1;
  }
  SoundSet* target = catalogue_.get(set);
  if (!target) {
    LOG(LEVEL_ERROR, "soundset %d vanished from the catalogue", set);
    return 1;
  }
  LOG(LEVEL_INFO, "switch to soundset: %d", set);
  const int rc = load(target, set);
  if (rc == 2) return 1;  // nothing changed: the old set still plays
  ctx_.settings.soundSet.store(set);
  actions_.persistSettings();
  return rc == 0 ? 0 : 1;
}

void SetSwitcher::cycle(int n) {
  const int max = count();
  if (max <= 0) {
    LOG(LEVEL_WARN, "no soundset to switch to");
    return;
  }
  const int music = music_.idPlaying();
  music_.setStreamVolume(30);
  const int current = ctx_.settings.soundSet.load();
  int target = current + n;
  while (target > max) target -= max;
  if (target < 1) target = 1;
  if (target != current) {
    prompts_.play("switching-soundset.ogg");
    switchTo(target);
  }
  actions_.restoreVolume();
  if (music > 0) actions_.replayMusic(music);
}

// Drops everything of the loaded set; a prompt on the stream plays on.
void SetSwitcher::unloadCurrent(SoundSet* next, int number) {
  actions_.stopAllSamples();
  music_.release();
  music_.forgetPaused();
  music_.setIdPlaying(0);
  pool_.freeAll();
  currentSetNumber_ = number;
  pool_.setSource(next->type, next->basedir);
}

// Dispatch ignores commands while `loading` is raised.
int SetSwitcher::load(SoundSet* set, int number) {
  if (!set) {
    LOG(LEVEL_ERROR, "no soundset %d to load", number);
    return 1;
  }
  if (!isDirectory(set->basedir) && !fileExists(set->basedir)) {
    LOG(LEVEL_ERROR, "soundset %d '%s' is gone: %s", number, set->name.c_str(), set->basedir.c_str());
    return 2;
  }
  if (loading_.exchange(1)) {
    LOG(LEVEL_WARN, "soundset %d not loaded: another set is loading", number);
    return 2;
  }
  unloadCurrent(set, number);
  set->samples.clear();
  LOG(LEVEL_INFO, "loading soundset %d '%s' from %s", number, set->name.c_str(), set->basedir.c_str());
  if (ctx_.index.initSamples(*set, copyMapping_ ? 1 : 0) != 0) {
    LOG(LEVEL_ERROR, "soundset %d '%s' could not be loaded", number, set->name.c_str());
    loading_.store(0);
    prompts_.play("config-missing.ogg");
    return 1;
  }
  // A set without configuration keeps the type tables: ducking follows them too.
  ctx_.index.setupDuckingConfig();
  preload(set);
  LOG(LEVEL_INFO, "soundset %d loaded: %d sounds, ducking %s", number, ctx_.index.samplesMap().mapSize(),
      ctx_.index.duckingIsActive() ? "on" : "off");
  loading_.store(0);
  announce(set, number);
  return 0;
}

void SetSwitcher::preload(const SoundSet* set) {
  int preloads = 0;
  for (auto& node : ctx_.index.samplesMap()) {
    AudioSample* s = node.value.get();
    if (!s) continue;
    s->isplayingonchannel = AudioSample::kNotPlaying;
    s->syncChunks();
    if (s->preload && !s->samples.empty()) preloads++;
  }
  if (preloads == 0 || !out_.isOpen()) return;
  if (ctx_.settings.sayPreload) prompts_.playWithOverride("preloading.ogg", set->basedir.c_str());
  int done = 0;
  for (unsigned id : ctx_.index.samplesMap().keys()) {
    AudioSample* s = ctx_.index.getSampleForId(id);
    if (!s || !s->preload || s->samples.empty()) continue;
    pool_.load(static_cast<int>(id));
    done++;
  }
  LOG(LEVEL_INFO, "preloaded %d samples, pool used: %s", done, readableSize(pool_.bytesUsed()).c_str());
  if (ctx_.settings.sayPreload) prompts_.playWithOverride("click.ogg", set->basedir.c_str());
}

void SetSwitcher::announce(const SoundSet* set, int number) {
  if (!announce_ || !out_.isOpen()) return;
  prompts_.playWithOverride("soundset.ogg", set->basedir.c_str());
  prompts_.play(strFormat("%d.ogg", number).c_str());
  prompts_.playWithOverride("ready.ogg", set->basedir.c_str());
}

}  // namespace korvo
