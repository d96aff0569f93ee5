// fuzz-lib: korvo_soundsets
// Directory names of a PINSOUND set ("<id>-<name>", "0x<id>-<name>" and anything else an
// owner's copy or an unpacked upload leaves), one per input line, read by the set scan.
// A name that parses gives a sound with that id and a name without white space.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include "base/fileutil.h"
#include "core/settings.h"
#include "scratch.h"
#include "soundsets/sample_index.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string base = korvo::fuzz::scratchDir("dirnames");
  const std::string typeDir = base + "/sfx";
  std::error_code ec;
  std::filesystem::remove_all(typeDir, ec);
  std::filesystem::create_directories(typeDir, ec);

  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::set<std::string> made;
  std::size_t pos = 0;
  while (pos < text.size() && made.size() < 32) {
    std::size_t end = std::min(text.find('\n', pos), text.size());
    std::string name(text.substr(pos, std::min<std::size_t>(end - pos, 200)));
    pos = end + 1;
    for (char& c : name)
      if (c == '/' || c == '\0') c = '_';
    if (name.empty() || name == "." || name == ".." || !made.insert(name).second) continue;
    if (!std::filesystem::create_directory(typeDir + "/" + name, ec)) continue;
    korvo::writeFileAtomic(typeDir + "/" + name + "/a.ogg", "x");
  }

  static korvo::Settings s;
  korvo::initSettings(&s);
  korvo::SampleIndex index(s);
  index.scanAll(base);
  std::size_t found = 0;
  for (auto& node : index.samplesMap()) {
    const korvo::AudioSample& sample = *node.value;
    ++found;
    if (sample.name.find_first_of(" \t\n\r\v\f") != std::string::npos) abort();
    if (sample.basepath.rfind(typeDir + "/", 0) != 0) abort();
  }
  if (found > made.size()) abort();
  return 0;
}
