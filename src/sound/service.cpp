// The request ring and the sound service thread "SndService".
#include "sound/service.h"

#include <chrono>

#include <SDL2/SDL_thread.h>
#include <pthread.h>
#include <sched.h>

#include "base/log.h"
#include "base/thread.h"
#include "sound/sdl_sound.h"

namespace korvo {

const char* const serviceTypeNames[kServiceTypeCount] = {
    "DONE",           "CHANNEL_FINISHED", "MUSIC_FINISHED", "MUSIC_STARTING",     "SET_VOLUME",
    "SWITCH_SOUNDSET", "HANDLE_SND_CMD",   "STOP_ALL",       "TERM_SERVICE_THREAD",
};

const char* serviceTypeName(int type) {
  return type >= 0 && type < kServiceTypeCount ? serviceTypeNames[type] : "?";
}

// ---- ring ----

SoundServiceRequest RequestRing::buildRequest(ServiceType type) {
  SoundServiceRequest req;
  req.type = type;
  req.requestId = requestId_.fetch_add(1, std::memory_order_relaxed);
  return req;
}

void RequestRing::queuePut(const SoundServiceRequest& req) {
  {
    std::lock_guard lk(queueMutex_);
    LOG(LEVEL_TRACE, "put req to queue: reqId: %d, type: %s, id: %d", req.requestId, serviceTypeName(req.type),
        req.id);
    // The I/O test mode drops work, but the thread can still be told to end.
    if (testIOonly_.load(std::memory_order_relaxed) && req.type != TERM_SERVICE_THREAD) return;
    if (!queue_.queuePut__(req)) {
      // The 40th pending request: the ring wraps onto itself and reads as empty.
      const std::size_t lost = queue_.count() + 1;
      SoundServiceRequest drop;
      while (queue_.queueGet__(drop)) {
      }
      LOG(LEVEL_WARN, "sound request ring overrun, %zu requests lost", lost);
      return;
    }
  }
  queueCond_.notify_one();
}

bool RequestRing::postFromHook(const SoundServiceRequest& req) {
  {
    std::lock_guard lk(queueMutex_);
    if (testIOonly_.load(std::memory_order_relaxed)) return true;
    if (!queue_.queuePut__(req)) {
      hookOverruns_.fetch_add(1, std::memory_order_acq_rel);
      return false;
    }
  }
  queueCond_.notify_one();
  return true;
}

int RequestRing::queueGet(SoundServiceRequest* req, int timeoutInMicros) {
  std::unique_lock lk(queueMutex_);
  bool got = queue_.queueGet__(*req);
  if (!got) {
    if (timeoutInMicros < 0)
      queueCond_.wait(lk);
    else
      queueCond_.wait_for(lk, std::chrono::microseconds(timeoutInMicros));
    got = queue_.queueGet__(*req);
  }
  if (!got) return 0;
  LOG(LEVEL_TRACE, "get req from queue: reqId: %d, type: %s, id: %d", req->requestId, serviceTypeName(req->type),
      req->id);
  return 1;
}

int RequestRing::queueIsEmpty() const {
  std::lock_guard lk(queueMutex_);
  return queue_.empty() ? 1 : 0;
}

int RequestRing::pending() const {
  std::lock_guard lk(queueMutex_);
  return static_cast<int>(queue_.count());
}

// ---- service thread ----

void SoundEngine::startSoundServiceThread() {
  if (serviceThread_.joinable()) return;
  try {
    serviceThread_ = startThread("SndService", [this] { soundServiceHandler(); });
    LOG(LEVEL_INFO, "start sound service thread");
  } catch (const std::system_error& e) {
    LOG(LEVEL_ERROR, "Starting sound service thread failed: %d", e.code().value());
  }
}

void SoundEngine::stopSoundServiceThread() {
  if (!serviceThread_.joinable()) return;
  ring_.queuePut(ring_.buildRequest(TERM_SERVICE_THREAD));
  serviceThread_.join();
}

void SoundEngine::logHookOverruns() {
  if (const int lost = ring_.takeHookOverruns())
    LOG(LEVEL_WARN, "sound request ring full: %d reports of the audio thread lost", lost);
}

void SoundEngine::soundServiceHandler() {
  const int prio = servicePriority_.load();
  if (prio > 0) {
    // Real-time priority keeps a busy board (web uploads, decoding) from delaying the
    // next command past the next mixing pass. The thread blocks between requests.
    sched_param sp{};
    sp.sched_priority = prio;
    const int rc = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp);
    if (rc != 0)
      LOG(LEVEL_WARN, "sound service thread keeps normal priority (SCHED_FIFO %d refused: %d)", prio, rc);
    else
      LOG(LEVEL_INFO, "sound service thread runs at SCHED_FIFO priority %d", prio);
  }
  SoundServiceRequest req;
  for (;;) {
    const int got = ring_.queueGet(&req, 1000000);
    logHookOverruns();
    if (got != 1) continue;
    if (req.type == TERM_SERVICE_THREAD) {
      LOG(LEVEL_INFO, "end sound service thread");
      // SDL keeps per-thread error state for threads it did not create.
      SDL_TLSCleanup();
      return;
    }
    // One bad request must not end the thread that serves every later one.
    runGuarded("sound service request", [&] { doSoundService(req); });
  }
}

void SoundEngine::doSoundService(const SoundServiceRequest& req) {
  switch (req.type) {
    case CHANNEL_FINISHED: {
      Lock lk(*this);
      channelFinishedLocked(req);
      break;
    }
    case MUSIC_FINISHED: {
      // The stream is free: the next queued prompt may start. (The hook itself only
      // posts; waking the prompt player would take a lock on the audio thread.)
      prompts_.onStreamFinished();
      // The hook could not call into Lua from the audio thread; tell it now what plays.
      if (settings_.luaEnabled && hooks_.setLuaGlobal) {
        Lock lk(*this);
        ctx_.defer([this, id = music_.idPlaying()] { hooks_.setLuaGlobal("musicPlayingId", id); });
      }
      break;
    }
    case SET_VOLUME:
      setVolume(req.volume);
      break;
    case SWITCH_SOUNDSET:
      cycleSoundSet(req.id);
      break;
    case HANDLE_SND_CMD:
      // A queued command plays at the sample's own volume: the override is not used.
      handleSoundByType(req.id);
      break;
    case STOP_ALL: {
      Lock lk(*this);
      stopAllSamplesLocked();
      music_.stop();
      break;
    }
    default:
      break;  // DONE, MUSIC_STARTING, unknown values
  }
}

void SoundEngine::channelFinishedLocked(const SoundServiceRequest& req) {
  const int ch = req.channelNumber;
  if (ch < 0 || ch >= kMixChannels) return;
  // A report for an older play of this channel leaves the new play alone.
  const bool current = channels_.generation(ch) == req.generation;
  AudioSample* s = getSampleForId(req.id);
  if (current && s && s->isplayingonchannel == ch) s->isplayingonchannel = AudioSample::kNotPlaying;
  music_.checkDucking(ch);
  if (current && s && !index_.duckingIsActive() && s->type == JINGLE) music_.resume(300);
}

}  // namespace korvo
