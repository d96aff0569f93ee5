// The sample pool: a sound's variants are decoded on first use (or at set load when
// preloaded) under a byte budget (settings.samplePoolSizeInByte); when the budget is
// exceeded, idle sounds are evicted, never-played preloads first, then the least
// recently used. Also the streams the mixer decodes from, per set layout.
//
// Threads: engine mutex held for every call.
#pragma once

#include <string>

#include "base/handles.h"
#include "sound/engine_context.h"

namespace korvo {

class AudioOutput;
class ChannelTable;

class SamplePool {
 public:
  SamplePool(EngineContext& ctx, const AudioOutput& out, const ChannelTable& channels);
  SamplePool(const SamplePool&) = delete;
  SamplePool& operator=(const SamplePool&) = delete;

  // Where the loaded set's files are read from (a directory, an xsnd container or a zip).
  void setSource(SoundSet__SoundSetType type, std::string basedir);
  // A stream over variant `idx` of the sound, or null.
  RWopsHandle open(const AudioSample* s, int idx) const;

  // Decodes every variant of sound `id` not yet in memory, evicting others to stay in
  // the budget; a failed decode makes room and is tried again, up to ten times.
  void load(int id);
  // Evicts one idle sound other than `id`. 1 when one was evicted, 0 when none could go.
  int tryToFree(unsigned id);
  // Every record and its chunks (the caller has halted the channels).
  void freeAll();
  // Every chunk, records kept (the device is closing).
  void unloadChunks();
  int countPreloads() const;
  unsigned long bytesUsed() const { return bytesUsed_; }

  // Anonymous resident memory of the process ("RssAnon" of /proc/self/status).
  static long memoryUsedForSamples();

 private:
  EngineContext& ctx_;
  const AudioOutput& out_;
  const ChannelTable& channels_;
  unsigned long bytesUsed_ = 0;
  SoundSet__SoundSetType type_ = PINSOUND;
  std::string basedir_;
};

}  // namespace korvo
