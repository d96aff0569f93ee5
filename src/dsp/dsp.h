// The I2C audio DSP: programs it from its XML definition (-X) and keeps its settings,
// which join the configuration catalogue, applied. Parameter words go through the
// chip's safeload (up to five words, then the initiate bit), so a setting changed on a
// playing machine does not click.
//
// Threads: loading and the first apply run on the main thread during start-up; the web
// configuration applies changed settings from the HTTP thread. One mutex serialises
// every device access and the settings' values.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/settings.h"
#include "dsp/dsp_xml.h"
#include "platform/gpio.h"

namespace korvo {

class Dsp {
 public:
  // A parameter address and the word to write there.
  using Word = std::pair<uint16_t, int32_t>;
  static constexpr uint16_t kSafeloadData = 0x0810;
  static constexpr uint16_t kSafeloadAddress = 0x0815;
  static constexpr uint16_t kCoreControl = 0x081C;
  static constexpr uint16_t kInitiateSafeload = 0x0020;
  static constexpr std::size_t kSafeloadWords = 5;

  Dsp(Gpio& gpio, Settings& s);

  // Reads the definition. False (one ERROR line): no DSP writes will ever be made.
  bool loadDefinition(const std::string& path);
  // The same from text already in memory (`name` names it in messages).
  bool loadDefinitionText(std::string_view text, const std::string& name);
  bool loaded() const { return def_.has_value(); }
  const DspDefinition* definition() const { return def_ ? &*def_ : nullptr; }
  // The settings for extendMasterConfigMap, pointing at their values here.
  std::vector<DspSetting> catalogueEntries();

  // After "mellosound.ini" is read: writes the program once, then every setting, then
  // lights the activity LED. 0 when everything was written, -1 otherwise (logged).
  int applyDspSettings();
  // One setting to a new value: 0 written, 1 refused (value does not fit, nothing
  // written), -1 unknown name or no device.
  int applySetting(const std::string& name, int value);
  // The web form's "key=value" lines: applies each DSP setting whose value changed.
  // Returns the number applied.
  int applySettingLines(std::string_view lines);
  // The words a setting writes at `value`; empty when one of them does not fit the
  // format (an ERROR line names the setting).
  std::optional<std::vector<Word>> settingWords(const DspSettingDef& s, int value) const;
  void setLed(bool on);

 private:
  bool accept(std::optional<DspDefinition> def);
  bool openLocked();
  int writeSettingLocked(DspSettingDef& s);
  bool writeLocked(uint16_t address, std::span<const uint8_t> bytes);
  bool safeloadLocked(std::span<const Word> words);
  bool readCoreControlLocked();

  Gpio& gpio_;
  Settings& settings_;
  std::optional<DspDefinition> def_;
  std::mutex mutex_;  // guards everything below and the settings' values in def_
  int fd_ = -1;
  bool programmed_ = false;
  bool silent_ = false;  // the device did not answer: said once, then quiet
  uint16_t coreControl_ = 0;
};

}  // namespace korvo
