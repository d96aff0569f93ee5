#include "sound/sample_pool.h"

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/stringutil.h"
#include "sound/audio_output.h"
#include "sound/channel_table.h"
#include "sound/sdl_sound.h"
#include "soundsets/streams.h"

namespace korvo {

namespace {
constexpr int kLoadAttempts = 10;
constexpr int kMaxEvictionsPerLoad = 20;
}  // namespace

SamplePool::SamplePool(EngineContext& ctx, const AudioOutput& out, const ChannelTable& channels)
    : ctx_(ctx), out_(out), channels_(channels) {}

void SamplePool::setSource(SoundSet__SoundSetType type, std::string basedir) {
  type_ = type;
  basedir_ = std::move(basedir);
}

RWopsHandle SamplePool::open(const AudioSample* s, int idx) const {
  if (idx < 0 || static_cast<std::size_t>(idx) >= s->samples.size()) return nullptr;
  switch (type_) {
    case XSNDFILE:
      return RWopsHandle(makeCompoundRW(basedir_.c_str(), s, idx));
    case ZIPFILE:
      return RWopsHandle(makeZipRW(basedir_.c_str(), s, idx));
    default:
      return RWopsHandle(SDL_RWFromFile(s->samples[static_cast<std::size_t>(idx)].c_str(), "rb"));
  }
}

void SamplePool::load(int id) {
  AudioSample* s = ctx_.sample(id);
  if (!s || s->samples.empty() || !out_.isOpen()) return;
  s->syncChunks();
  const unsigned long budget = ctx_.settings.samplePoolSizeInByte;
  for (int attempt = 0; attempt < kLoadAttempts; attempt++) {
    LOG(LEVEL_DEBUG, "sample not in RAM, loading %zu samples", s->samples.size());
    bool failed = false;
    for (std::size_t i = 0; i < s->samples.size(); i++) {
      if (s->chunk[i]) continue;  // a retry never decodes or counts a variant twice
      LOG(LEVEL_DEBUG, "sample not in RAM, loading from %s", s->samples[i].c_str());
      RWopsHandle rw = open(s, static_cast<int>(i));
      Mix_Chunk* c = rw ? Mix_LoadWAV_RW(rw.release(), 1) : nullptr;
      if (!c) {
        LOG(LEVEL_ERROR, "could not load sample: %d, '%s', error: %s", id, s->name.c_str(), Mix_GetError());
        failed = true;
        break;
      }
      s->chunk[i].reset(c);
      bytesUsed_ += c->alen;
      LOG(LEVEL_DEBUG, "Loaded sample %d:%zu: len: %s, used: %s", id, i, readableSize(c->alen).c_str(),
          readableSize(bytesUsed_).c_str());
      for (int n = 0; n < kMaxEvictionsPerLoad && bytesUsed_ >= budget; n++) {
        if (!tryToFree(static_cast<unsigned>(id))) break;
        LOG(LEVEL_DEBUG, "Sample Poolsize used/max: %s/%s", readableSize(bytesUsed_).c_str(),
            readableSize(budget).c_str());
      }
    }
    if (!failed) return;
    // Memory may be what failed: make room and try again, unless nothing can go.
    if (!tryToFree(static_cast<unsigned>(id))) return;
  }
}

int SamplePool::tryToFree(unsigned id) {
  LOG(LEVEL_DEBUG, "try To free anything but %u", id);
  AudioSample* victim = nullptr;
  uint32_t best = 0xFFFFFFFFu;
  for (auto& node : ctx_.index.samplesMap()) {
    AudioSample* s = node.value.get();
    if (!s || node.key == id || s->id == id) continue;
    if (!s->isLoaded(0) || s->isplayingonchannel != AudioSample::kNotPlaying) continue;
    if (channels_.isPlaying(node.key)) continue;  // finished report not yet handled
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
    bytesUsed_ = bytesUsed_ >= len ? bytesUsed_ - len : 0;
    victim->chunk[i].reset();
  }
  return 1;
}

void SamplePool::freeAll() {
  ctx_.index.clearSamples();
  bytesUsed_ = 0;
}

void SamplePool::unloadChunks() {
  // Chunks must not outlive the device they were converted for.
  for (auto& node : ctx_.index.samplesMap()) {
    if (node.value) node.value->unloadChunks();
  }
  bytesUsed_ = 0;
}

int SamplePool::countPreloads() const {
  int n = 0;
  for (auto& node : ctx_.index.samplesMap())
    if (node.value && node.value->preload) n++;
  return n;
}

long SamplePool::memoryUsedForSamples() {
  FileHandle f(std::fopen("/proc/self/status", "r"));
  if (!f) return 0;
  char word[1024];
  long result = 0;
  while (std::fscanf(f.get(), " %1023s", word) == 1) {
    if (std::strcmp(word, "RssAnon:") == 0) {
      int kb = 0;
      if (std::fscanf(f.get(), " %d", &kb) == 1 && kb > 0) result = static_cast<long>(kb) * 1024;
      break;
    }
  }
  return result;
}

}  // namespace korvo
