// The DSP definition file: which chip, its program, the settings it offers and the
// parameter words each setting drives (format in docs/dsp.md).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dsp/filters.h"

namespace korvo {

struct DspTarget {
  enum Kind { BUTTERWORTH, GAIN, WORD };
  Kind kind = WORD;
  bool highpass = false;  // BUTTERWORTH
  int order = 0;          // BUTTERWORTH
  uint16_t address = 0;   // first parameter word
  // Parameter words the target writes (5 per biquad section).
  int words() const { return kind == BUTTERWORTH ? 5 * butterworthSections(order) : 1; }
};

struct DspSettingDef {
  std::string name;
  int value = 0;  // the current value; the configuration catalogue points here
  int min = 0;
  int max = 0;
  std::string unit;
  std::vector<DspTarget> targets;
  int line = 0;  // in the XML file, for messages
};

struct DspWrite {
  uint16_t address = 0;
  std::vector<uint8_t> bytes;
};

struct DspDefinition {
  std::string part;
  int i2cAddress = 0x34;
  DspFormat format = DspFormat::Q5_23;
  int rate = 48000;
  std::vector<DspWrite> program;
  std::vector<DspSettingDef> settings;
  bool hasLed = false;
  uint16_t ledAddress = 0;
  uint16_t ledMask = 0x0001;
};

// Parameter RAM holds words 0x0000..0x03FF; setting targets must lie inside it.
constexpr int kDspParameterWords = 0x0400;

// Parses the text (`name` names it in messages). A file that is not well formed, names
// an unknown element or attribute value, or an address out of range: one ERROR line
// with its line number, and nothing.
std::optional<DspDefinition> parseDspXml(std::string_view text, const std::string& name);
std::optional<DspDefinition> readDspXml(const std::string& path);

}  // namespace korvo
