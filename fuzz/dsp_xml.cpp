// fuzz-lib: korvo_dsp
// The DSP definition reader over arbitrary text: it must refuse bad files with one log
// line and never crash; a file it accepts must give settings whose words can be
// computed at any value without overflow.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/log.h"
#include "dsp/dsp.h"
#include "platform/sim_gpio.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    korvo::setLogLevel(korvo::LEVEL_NONE);
    return true;
  }();
  (void)quiet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  korvo::SimGpio gpio;
  korvo::Settings settings;
  korvo::Dsp dsp(gpio, settings);
  if (!dsp.loadDefinitionText(text, "fuzz.xml")) return 0;
  // Every setting at its extremes either computes words inside the parameter memory or
  // is refused; then the whole definition goes onto the sim DSP.
  for (const auto& s : dsp.definition()->settings)
    for (int v : {s.min, s.max, s.value})
      if (auto words = dsp.settingWords(s, v))
        for (const auto& w : *words)
          if (w.first >= korvo::kDspParameterWords) __builtin_trap();
  dsp.applyDspSettings();
  return 0;
}
