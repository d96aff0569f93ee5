// The CPU share of a child process's main thread, read from the kernel's schedstat, for the
// benchmarks that compare the daemon's main loop with an idle one.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "base/handles.h"

namespace korvo::bench {

inline unsigned long long threadRunNs(pid_t pid, pid_t tid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/schedstat");
  unsigned long long ns = 0;
  in >> ns;
  return ns;
}

// CPU seconds per second of the child's main thread over `seconds`, after a warm-up; then
// the child is ended with SIGTERM. A child that is gone before the end measured nothing:
// the benchmark says so and exits instead of printing 0.
inline double mainThreadCpu(pid_t pid, int seconds, int warmupSeconds = 1) {
  std::this_thread::sleep_for(std::chrono::seconds(warmupSeconds));
  const unsigned long long a = threadRunNs(pid, pid);
  const auto t0 = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const unsigned long long b = threadRunNs(pid, pid);
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) == pid) {
    fprintf(stderr, "measured process %d ended early (status 0x%x)\n", pid, status);
    exit(1);
  }
  kill(pid, SIGTERM);
  waitpid(pid, &status, 0);
  return static_cast<double>(b - a) / 1e9 / wall;
}

// Starts the daemon `exe` on the sim bus and SDL's silent driver, in `base` with its
// output thrown away and the web service off: the main loop with nothing to do.
inline pid_t startQuietDaemon(const std::string& exe, const std::string& base) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(base.c_str()) != 0) _exit(126);
    Fd devnull(open("/dev/null", O_WRONLY));
    dup2(devnull.get(), 1);
    dup2(devnull.get(), 2);
    setenv("KORVO_GPIO", "sim", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    execl(exe.c_str(), exe.c_str(), "-a", "-l", "1", base.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

}  // namespace korvo::bench
