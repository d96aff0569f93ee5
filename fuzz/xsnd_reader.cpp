// fuzz-lib: korvo_soundsets
// Feeds arbitrary bytes to the xsnd container reader, then streams a little of every
// audio file the decoded index points at.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "soundsets/sample_index.h"
#include "soundsets/streams.h"
#include "soundsets/xsnd.h"
#include "scratch.h"

namespace {

std::string scratchFile() { return korvo::fuzz::scratchDir("xsnd") + "/in.xsnd"; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = scratchFile();
  korvo::setLogLevel(korvo::LEVEL_NONE);
  {
    korvo::FileHandle f(fopen(path.c_str(), "wb"));
    if (!f) return 0;
    fwrite(data, 1, size, f.get());
  }
  korvo::SampleIndex index;
  if (korvo::readSamplesFromBinary(index, path) != 0) return 0;
  int streams = 0;
  for (auto& node : index.samplesMap()) {
    const korvo::AudioSample* s = node.value.get();
    for (std::size_t i = 0; i <= s->samples.size() && streams < 8; ++i, ++streams) {
      SDL_RWops* rw = korvo::makeCompoundRW(path.c_str(), s, static_cast<int>(i));
      if (rw == nullptr) continue;
      char buf[64];
      SDL_RWsize(rw);
      SDL_RWread(rw, buf, 1, sizeof buf);
      SDL_RWseek(rw, 3, RW_SEEK_CUR);
      SDL_RWseek(rw, -4, RW_SEEK_END);
      SDL_RWread(rw, buf, 4, 4);
      SDL_RWclose(rw);
    }
  }
  return 0;
}
