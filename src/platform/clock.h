// The board clock: monotonic milliseconds and microseconds since the process started.
// Tests switch it to a manual clock and advance it, so every time-out (repeat filter,
// inter-byte time-outs, gestures, sequences) is tested without sleeping.
#pragma once

#include <cstdint>

namespace korvo {

unsigned long millis();
unsigned long micros();
// Busy-waits for short delays (acknowledge pulses), sleeps for long ones. Under the
// manual clock it advances the clock instead of waiting.
void delayMicroseconds(unsigned int us);

namespace clock {
// Manual mode: millis()/micros() return a value that only advance() moves. Starts at
// `startUs` microseconds.
void useManualClock(uint64_t startUs = 0);
void useRealClock();
bool isManual();
void advanceMicros(uint64_t us);
inline void advanceMillis(uint64_t ms) { advanceMicros(ms * 1000); }
}  // namespace clock

}  // namespace korvo
