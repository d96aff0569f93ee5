// fuzz-lib: korvo_soundsets
// A sound set's "config.ini" lines: keys, separators, numbers and junk, read line by
// line and as a whole file through the set configuration reader.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "soundsets/sample_index.h"
#include "scratch.h"

namespace {

std::string& tempDir() {
  static std::string dir = korvo::fuzz::scratchDir("setcfg");
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  static korvo::Settings s;
  korvo::initSettings(&s);
  korvo::SampleIndex idx(s);
  std::size_t pos = 0;
  while (pos <= text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    idx.applySetConfigLine(std::string_view(text).substr(pos, end - pos), "fuzz");
    pos = end + 1;
  }

  korvo::SoundSet set;
  set.basedir = tempDir();
  set.type = (size > 0 && (data[0] & 1)) ? korvo::PINSOUND : korvo::ALTSOUND;
  if (korvo::FileHandle f{fopen((set.basedir + "/config.ini").c_str(), "wb")}) fwrite(data, 1, size, f.get());
  idx.readSoundConfig(set);
  for (int t = 0; t < korvo::kAudioTypeCount; ++t) {
    if (idx.gainByType(t) < 0 || idx.gainByType(t) > 100 || idx.duckingByType(t) < 0 || idx.duckingByType(t) > 100)
      abort();  // the tables must only ever hold percentages
  }
  if (s.protocol.load() < 0 || s.protocol.load() >= korvo::kProtocolCount) abort();
  return 0;
}
