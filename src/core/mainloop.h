// The state of the 1 kHz main loop: whether it keeps running, when it must stop and
// with which exit code. The loop body itself belongs to the owner object, which
// knows the subsystems it drives.
//
// Threads: the loop runs on the main thread. stopMainLoop is called from HTTP
// handlers, intHandler from a signal handler; all fields are lock-free atomics.
#pragma once

#include <atomic>

namespace korvo {

class MainLoop {
 public:
  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  bool keepRunning() const { return sKeepRunning_.load(std::memory_order_relaxed) != 0; }
  void quit() { sKeepRunning_.store(0, std::memory_order_relaxed); }
  // The loop ends at the first iteration whose millis() is past now + delayMs;
  // exit code 2 also reboots the machine after shutdown.
  void stopMainLoop(int delayMs, int code);
  int exitCode() const { return exitCode_.load(std::memory_order_relaxed); }
  void setExitCode(int code) { exitCode_.store(code, std::memory_order_relaxed); }
  unsigned long stopAt() const { return stopAt_.load(std::memory_order_relaxed); }

  // First thing in an iteration: clears keepRunning once the stop time has passed (the
  // current iteration still completes).
  void checkStopTime(unsigned long now);
  // Sleeps to the next whole millisecond of the microsecond clock (1..1000 us), so
  // iterations align to millisecond boundaries.
  static void sleepToNextMillisecond();

  // SIGINT/SIGTERM end the loop of the most recently installed MainLoop, so
  // shutdown runs in order (systemd stops services with SIGTERM).
  void installSignalHandlers();
  static void intHandler(int sig);

 private:
  // Lock-free so the signal handler may store to it.
  static_assert(std::atomic<int>::is_always_lock_free);
  std::atomic<int> sKeepRunning_{1};
  std::atomic<unsigned long> stopAt_{0};
  std::atomic<int> exitCode_{0};
};

// Returns the loop that intHandler stops (null when none is installed).
MainLoop* activeMainLoop();

}  // namespace korvo
