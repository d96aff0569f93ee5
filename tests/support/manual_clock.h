// The manual clock for one scope: time moves only when a test advances it, and the real
// clock is back afterwards even when an assertion ends the test early.
#pragma once

#include <cstdint>

#include "platform/clock.h"

namespace korvo::test {

struct ManualClock {
  explicit ManualClock(uint64_t startUs) { clock::useManualClock(startUs); }
  ~ManualClock() { clock::useRealClock(); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;
};

}  // namespace korvo::test
