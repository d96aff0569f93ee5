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
#include "common/main_thread_cpu.h"
#include "platform/clock.h"

namespace {

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
  double sleepLoad = korvo::bench::mainThreadCpu(sleeper, seconds);

  const pid_t daemon = korvo::bench::startQuietDaemon(exe, base);
  double loopLoad = korvo::bench::mainThreadCpu(daemon, seconds);

  printf("empty 1 kHz sleep loop : %.4f%% of one core\n", sleepLoad * 100);
  printf("idle korvo main thread : %.4f%% of one core\n", loopLoad * 100);
  printf("ratio                  : %.2fx (target <= 1.2x)\n", sleepLoad > 0 ? loopLoad / sleepLoad : 0.0);
  return 0;
}
