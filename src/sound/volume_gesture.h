// The volume-zero gesture: the machine's volume command of value 0 given several times
// in a row steps through the sound sets (five times: shuffle mode). A burst ends after
// 800 ms without another zero; whatever its count, the gesture is idle again then, so
// a stray zero is never added to one that comes minutes later.
//
// Threads: `count` on the bus capture threads, `poll` on the main loop; a short mutex of
// its own, skipped by `poll` while the gesture is idle.
#pragma once

#include <atomic>
#include <mutex>

namespace korvo {

class VolumeZeroGesture {
 public:
  static constexpr unsigned kQuietMs = 800;

  // One volume command of value 0 at `now` (DEBUG "count vol null %d").
  void count(unsigned now);
  // The count of a burst that has ended by `now` (0 while none has); the gesture is
  // idle afterwards.
  int poll(unsigned now);
  // Zeros counted in the burst under way.
  int pending() const;

 private:
  mutable std::mutex m_;
  int count_ = 0;
  unsigned last_ = 0;
  std::atomic<bool> active_{false};
};

}  // namespace korvo
