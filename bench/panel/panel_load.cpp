// The front panel's cost. (1) CPU of the daemon's main thread on the sim backend with
// the display, the Data East volume input (or the encoder) and the button running,
// against the same daemon without them (target ratio <= 1.3); measured as the
// scheduler's run time of the thread (/proc/<pid>/task/<tid>/schedstat). (2) I2C
// traffic of the display per second while nothing on it changes (target: none).
//
// Usage: bench_panel_load [seconds per measurement, default 5]
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
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
#include "core/settings.h"
#include "panel/front_panel.h"
#include "platform/sim_gpio.h"

namespace {

double runDaemon(const std::string& exe, const std::filesystem::path& base, const std::string& ini, int seconds) {
  std::filesystem::create_directories(base);
  std::ofstream(base / "mellosound.ini", std::ios::trunc) << ini;
  const pid_t pid = korvo::bench::startQuietDaemon(exe, base.string());
  return korvo::bench::mainThreadCpu(pid, seconds, 2);
}

// Bytes the display model received per second over `seconds` once the start-up lines
// are on the panel and nothing changes.
double idleDisplayBytesPerSecond(int seconds) {
  korvo::SimGpio gpio;
  korvo::Settings s;
  korvo::initSettings(&s);
  korvo::FrontPanel panel(gpio, s, {});
  if (!panel.initMiniDisplay()) return -1;
  panel.showDisplayLine(0, 8, "VERSION: 1.30rc24");
  panel.showDisplayLine(0, 16, "IP: 192.168.4.1");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const uint64_t before = gpio.oled().bytesReceived();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  return static_cast<double>(gpio.oled().bytesReceived() - before) / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? atoi(argv[1]) : 5;
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  const std::string exe = (self.parent_path().parent_path() / "src/app/korvo").string();
  if (ec || access(exe.c_str(), X_OK) != 0) {
    fprintf(stderr, "daemon not found at %s (build the korvo target)\n", exe.c_str());
    return 1;
  }
  const auto tmp = std::filesystem::temp_directory_path();
  const double bare = runDaemon(exe, tmp / "korvo-bench-panel-off", "enable_minidisplay=0\n", seconds);
  const double withVolume = runDaemon(exe, tmp / "korvo-bench-panel-volume",
                                      "enable_minidisplay=1\nenable_dataeast_volume=1\n", seconds);
  const double withEncoder = runDaemon(exe, tmp / "korvo-bench-panel-encoder",
                                       "enable_minidisplay=1\nenable_i2s=0\nvendor=0\n", seconds);
  printf("main thread without panel          : %.4f%% of one core\n", bare * 100);
  printf("display + volume input + button    : %.4f%% of one core, ratio %.2fx (target <= 1.3x)\n",
         withVolume * 100, bare > 0 ? withVolume / bare : 0.0);
  printf("display + encoder + button         : %.4f%% of one core, ratio %.2fx (target <= 1.3x)\n",
         withEncoder * 100, bare > 0 ? withEncoder / bare : 0.0);
  printf("display I2C traffic, nothing changes: %.1f bytes/s (target 0)\n", idleDisplayBytesPerSecond(seconds));
  return 0;
}
