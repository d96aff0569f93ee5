#include "platform/clock.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace korvo {

namespace {
using SteadyClock = std::chrono::steady_clock;
const SteadyClock::time_point gStart = SteadyClock::now();
std::atomic<bool> gManual{false};
std::atomic<uint64_t> gManualUs{0};

uint64_t nowMicros() {
  if (gManual.load(std::memory_order_acquire)) return gManualUs.load(std::memory_order_acquire);
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - gStart).count());
}
}  // namespace

unsigned long millis() { return static_cast<unsigned long>(nowMicros() / 1000); }
unsigned long micros() { return static_cast<unsigned long>(nowMicros()); }

void delayMicroseconds(unsigned int us) {
  if (gManual.load(std::memory_order_acquire)) {
    gManualUs.fetch_add(us, std::memory_order_acq_rel);
    return;
  }
  if (us >= 100) {
    std::this_thread::sleep_for(std::chrono::microseconds(us));
    return;
  }
  // Pulses of a few microseconds: sleeping would cost far more than asked.
  const auto until = SteadyClock::now() + std::chrono::microseconds(us);
  while (SteadyClock::now() < until) {
  }
}

namespace clock {
void useManualClock(uint64_t startUs) {
  gManualUs.store(startUs, std::memory_order_release);
  gManual.store(true, std::memory_order_release);
}
void useRealClock() { gManual.store(false, std::memory_order_release); }
bool isManual() { return gManual.load(std::memory_order_acquire); }
void advanceMicros(uint64_t us) { gManualUs.fetch_add(us, std::memory_order_acq_rel); }
}  // namespace clock

}  // namespace korvo
