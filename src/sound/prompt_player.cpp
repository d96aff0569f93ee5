#include "sound/prompt_player.h"

#include <SDL2/SDL_thread.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "base/thread.h"
#include "sound/audio_output.h"
#include "sound/music_player.h"

namespace korvo {

namespace {
constexpr std::size_t kCachedPrompts = 24;
constexpr auto kWaitLimit = std::chrono::seconds(60);
// A prompt that never reports its end (a stalled device) is given up after its length
// plus this.
constexpr auto kEndGrace = std::chrono::seconds(2);
}  // namespace

PromptPlayer::PromptPlayer(const AudioOutput& out, MusicPlayer& music) : out_(out), music_(music) {}

PromptPlayer::~PromptPlayer() { stopThread(); }

void PromptPlayer::startThread(RunLocked runLocked) {
  if (thread_.joinable()) return;
  runLocked_ = std::move(runLocked);
  {
    std::lock_guard lk(m_);
    stop_ = false;
  }
  thread_ = korvo::startThread("SndPrompt", [this] {
    run();
    // SDL keeps per-thread error state for threads it did not create.
    SDL_TLSCleanup();
  });
}

void PromptPlayer::stopThread() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lk(m_);
    stop_ = true;
  }
  cv_.notify_all();
  thread_.join();
}

namespace {
constexpr std::chrono::milliseconds kEndPoll{10};
}  // namespace

void PromptPlayer::run() {
  std::unique_lock lk(m_);
  while (!stop_) {
    if (current_ != 0 && music_.promptOnStream()) {
      // The end of a prompt shows in the stream flag, which the audio thread's hook clears
      // without taking any lock; the player looks at it every few milliseconds, and the
      // service thread's report of the end wakes it at once.
      const auto wake = std::min(deadline_, std::chrono::steady_clock::now() + kEndPoll);
      if (cv_.wait_until(lk, wake) == std::cv_status::timeout && current_ != 0 && music_.promptOnStream() &&
          std::chrono::steady_clock::now() >= deadline_) {
        const uint64_t stuck = current_;
        lk.unlock();
        runLocked_([this, stuck] { giveUpLocked(stuck); });
        lk.lock();
      }
      continue;
    }
    if (current_ == 0 && queue_.empty()) {
      cv_.wait(lk);
      continue;
    }
    lk.unlock();
    runLocked_([this] { advanceLocked(); });
    lk.lock();
  }
}

void PromptPlayer::onStreamFinished() {
  // The flag was cleared before this call; taking the mutex orders it with the
  // player thread's check, so the wake-up cannot be lost.
  { std::lock_guard lk(m_); }
  cv_.notify_all();
}

// Retires the prompt that has ended and starts the next one that loads.
void PromptPlayer::advanceLocked() {
  for (;;) {
    Item next;
    {
      std::lock_guard lk(m_);
      if (current_ != 0) {
        if (music_.promptOnStream()) return;
        finished_ = current_;
        current_ = 0;
        currentPath_.clear();
        cv_.notify_all();
      }
      if (queue_.empty()) break;
      next = std::move(queue_.front());
      queue_.pop_front();
      // Current from here on: the player never looks idle between two prompts.
      current_ = next.ticket;
      currentPath_ = next.path;
    }
    if (startLocked(next)) return;
    std::lock_guard lk(m_);
    finished_ = next.ticket;
    current_ = 0;
    currentPath_.clear();
    cv_.notify_all();
  }
  if (onIdle_) onIdle_();
}

bool PromptPlayer::startLocked(const Item& item) {
  if (!out_.isOpen()) return false;
  Mix_Music* m = load(item.path);
  if (!m) return false;
  // The prompt takes the music stream; the set's music ends here.
  music_.haltStream();
  LOG(LEVEL_DEBUG, "play sound: %s", item.path.c_str());
  music_.setPromptOnStream(true);
  if (Mix_PlayMusic(m, 1) != 0) {
    music_.setPromptOnStream(false);
    LOG(LEVEL_ERROR, "play music: %s, %s", item.path.c_str(), Mix_GetError());
    return false;
  }
  const double seconds = Mix_MusicDuration(m);
  const auto length = std::chrono::milliseconds(static_cast<long>((seconds > 0 ? seconds : 10.0) * 1000));
  {
    std::lock_guard lk(m_);
    deadline_ = std::chrono::steady_clock::now() + length + kEndGrace;
  }
  cv_.notify_all();
  return true;
}

void PromptPlayer::giveUpLocked(uint64_t ticket) {
  std::string path;
  {
    std::lock_guard lk(m_);
    if (current_ != ticket) return;
    path = currentPath_;
  }
  LOG(LEVEL_WARN, "system sound %s did not end in time, skipped", path.c_str());
  music_.haltStream();
  music_.setPromptOnStream(false);
  advanceLocked();
}

int PromptPlayer::play(const char* f, uint64_t* ticket) {
  if (!f) return 1;
  LOG(LEVEL_DEBUG, "playSystemSound sound: %s", f);
  if (!out_.enabled() || !out_.isOpen()) return 1;
  if (std::strstr(f, "..")) {
    LOG(LEVEL_ERROR, "sound name is illegal: '%s'", f);
    return 1;
  }
  const std::string path = f[0] == '/' ? std::string(f) : strFormat("%s/%s", soundsDir_.c_str(), f);
  if (!load(path)) return 1;
  LOG(LEVEL_DEBUG, "queue system sound: %s", path.c_str());
  uint64_t t = 0;
  {
    std::lock_guard lk(m_);
    t = ++nextTicket_;
    queue_.push_back(Item{path, t});
  }
  if (ticket) *ticket = t;
  advanceLocked();
  return 0;
}

int PromptPlayer::playWithOverride(const char* name, const char* basePath, uint64_t* ticket) {
  const std::string custom = strFormat("%s/%s", basePath ? basePath : "", name);
  LOG(LEVEL_DEBUG, "looking for custom system sound: '%s'", custom.c_str());
  if (basePath && !std::strstr(name, "..") && fileExists(custom)) return play(custom.c_str(), ticket);
  return play(name, ticket);
}

void PromptPlayer::stop() {
  LOG(LEVEL_DEBUG, "stopping system sound ...");
  {
    std::lock_guard lk(m_);
    queue_.clear();
    current_ = 0;
    currentPath_.clear();
    finished_ = nextTicket_;
  }
  cv_.notify_all();
  // Halt rather than fade: a fading stream blocks the mixer until the fade ends.
  if (music_.promptOnStream()) music_.haltStream();
}

void PromptPlayer::dropAll() {
  stop();
  music_.setPromptOnStream(false);
  cache_.clear();
}

Mix_Music* PromptPlayer::load(const std::string& path) {
  auto it = cache_.find(path);
  if (it != cache_.end()) return it->second.get();
  if (cache_.size() >= kCachedPrompts) trimCache();
  LOG(LEVEL_DEBUG, "load system sound: %s", path.c_str());
  MusicHandle m(Mix_LoadMUS(path.c_str()));
  if (!m) {
    LOG(LEVEL_ERROR, "error loading sound: %s", path.c_str());
    return nullptr;
  }
  return cache_.emplace(path, std::move(m)).first->second.get();
}

// Frees the loaded prompts that neither play nor wait in the queue.
void PromptPlayer::trimCache() {
  std::set<std::string> keep;
  {
    std::lock_guard lk(m_);
    keep.insert(currentPath_);
    for (const Item& i : queue_) keep.insert(i.path);
  }
  for (auto it = cache_.begin(); it != cache_.end();) {
    if (keep.count(it->first))
      ++it;
    else
      it = cache_.erase(it);
  }
}

bool PromptPlayer::waitPlayed(uint64_t ticket) {
  std::unique_lock lk(m_);
  return cv_.wait_for(lk, kWaitLimit, [&] { return finished_ >= ticket || stop_; });
}

bool PromptPlayer::idle() const {
  std::lock_guard lk(m_);
  return current_ == 0 && queue_.empty();
}

int PromptPlayer::queued() const {
  std::lock_guard lk(m_);
  return static_cast<int>(queue_.size());
}

}  // namespace korvo
