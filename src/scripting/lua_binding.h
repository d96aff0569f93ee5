// The embedded Lua 5.2 interpreter: one state for the whole daemon, the functions it
// offers scripts (sound, outputs, video), the globals `version` and `config`, the
// capture of `print` into the print buffer, and the entry points that run "init.lua",
// web commands, sample command strings and the UDP event handler.
//
// Threads and locks: the state is used from the main thread (start script), the HTTP
// thread (/playCommand) and the event thread (eventHandler); one recursive Lua mutex
// serialises every use. Lock order: Lua mutex -> engine mutex -> engine side effects.
// The engine runs its Lua hooks (post, postGlobal) after releasing its lock, possibly
// while another thread holds the Lua mutex and waits for the engine: those hooks
// therefore never block. They run the work at once when the state is free (or already
// held by the calling thread), else queue it for the thread that holds the state,
// which runs it before letting go. A script that runs past the time limit is ended by
// an instruction-count hook with a "lua error" line.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/settings.h"
#include "scripting/print_buffer.h"

struct lua_State;

namespace korvo {

class Bus;
class SoundEngine;
class VideoPlayer;

class LuaBinding {
 public:
  static constexpr unsigned kDefaultTimeLimitMs = 2000;
  // Work queued for a busy state beyond this is dropped with an ERROR line.
  static constexpr std::size_t kMaxPending = 256;
  using Handler = std::function<void(const std::string& event)>;

  explicit LuaBinding(Settings& s = settings);
  ~LuaBinding();  // lua_exit()
  LuaBinding(const LuaBinding&) = delete;
  LuaBinding& operator=(const LuaBinding&) = delete;

  // What the functions act on. Any may be absent (null): the function then logs an
  // ERROR line and does nothing. Set from any thread at any time; not owned.
  void setEngine(SoundEngine* e) { engine_.store(e); }
  void setBus(Bus* b) { bus_.store(b); }
  void setVideo(VideoPlayer* v) { video_.store(v); }
  // Scripts running longer than this are ended (default 2000 ms on the platform clock).
  void setTimeLimitMs(unsigned ms) { timeLimitMs_.store(ms); }

  // Creates the state with the standard libraries (os.exit removed), the functions and
  // the globals `version` and `config` (from `catalogue`). 0, or -1 with an ERROR line.
  int lua_init(const SettingsCatalogue& catalogue);
  // Closes the state ("lua_exit"); later runs do nothing.
  void lua_exit();
  // Each returns 0, or 1 after logging ERROR "lua error: %s" (a missing file included).
  int lua_runfile(const std::string& path);
  int lua_run(const std::string& text);
  // Errors go into the print buffer instead of the log.
  int lua_run_with_debug(const std::string& text);
  // When init.lua defined a global function `eventHandler`, hands a handler that calls
  // it to `addEventHandler`. True when one was registered.
  bool lua_register_eventcallback(const std::function<void(Handler)>& addEventHandler);
  // Calls `eventHandler(text)`; errors are ignored.
  void event_callback_handler(const std::string& text);
  void lua_setglobal_string(const char* name, const std::string& value);
  void lua_setglobal_int(const char* name, int value);

  // The engine's hooks: never block (see above).
  void post(const std::string& chunk);
  void postGlobalInt(const char* name, int value);

  PrintBuffer& printBuffer() { return print_; }
  std::vector<std::string> lua_get_print_buffer() const { return print_.lines(); }
  void lua_reset_output() { print_.reset(); }
  static bool luaAvailable() { return true; }
  bool running() const;

  // ---- used by the script functions (Lua mutex held) ----
  SoundEngine* engine() const { return engine_.load(); }
  Bus* bus() const { return bus_.load(); }
  VideoPlayer* video() const { return video_.load(); }
  Settings& settingsRef() { return settings_; }
  // One printed line: into the log and the print buffer.
  void printLine(const std::string& line);
  // The instruction-count hook's check; true once the running script is past the limit.
  bool overTime() const;

 private:
  using Work = std::function<void(lua_State*)>;
  struct StateClose {
    void operator()(lua_State* L) const noexcept;
  };

  // Runs `work` with the state held; with depth 0 it is a new script for the time limit.
  void withState(const Work& work);
  void enter();
  void leave();
  // Runs queued work if the state can be had without waiting.
  void drainPending();
  void enqueue(Work work);
  int runLoaded(lua_State* L, int loadStatus, bool toPrintBuffer);

  Settings& settings_;
  PrintBuffer print_;
  std::atomic<SoundEngine*> engine_{nullptr};
  std::atomic<Bus*> bus_{nullptr};
  std::atomic<VideoPlayer*> video_{nullptr};
  std::atomic<unsigned> timeLimitMs_{kDefaultTimeLimitMs};

  mutable std::recursive_mutex luaMutex_;  // the Lua mutex: guards everything below
  std::unique_ptr<lua_State, StateClose> luaVM_;
  unsigned long luaVMstartTime_ = 0;
  int depth_ = 0;              // nesting of runs on the holding thread
  unsigned long runStart_ = 0; // millis() when the outermost run began

  std::mutex pendingMutex_;  // guards pending_; a leaf lock
  std::deque<Work> pending_;
};

// "fade_sfx" -> "fadeSfx": each '_' followed by a character is dropped and that
// character upper-cased; a trailing '_' is dropped.
std::string toCamelCase(const std::string& name);

}  // namespace korvo
