// fuzz-lib: korvo_soundsets
// The small text files of one sound's directory (gain.txt, ducking.txt, serial.txt,
// shaker.txt) as an owner's editor or a damaged card leaves them, read by the set scan;
// then the web page's edits of the same sound, which rewrite them from client text.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/fileutil.h"
#include "core/settings.h"
#include "scratch.h"
#include "soundsets/sample_index.h"

namespace {

// The input cut at NUL bytes into up to four texts (missing ones empty).
std::vector<std::string> splitParts(std::string_view text) {
  std::vector<std::string> parts;
  std::size_t pos = 0;
  while (parts.size() < 4) {
    const std::size_t end = std::min(text.find('\0', pos), text.size());
    parts.emplace_back(pos <= text.size() ? text.substr(pos, end - pos) : std::string_view());
    pos = end + 1;
  }
  return parts;
}

void checkSample(korvo::SampleIndex& index) {
  korvo::AudioSample* s = index.getSampleForId(10);
  if (!s) return;  // a scan may refuse the directory; it must not crash
  if (s->gain > 100) abort();
  if (s->shakersequence.size() > 4096) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string base = korvo::fuzz::scratchDir("soundtext");
  const std::string dir = base + "/sfx/10-sound";
  std::error_code ec;
  std::filesystem::remove_all(base + "/sfx", ec);
  std::filesystem::create_directories(dir, ec);
  korvo::writeFileAtomic(dir + "/a.ogg", "x");
  const auto parts = splitParts(std::string_view(reinterpret_cast<const char*>(data), size));
  const char* names[] = {"gain.txt", "ducking.txt", "serial.txt", "shaker.txt"};
  for (int i = 0; i < 4; ++i)
    if (!parts[i].empty()) korvo::writeFileAtomic(dir + "/" + names[i], parts[i]);

  static korvo::Settings s;
  korvo::initSettings(&s);
  {
    korvo::SampleIndex index(s);
    index.scanAll(base);
    checkSample(index);
    if (index.getSampleForId(10)) {
      index.updateGainForSample(10, parts[0].c_str());
      index.updateDuckingForSample(10, parts[1].c_str());
      index.updateSerialCmdForSample(10, parts[2].c_str());
      index.updateShakerCmdForSample(10, parts[3].c_str());
      checkSample(index);
    }
  }
  korvo::SampleIndex again(s);
  again.scanAll(base);
  checkSample(again);
  return 0;
}
