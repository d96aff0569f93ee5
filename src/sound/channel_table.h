// The channel table: which command id plays on each of the eleven mixer channels, each
// channel's play generation, and the pending onset of a sample just started there.
//
// Threads: lock-free. Plays begin under the engine mutex; the mixer's channel-finished
// hook clears entries on the audio thread (or inside our own Mix_HaltChannel); any
// thread may read. The onset effect runs on the audio thread and only loads atomics.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace korvo {

constexpr int kMixChannels = 11;
constexpr unsigned kChannelIdle = 0xFFFFFFFFu;

// Called on the audio thread at the mixing pass that starts a sample (only atomics
// and plain stores may happen there). For measurements.
using OnsetObserver = void (*)(void* user, unsigned id, int channel, uint64_t frame);

class ChannelTable {
 public:
  // `framesMixed` is the device's frame counter, read when an onset is reported.
  explicit ChannelTable(const std::atomic<uint64_t>& framesMixed);
  ChannelTable(const ChannelTable&) = delete;
  ChannelTable& operator=(const ChannelTable&) = delete;

  // The id playing on channel ch, kChannelIdle when idle or out of range.
  unsigned id(int ch) const;
  bool isPlaying(unsigned id) const;
  uint32_t generation(int ch) const;

  // The sample's own channel `own` when `id` still plays there (a restart), else the
  // first channel the mixer reports free; -1 when all are busy. Engine mutex held.
  int findChannelFor(int own, unsigned id) const;
  // Just before the mixer starts `id` on `ch`: the onset is armed, the channel gets a
  // new generation and the id. Engine mutex held.
  void beginPlay(int ch, unsigned id);
  // Registers the onset effect on mixer channel `ch` (device open, engine mutex held).
  void attachOnsetEffect(int ch);
  // The mixer refused the play begun on `ch`.
  void abortPlay(int ch);
  // Channel-finished hook: clears the entry first (so ducking recomputed for this report
  // already excludes it) and returns the id that played and its generation.
  unsigned finish(int ch, uint32_t* generation);
  // Clears one entry, returning what it held (stopping everything).
  unsigned clear(int ch);
  void clearAll();

  void setOnsetObserver(OnsetObserver fn, void* user);

 private:
  static void onsetEffect(int chan, void* stream, int len, void* udata);

  const std::atomic<uint64_t>& framesMixed_;
  std::array<std::atomic<unsigned>, kMixChannels> id_;
  std::array<std::atomic<uint32_t>, kMixChannels> gen_;
  std::array<std::atomic<bool>, kMixChannels> onsetPending_;
  std::atomic<OnsetObserver> observer_{nullptr};
  std::atomic<void*> observerUser_{nullptr};
};

}  // namespace korvo
