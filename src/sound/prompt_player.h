// The prompt player: spoken system sounds (boot, ready, mode, version, numbers,
// warnings) on the mixer's music stream. Prompts queue and play one after another; a
// prompt never cuts another one, and nobody waits for a prompt unless it asks to.
// A set's own copy of a prompt overrides the built-in one.
//
// Threads and locks: `play`, `stop` and `dropAll` run with the engine mutex held; the
// player's thread "SndPrompt" starts each next prompt through `RunLocked` (the engine
// mutex, taken only for the start, never held while a prompt plays). The player's own
// mutex guards the queue and the tickets; it is innermost (engine mutex -> mixer lock ->
// player mutex) and never held across a Mix_* call. `onStreamFinished` runs on the
// service thread when it takes the music-finished report off the ring (the hook on the
// audio thread takes no lock); a lost report costs at most the prompt's deadline.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "base/handles.h"

namespace korvo {

class AudioOutput;
class MusicPlayer;

class PromptPlayer {
 public:
  // Runs the given work with the engine mutex held.
  using RunLocked = std::function<void(const std::function<void()>&)>;

  PromptPlayer(const AudioOutput& out, MusicPlayer& music);
  ~PromptPlayer();
  PromptPlayer(const PromptPlayer&) = delete;
  PromptPlayer& operator=(const PromptPlayer&) = delete;

  // Where the prompts live ("sounds" relative to the working directory by default).
  void setSoundsDir(std::string dir) { soundsDir_ = std::move(dir); }
  const std::string& soundsDir() const { return soundsDir_; }
  // Runs (engine mutex held) each time the queue has played out.
  void setOnIdle(std::function<void()> fn) { onIdle_ = std::move(fn); }

  // ---- engine mutex held ----
  // Queues prompt `f` (a name in the sounds directory, or an absolute path); it starts
  // at once when nothing else is queued. 0 when queued, 1 when not (audio off, illegal
  // name, load failure). *ticket identifies it for `waitPlayed`.
  int play(const char* f, uint64_t* ticket = nullptr);
  // The same, preferring "<basePath>/<name>" when that file exists.
  int playWithOverride(const char* name, const char* basePath, uint64_t* ticket = nullptr);
  // Halts the prompt that plays and forgets the queue.
  void stop();
  // The device closes: the queue is forgotten and the loaded prompts are freed.
  void dropAll();

  // ---- any thread, engine mutex not held ----
  // Blocks until prompt `ticket` and all before it have played (or were dropped).
  // False when that did not happen within a minute.
  bool waitPlayed(uint64_t ticket);
  bool idle() const;
  // Prompts queued behind the one that plays.
  int queued() const;
  // The music stream has ended (service thread): the next prompt may start.
  void onStreamFinished();

  void startThread(RunLocked runLocked);
  void stopThread();

 private:
  struct Item {
    std::string path;
    uint64_t ticket = 0;
  };
  void run();
  void advanceLocked();
  bool startLocked(const Item& item);
  void giveUpLocked(uint64_t ticket);
  Mix_Music* load(const std::string& path);
  void trimCache();

  const AudioOutput& out_;
  MusicPlayer& music_;
  RunLocked runLocked_;
  std::function<void()> onIdle_;
  std::thread thread_;

  // ---- engine mutex ----
  std::string soundsDir_ = "sounds";
  std::map<std::string, MusicHandle> cache_;  // loaded prompts by path

  // ---- m_ ----
  mutable std::mutex m_;
  std::condition_variable cv_;
  std::deque<Item> queue_;
  uint64_t current_ = 0;  // ticket of the prompt on the stream, 0 none
  std::string currentPath_;
  std::chrono::steady_clock::time_point deadline_;
  uint64_t nextTicket_ = 0;
  uint64_t finished_ = 0;  // every ticket up to this one has played
  bool stop_ = false;
};

}  // namespace korvo
