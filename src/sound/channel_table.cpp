#include "sound/channel_table.h"

#include <SDL2/SDL_mixer.h>

namespace korvo {

ChannelTable::ChannelTable(const std::atomic<uint64_t>& framesMixed) : framesMixed_(framesMixed) {
  for (int i = 0; i < kMixChannels; i++) {
    id_[i].store(kChannelIdle);
    gen_[i].store(0);
    onsetPending_[i].store(false);
  }
}

unsigned ChannelTable::id(int ch) const {
  if (ch < 0 || ch >= kMixChannels) return kChannelIdle;
  return id_[ch].load(std::memory_order_acquire);
}

bool ChannelTable::isPlaying(unsigned id) const {
  for (int ch = 0; ch < kMixChannels; ch++)
    if (id_[ch].load(std::memory_order_acquire) == id) return true;
  return false;
}

uint32_t ChannelTable::generation(int ch) const {
  if (ch < 0 || ch >= kMixChannels) return 0;
  return gen_[ch].load(std::memory_order_acquire);
}

// Choosing the channel here rather than letting the mixer pick means the table is
// written before the sample can finish.
int ChannelTable::findChannelFor(int own, unsigned id) const {
  if (own >= 0 && own < kMixChannels && id_[own].load(std::memory_order_acquire) == id) return own;
  for (int ch = 0; ch < kMixChannels; ch++) {
    if (!Mix_Playing(ch)) return ch;
  }
  return -1;
}

void ChannelTable::attachOnsetEffect(int ch) {
  Mix_UnregisterEffect(ch, &ChannelTable::onsetEffect);
  Mix_RegisterEffect(ch, &ChannelTable::onsetEffect, nullptr, this);
}

void ChannelTable::beginPlay(int ch, unsigned id) {
  onsetPending_[ch].store(true, std::memory_order_release);
  gen_[ch].fetch_add(1, std::memory_order_acq_rel);
  id_[ch].store(id, std::memory_order_release);
}

void ChannelTable::abortPlay(int ch) {
  id_[ch].store(kChannelIdle, std::memory_order_release);
  onsetPending_[ch].store(false, std::memory_order_release);
}

unsigned ChannelTable::finish(int ch, uint32_t* generation) {
  const unsigned id = id_[ch].exchange(kChannelIdle, std::memory_order_acq_rel);
  *generation = gen_[ch].load(std::memory_order_acquire);
  return id;
}

unsigned ChannelTable::clear(int ch) { return id_[ch].exchange(kChannelIdle, std::memory_order_acq_rel); }

void ChannelTable::clearAll() {
  for (int ch = 0; ch < kMixChannels; ch++) id_[ch].store(kChannelIdle, std::memory_order_release);
}

void ChannelTable::setOnsetObserver(OnsetObserver fn, void* user) {
  observerUser_.store(user, std::memory_order_release);
  observer_.store(fn, std::memory_order_release);
}

// Registered on a channel just before a sample starts there; the first mixing pass
// that includes the sample records the frame counter (frames mixed before this pass).
void ChannelTable::onsetEffect(int chan, void*, int, void* udata) {
  auto* t = static_cast<ChannelTable*>(udata);
  if (chan < 0 || chan >= kMixChannels) return;
  if (!t->onsetPending_[chan].exchange(false, std::memory_order_acq_rel)) return;
  OnsetObserver fn = t->observer_.load(std::memory_order_acquire);
  if (fn)
    fn(t->observerUser_.load(std::memory_order_acquire), t->id_[chan].load(std::memory_order_acquire), chan,
       t->framesMixed_.load(std::memory_order_acquire));
}

}  // namespace korvo
