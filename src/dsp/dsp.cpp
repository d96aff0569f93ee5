#include "dsp/dsp.h"

#include <algorithm>
#include <cstdlib>

#include "base/log.h"

namespace korvo {

Dsp::Dsp(Gpio& gpio, Settings& s) : gpio_(gpio), settings_(s) {}

bool Dsp::loadDefinition(const std::string& path) { return accept(readDspXml(path)); }

bool Dsp::loadDefinitionText(std::string_view text, const std::string& name) {
  return accept(parseDspXml(text, name));
}

bool Dsp::accept(std::optional<DspDefinition> def) {
  std::lock_guard lock(mutex_);
  def_ = std::move(def);
  if (!def_) return false;
  LOG(LEVEL_INFO, "dsp %s at 0x%02x: %zu program writes, %zu settings", def_->part.c_str(), def_->i2cAddress,
      def_->program.size(), def_->settings.size());
  return true;
}

std::vector<DspSetting> Dsp::catalogueEntries() {
  std::vector<DspSetting> out;
  if (!def_) return out;
  for (DspSettingDef& s : def_->settings) out.push_back({s.name, &s.value});
  return out;
}

bool Dsp::openLocked() {
  if (fd_ >= 0) return true;
  if (silent_) return false;
  fd_ = gpio_.wiringPiI2CSetup(def_->i2cAddress);
  if (fd_ < 0 || !readCoreControlLocked()) {
    LOG(LEVEL_ERROR, "dsp %s does not answer at 0x%02x, not programmed", def_->part.c_str(), def_->i2cAddress);
    fd_ = -1;
    silent_ = true;
    return false;
  }
  return true;
}

bool Dsp::readCoreControlLocked() {
  const uint8_t pointer[] = {kCoreControl >> 8, kCoreControl & 0xFF};
  uint8_t value[2] = {};
  if (gpio_.i2cWriteBlock(fd_, pointer) != 0 || gpio_.i2cReadBlock(fd_, value) != 0) return false;
  coreControl_ = static_cast<uint16_t>((value[0] << 8 | value[1]) & ~kInitiateSafeload);
  return true;
}

bool Dsp::writeLocked(uint16_t address, std::span<const uint8_t> bytes) {
  std::vector<uint8_t> tx{static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address & 0xFF)};
  tx.insert(tx.end(), bytes.begin(), bytes.end());
  if (gpio_.i2cWriteBlock(fd_, tx) == 0) return true;
  LOG(LEVEL_ERROR, "dsp write of %zu bytes at 0x%04x failed", bytes.size(), address);
  return false;
}

bool Dsp::safeloadLocked(std::span<const Word> words) {
  for (std::size_t i = 0; i < words.size(); i += kSafeloadWords) {
    const auto chunk = words.subspan(i, std::min(kSafeloadWords, words.size() - i));
    std::vector<uint8_t> data, addresses;
    for (const auto& [address, word] : chunk) {
      const auto b = wordBytes(word, def_->format);
      data.push_back(0);  // the safeload data registers are five bytes wide
      data.insert(data.end(), b.begin(), b.end());
      addresses.push_back(static_cast<uint8_t>(address >> 8));
      addresses.push_back(static_cast<uint8_t>(address & 0xFF));
    }
    const uint16_t initiate = coreControl_ | kInitiateSafeload;
    const uint8_t control[] = {static_cast<uint8_t>(initiate >> 8), static_cast<uint8_t>(initiate & 0xFF)};
    if (!writeLocked(kSafeloadData, data) || !writeLocked(kSafeloadAddress, addresses) ||
        !writeLocked(kCoreControl, control))
      return false;
  }
  return true;
}

std::optional<std::vector<Dsp::Word>> Dsp::settingWords(const DspSettingDef& s, int value) const {
  std::vector<Word> out;
  const DspFormat f = def_->format;
  for (const DspTarget& t : s.targets) {
    std::vector<std::optional<int32_t>> words;
    if (t.kind == DspTarget::BUTTERWORTH) {
      const auto sections = butterworth(t.highpass, t.order, value, def_->rate);
      if (sections.empty()) {
        LOG(LEVEL_ERROR, "dsp setting %s: cut-off %d Hz is not below half of %d Hz, nothing written", s.name.c_str(),
            value, def_->rate);
        return std::nullopt;
      }
      // The chip adds its feedback terms: a1 and a2 are written negated.
      for (const Biquad& b : sections)
        for (double c : {b.b0, b.b1, b.b2, -b.a1, -b.a2}) words.push_back(toFixed(c, f));
    } else if (t.kind == DspTarget::GAIN) {
      words.push_back(toFixed(dbToLinear(value), f));
    } else {
      words.push_back(integerWord(value, f));
    }
    for (std::size_t i = 0; i < words.size(); ++i) {
      if (!words[i]) {
        LOG(LEVEL_ERROR, "dsp setting %s: value %d does not fit the %s format, nothing written", s.name.c_str(),
            value, f == DspFormat::Q5_23 ? "5.23" : "8.24");
        return std::nullopt;
      }
      out.emplace_back(static_cast<uint16_t>(t.address + i), *words[i]);
    }
  }
  return out;
}

int Dsp::writeSettingLocked(DspSettingDef& s) {
  const int clamped = std::clamp(s.value, s.min, s.max);
  if (clamped != s.value) {
    LOG(LEVEL_WARN, "dsp setting %s: %d is outside %d..%d, using %d", s.name.c_str(), s.value, s.min, s.max, clamped);
    s.value = clamped;
  }
  const auto words = settingWords(s, s.value);
  if (!words) return 1;
  if (!safeloadLocked(*words)) return -1;
  LOG(LEVEL_DEBUG, "dsp setting %s = %d%s", s.name.c_str(), s.value, s.unit.c_str());
  return 0;
}

int Dsp::applyDspSettings() {
  std::lock_guard lock(mutex_);
  if (!def_ || !openLocked()) return -1;
  if (!programmed_) {
    for (const DspWrite& w : def_->program)
      if (!writeLocked(w.address, w.bytes)) return -1;
    programmed_ = true;
    if (!readCoreControlLocked()) return -1;
  }
  int rc = 0;
  for (DspSettingDef& s : def_->settings)
    if (writeSettingLocked(s) != 0) rc = -1;
  if (def_->hasLed) {
    const uint16_t v = settings_.dspLedIndicator ? def_->ledMask : 0;
    const uint8_t bytes[] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v & 0xFF)};
    writeLocked(def_->ledAddress, bytes);
  }
  return rc;
}

int Dsp::applySetting(const std::string& name, int value) {
  std::lock_guard lock(mutex_);
  if (!def_) return -1;
  auto it = std::find_if(def_->settings.begin(), def_->settings.end(),
                         [&](const DspSettingDef& s) { return s.name == name; });
  if (it == def_->settings.end()) return -1;
  const int previous = it->value;
  it->value = value;
  if (!openLocked()) return -1;
  const int rc = writeSettingLocked(*it);
  if (rc == 1) it->value = previous;  // refused: the chip still holds the old value
  return rc;
}

int Dsp::applySettingLines(std::string_view lines) {
  int applied = 0;
  while (!lines.empty()) {
    const std::size_t end = std::min(lines.find('\n'), lines.size());
    const std::string line(lines.substr(0, end));
    lines.remove_prefix(std::min(end + 1, lines.size()));
    const std::size_t eq = line.find('=');
    if (eq == std::string::npos || !def_) continue;
    const std::string key = line.substr(0, eq);
    char* stop = nullptr;
    const long value = std::strtol(line.c_str() + eq + 1, &stop, 10);
    if (stop == line.c_str() + eq + 1) continue;
    std::optional<int> current;
    {
      std::lock_guard lock(mutex_);
      for (const DspSettingDef& s : def_->settings)
        if (s.name == key) current = s.value;
    }
    if (current && *current != value && applySetting(key, static_cast<int>(value)) == 0) ++applied;
  }
  return applied;
}

void Dsp::setLed(bool on) {
  std::lock_guard lock(mutex_);
  if (!def_ || !def_->hasLed || !openLocked()) return;
  const uint16_t v = on ? def_->ledMask : 0;
  const uint8_t bytes[] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v & 0xFF)};
  writeLocked(def_->ledAddress, bytes);
}

}  // namespace korvo
