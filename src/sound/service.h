// The sound service request ring: every producer (bus capture threads, the main loop,
// the keyboard, the mixer's finished hooks on the audio thread) posts a request here;
// the one service thread "SndService" takes them in order and runs the engine
// operation.
//
// Concurrency: one mutex guards the ring (index advance, take, the TRACE line); the
// condition variable is signalled once per post, after the mutex is released. The
// ring never takes the engine mutex, so the mixer's hooks may post while the mixer
// holds its own lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "core/queue.h"

namespace korvo {

enum ServiceType : int32_t {
  DONE = 0,
  CHANNEL_FINISHED = 1,
  MUSIC_FINISHED = 2,
  MUSIC_STARTING = 3,
  SET_VOLUME = 4,
  SWITCH_SOUNDSET = 5,
  HANDLE_SND_CMD = 6,
  STOP_ALL = 7,
  TERM_SERVICE_THREAD = 8,
};
constexpr int kServiceTypeCount = 9;
extern const char* const serviceTypeNames[kServiceTypeCount];
// The type's name for log lines; "?" outside 0..8.
const char* serviceTypeName(int type);

struct SoundServiceRequest {
  int32_t type = DONE;          // ServiceType
  int32_t channelNumber = 0;    // CHANNEL_FINISHED: mixer channel 0..10
  int32_t id = 0;               // command id, sample id or sound set step, by type
  int32_t volume = -1;          // SET_VOLUME: volume; HANDLE_SND_CMD: override (-1 none)
  int32_t requestId = 0;        // serial number, for log lines only
  // CHANNEL_FINISHED: the channel's play generation when it finished. A report for a
  // channel that has been restarted since carries an older generation.
  uint32_t generation = 0;
};

// A ring of 40 slots (39 pending requests). Posting the 40th request while none was
// taken overruns the ring: it then reads as empty and every pending request is lost
// (logged at WARN); later posts start a fresh fill. The hooks' posts never empty it: a
// hook that finds it full drops its own request and counts it. With one consumer draining in
// microseconds this does not happen in practice, and a stale backlog of bus commands
// is worth less than the commands that follow it.
class RequestRing {
 public:
  static constexpr int kQueueSize = 40;

  RequestRing() : queue_(kQueueSize - 1) {}
  RequestRing(const RequestRing&) = delete;
  RequestRing& operator=(const RequestRing&) = delete;

  // A fresh request of `type`, stamped with the next request id. The caller fills the
  // fields it needs and posts it with queuePut. Any thread, no lock.
  SoundServiceRequest buildRequest(ServiceType type);
  // Posts a request (TRACE "put req to queue: ..."). In the I/O test mode the request
  // is logged and dropped.
  void queuePut(const SoundServiceRequest& req);
  // Posts from the mixer's hooks (audio thread, mixer lock held): no log line, no
  // stdio. A full ring drops this request and counts it; false then.
  bool postFromHook(const SoundServiceRequest& req);
  // Requests of the hooks dropped since the last call (the service thread logs them).
  int takeHookOverruns() { return hookOverruns_.exchange(0, std::memory_order_acq_rel); }
  // Takes the next request into *req: if none is pending, waits once, at most
  // `timeoutInMicros` (negative: without limit), and tries again. 1 when a request was
  // taken, 0 for a wake-up without work.
  int queueGet(SoundServiceRequest* req, int timeoutInMicros);
  int queueIsEmpty() const;
  int pending() const;

  void setTestIOonly(bool on) { testIOonly_.store(on, std::memory_order_relaxed); }

 private:
  mutable std::mutex queueMutex_;
  std::condition_variable queueCond_;
  Queue<SoundServiceRequest> queue_;  // guarded by queueMutex_
  std::atomic<int32_t> requestId_{0};
  std::atomic<bool> testIOonly_{false};
  std::atomic<int> hookOverruns_{0};
};

}  // namespace korvo
