// fuzz-lib: korvo_bus
// Bus bytes are outside data: any byte stream with any gaps, on every protocol, must be
// assembled or dropped without crossing the 4-byte command buffer.
#include <cstddef>
#include <cstdint>

#include "bus/pincom.h"
#include "base/log.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace korvo;
  if (size < 1) return 0;
  setLogLevel(LEVEL_NONE);
  clock::useManualClock(1'000'000);
  static SimGpio gpio;
  Settings s;
  initSettings(&s);
  s.protocol = data[0] % kProtocolCount;
  Pincom pincom(gpio, s);
  PincomConsumers c;
  c.soundHandler = [](unsigned v) {
    if (v > 0xFE) __builtin_trap();
  };
  c.soundWpcHandler = [](const uint8_t*, unsigned v) {
    if (v > 0xFFFF) __builtin_trap();
  };
  c.soundWSHandler = [](const uint8_t*, unsigned v) {
    if (v > 0xFFFF) __builtin_trap();
  };
  pincom.setConsumers(c);
  // Pairs of (gap code, byte): the gap advances the manual clock across the time-outs.
  for (size_t i = 1; i + 1 < size; i += 2) {
    clock::advanceMillis(data[i] % 8 == 0 ? data[i] : 0);
    pincom.triggerInterrupt(data[i + 1]);
  }
  return 0;
}
