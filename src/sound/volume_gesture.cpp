#include "sound/volume_gesture.h"

#include "base/log.h"

namespace korvo {

void VolumeZeroGesture::count(unsigned now) {
  int n;
  {
    std::lock_guard lk(m_);
    n = ++count_;
    last_ = now;
    active_.store(true, std::memory_order_release);
  }
  LOG(LEVEL_DEBUG, "count vol null %d", n);
}

int VolumeZeroGesture::poll(unsigned now) {
  if (!active_.load(std::memory_order_acquire)) return 0;
  std::lock_guard lk(m_);
  // Signed: a zero counted on another thread just after `now` was read is not old.
  if (static_cast<int>(now - last_) <= static_cast<int>(kQuietMs)) return 0;
  const int n = count_;
  count_ = 0;
  active_.store(false, std::memory_order_release);
  return n;
}

int VolumeZeroGesture::pending() const {
  std::lock_guard lk(m_);
  return count_;
}

}  // namespace korvo
