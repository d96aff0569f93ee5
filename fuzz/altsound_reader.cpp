// fuzz-lib: korvo_soundsets
// Feeds arbitrary bytes as an AltSound table (and as a g-sound table), then edits the
// first sound, which rewrites the table.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/fileutil.h"
#include "base/log.h"
#include "soundsets/altsound.h"
#include "soundsets/sample_index.h"
#include "scratch.h"

namespace {

std::string prepareDir() {
  const std::string d = korvo::fuzz::scratchDir("alt");
  korvo::writeFileAtomic(d + "/a.ogg", "a");
  korvo::writeFileAtomic(d + "/b.ogg", "b");
  std::filesystem::create_directories(d + "/Sub");
  korvo::writeFileAtomic(d + "/Sub/C.ogg", "c");
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = prepareDir();
  korvo::setLogLevel(korvo::LEVEL_NONE);
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  // The first byte picks the table kind, the rest is the table.
  const bool gsound = size > 0 && (data[0] & 1);
  std::error_code ec;
  std::filesystem::remove(dir + "/altsound.csv", ec);
  std::filesystem::remove(dir + "/g-sound.csv", ec);
  korvo::writeFileAtomic(dir + (gsound ? "/g-sound.csv" : "/altsound.csv"), size ? bytes.substr(1) : bytes);
  korvo::SampleIndex index;
  if (korvo::readSamplesFromCsv(index, dir) != 0) return 0;
  for (auto& node : index.samplesMap()) {
    korvo::AudioSample& s = *node.value;
    korvo::updateCsvColumn(s, korvo::SampleIndex::CSV_SERIAL, "x,\"y\"");
    s.type = korvo::MUSIC;
    korvo::updateCsvType(s);
    s.samples.push_back(dir + "/b.ogg");
    if (s.samples.size() > 1) s.samples.erase(s.samples.begin());
    korvo::refreshCsvTable(s);
    break;
  }
  korvo::SampleIndex again;
  korvo::readSamplesFromCsv(again, dir);
  return 0;
}
