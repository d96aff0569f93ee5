// What every part of the engine shares: the settings record, the loaded set's index,
// the hooks out of the engine and the queue of work that runs after the engine lock is
// released. All of it is guarded by the engine mutex.
#pragma once

#include <functional>
#include <utility>
#include <vector>

#include "core/settings.h"
#include "sound/hooks.h"
#include "soundsets/sample_index.h"

namespace korvo {

struct EngineContext {
  Settings& settings;
  SampleIndex& index;
  SoundHooks& hooks;
  std::vector<std::function<void()>> deferred;

  // Queues work to run, in order, right after the engine lock is released.
  void defer(std::function<void()> fn) { deferred.push_back(std::move(fn)); }
  AudioSample* sample(int id) { return index.getSampleForId(static_cast<unsigned>(id)); }
};

// master + gain + type gain - 100 (or master + override - 50), clamped to 1..128: a
// sample is never silenced through gains alone. Engine mutex held.
int volumeForSample(const EngineContext& ctx, const AudioSample* sample, int overrideVol);
// A random variant of the sound (0 when it has one or none).
int chooseVariant(const AudioSample* s);

}  // namespace korvo
