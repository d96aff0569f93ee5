#include "soundsets/model.h"

namespace korvo {

const char* const audioTypeNames[kAudioTypeCount] = {"unknown", "music", "sfx", "voice",
                                                     "jingle",  "single", "system"};

AudioType getAudioTypeForString(std::string_view name) {
  for (int i = 0; i < kAudioTypeCount; ++i)
    if (name == audioTypeNames[i]) return static_cast<AudioType>(i);
  return UNKNOWN;
}

const char* audioTypeName(int type) {
  return type >= 0 && type < kAudioTypeCount ? audioTypeNames[type] : audioTypeNames[UNKNOWN];
}

AudioSample::AudioSample(uint32_t forId) : id(forId) {
  samples.reserve(kMaxFiles);
  chunk.reserve(kMaxFiles);
}

void AudioSample::syncChunks() { chunk.resize(samples.size()); }

void AudioSample::unloadChunks() {
  for (auto& c : chunk) c.reset();
}

const std::string& AudioSample::firstPath() const {
  static const std::string empty;
  return samples.empty() ? empty : samples.front();
}

std::unique_ptr<AudioSample> newAudioSampleForId(uint32_t id) { return std::make_unique<AudioSample>(id); }

bool isComposite(const SoundSet* set) { return set != nullptr && set->type == XSNDFILE; }

}  // namespace korvo
