// The set switcher: the catalogue of installed sound sets, the load of one set (index,
// type gains and ducking from its configuration, preloads, the spoken announcement),
// switching, cycling and removal.
//
// Threads: engine mutex held for every call. Its prompts are queued, never waited for:
// the caller (the main loop, the service thread, HTTP) returns at once.
#pragma once

#include <atomic>
#include <functional>
#include <string>

#include "sound/engine_context.h"
#include "soundsets/catalogue.h"

namespace korvo {

class AudioOutput;
class MusicPlayer;
class PromptPlayer;
class SamplePool;

class SetSwitcher {
 public:
  // Engine work a switch needs beyond the parts it holds.
  struct Actions {
    std::function<void()> stopAllSamples;
    std::function<void()> persistSettings;
    std::function<void()> restoreVolume;       // the stream back at the master volume
    std::function<void(int id)> replayMusic;   // music `id` of the new set, after the prompts
  };

  SetSwitcher(EngineContext& ctx, const AudioOutput& out, SamplePool& pool, MusicPlayer& music,
              PromptPlayer& prompts, Actions actions);
  SetSwitcher(const SetSwitcher&) = delete;
  SetSwitcher& operator=(const SetSwitcher&) = delete;

  SoundSetCatalogue& catalogue() { return catalogue_; }
  void setBaseDir(std::string dir) { baseDir_ = std::move(dir); }
  const std::string& baseDir() const { return baseDir_; }
  int currentSetNumber() const { return currentSetNumber_; }
  int loading() const { return loading_.load(std::memory_order_acquire); }
  void setCopyMapping(bool on) { copyMapping_ = on; }
  void setAnnounce(bool on) { announce_ = on; }

  // See SoundEngine for the contracts of these.
  int start(const std::string& baseDir);
  int search();
  int remove(int number);
  int switchTo(int set);
  void cycle(int n);
  int load(SoundSet* set, int number);

 private:
  int count() const { return catalogue_.maxSoundSets; }
  void unloadCurrent(SoundSet* next, int number);
  void preload(const SoundSet* set);
  void announce(const SoundSet* set, int number);

  EngineContext& ctx_;
  const AudioOutput& out_;
  SamplePool& pool_;
  MusicPlayer& music_;
  PromptPlayer& prompts_;
  Actions actions_;
  SoundSetCatalogue catalogue_;
  std::string baseDir_;
  int currentSetNumber_ = 0;
  bool announce_ = true;
  bool copyMapping_ = false;
  std::atomic<int> loading_{0};
};

}  // namespace korvo
