// fuzz-lib: korvo_core
// The daemon's own settings files as a power cut, an editor or a damaged card may leave
// them: "va.ini" (volume, sound set, audio device) and "mellosound.ini" (the whole
// configuration catalogue). Whatever was read must be written back and read again to
// the same values, and the web configuration's replacement of mellosound.ini must read.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/fileutil.h"
#include "core/settings.h"
#include "scratch.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = korvo::fuzz::scratchDir("settings");
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string vaIni = dir + "/va.ini";
  static korvo::Settings s;
  korvo::initSettings(&s);
  korvo::Configuration config(s);

  // The first byte picks the file, the rest is its content.
  if (size > 0 && (data[0] & 1)) {
    korvo::writeFileAtomic(dir + "/mellosound.ini", text.substr(1));
    config.readMasterConfig(dir.c_str(), false);
    if (s.protocol.load() < 0 || s.protocol.load() >= korvo::kProtocolCount) abort();
    config.updateMasterConfig(dir.c_str(), text.substr(1));
    return 0;
  }
  korvo::writeFileAtomic(vaIni, size ? text.substr(1) : text);
  config.readSettings(vaIni.c_str());
  const int volume = s.volume;
  const int set = s.soundSet;
  const std::string device = s.audioDevice.get();
  config.writeSettings(vaIni.c_str(), {"numid3_0=7"});
  config.readSettings(vaIni.c_str());
  // A device name with a line break cannot round-trip through a line-based file.
  if (s.volume != volume || s.soundSet != set) abort();
  if (device.find_first_of("\r\n") == std::string::npos && s.audioDevice.get() != device) abort();
  return 0;
}
