#include "core/mainloop.h"

#include <signal.h>
#include <unistd.h>

#include "platform/clock.h"

namespace korvo {

namespace {
// The signal handler is a C callback with no user pointer: it finds the loop here.
std::atomic<MainLoop*> gActive{nullptr};
}  // namespace

MainLoop* activeMainLoop() { return gActive.load(); }

MainLoop::MainLoop() = default;

MainLoop::~MainLoop() {
  MainLoop* self = this;
  if (gActive.compare_exchange_strong(self, nullptr)) {
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
  }
}

void MainLoop::stopMainLoop(int delayMs, int code) {
  exitCode_.store(code, std::memory_order_relaxed);
  stopAt_.store(millis() + static_cast<unsigned long>(delayMs), std::memory_order_relaxed);
}

void MainLoop::checkStopTime(unsigned long now) {
  unsigned long at = stopAt_.load(std::memory_order_relaxed);
  if (at != 0 && now > at) quit();
}

void MainLoop::sleepToNextMillisecond() {
  if (clock::isManual()) return;
  usleep(static_cast<useconds_t>(1000 - micros() % 1000));
}

void MainLoop::installSignalHandlers() {
  gActive.store(this);
  struct sigaction sa{};
  sa.sa_handler = &MainLoop::intHandler;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

void MainLoop::intHandler(int) {
  if (MainLoop* loop = gActive.load()) loop->quit();
}

}  // namespace korvo
