// A fixed-capacity ring. One slot always stays empty so that full and empty differ:
// a ring made for n items has n + 1 slots. No lock of its own; the sound request
// ring wraps it in its mutex and condition variable.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace korvo {

template <typename T>
class Queue {
 public:
  explicit Queue(std::size_t capacity) : queue_(capacity + 1) {}

  // 0 when full (the item is not stored), 1 when stored.
  int queuePut__(T item) {
    const std::size_t size = queue_.size();
    if (queueIn_ == (queueOut_ + size - 1) % size) return 0;
    queue_[queueIn_] = std::move(item);
    queueIn_ = (queueIn_ + 1) % size;
    return 1;
  }

  // 0 when empty, 1 when an item was taken.
  int queueGet__(T& item) {
    if (queueIn_ == queueOut_) return 0;
    item = std::move(queue_[queueOut_]);
    queueOut_ = (queueOut_ + 1) % queue_.size();
    return 1;
  }

  bool empty() const { return queueIn_ == queueOut_; }
  std::size_t count() const { return (queueIn_ + queue_.size() - queueOut_) % queue_.size(); }
  std::size_t capacity() const { return queue_.size() - 1; }

 private:
  std::vector<T> queue_;
  std::size_t queueIn_ = 0;
  std::size_t queueOut_ = 0;
};

}  // namespace korvo
