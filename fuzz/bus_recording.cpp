// fuzz-lib: korvo_bus
// Session recordings come from uploads: any bytes must parse to events or be skipped.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "bus/session_recorder.h"
#include "base/log.h"
#include "core/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  korvo::setLogLevel(korvo::LEVEL_NONE);
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  int skipped = 0;
  const auto events = korvo::SessionRecorder::parseRecording(in, "fuzz.rec", korvo::DATAEAST, &skipped);
  unsigned last = 0;
  for (const auto& e : events) {
    if (e.ms < last) __builtin_trap();
    last = e.ms;
  }
  return 0;
}
