// CPU used by the idle daemon's main thread against an empty 1 kHz sleep loop, both
// measured in the same run as the scheduler's run time of one thread
// (/proc/<pid>/task/<tid>/schedstat, nanoseconds).
//
// Usage: bench_mainloop [seconds per measurement, default 5]
#include <signal.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "base/handles.h"
#include "platform/clock.h"

namespace {

unsigned long long threadRunNs(pid_t pid, pid_t tid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/schedstat");
  unsigned long long ns = 0;
  in >> ns;
  return ns;
}

// Run time of the child's main thread over `seconds`, after a one-second warm-up.
double measure(pid_t pid, int seconds) {
  std::this_thread::sleep_for(std::chrono::seconds(1));
  unsigned long long a = threadRunNs(pid, pid);
  auto t0 = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  unsigned long long b = threadRunNs(pid, pid);
  double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  // A child that is gone before the end measured nothing: say so instead of printing 0.
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) == pid) {
    fprintf(stderr, "measured process %d ended early (status 0x%x)\n", pid, status);
    exit(1);
  }
  kill(pid, SIGTERM);
  waitpid(pid, &status, 0);
  return static_cast<double>(b - a) / 1e9 / wall;  // CPU seconds per second
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = argc > 1 ? atoi(argv[1]) : 5;
  // The daemon of the same build tree: <build>/src/app/korvo beside <build>/bench/, found
  // from this program's own file, however it was started.
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  const std::string exe = (self.parent_path().parent_path() / "src/app/korvo").string();
  if (ec || access(exe.c_str(), X_OK) != 0) {
    fprintf(stderr, "daemon not found at %s (build the korvo target)\n", exe.c_str());
    return 1;
  }
  std::string base = std::filesystem::temp_directory_path() / "korvo-bench-base";
  std::filesystem::create_directories(base);

  pid_t sleeper = fork();
  if (sleeper == 0) {
    // The reference: nothing but the millisecond-aligned sleep the main loop does.
    for (;;) usleep(static_cast<useconds_t>(1000 - korvo::micros() % 1000));
  }
  double sleepLoad = measure(sleeper, seconds);

  pid_t daemon = fork();
  if (daemon == 0) {
    if (chdir(base.c_str()) != 0) _exit(126);
    korvo::Fd devnull(open("/dev/null", O_WRONLY));
    dup2(devnull.get(), 1);
    dup2(devnull.get(), 2);
    setenv("KORVO_GPIO", "sim", 1);
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    execl(exe.c_str(), exe.c_str(), "-a", "-l", "1", base.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  double loopLoad = measure(daemon, seconds);

  printf("empty 1 kHz sleep loop : %.4f%% of one core\n", sleepLoad * 100);
  printf("idle korvo main thread : %.4f%% of one core\n", loopLoad * 100);
  printf("ratio                  : %.2fx (target <= 1.2x)\n", sleepLoad > 0 ? loopLoad / sleepLoad : 0.0);
  return 0;
}
