// fuzz-lib: korvo_soundsets
// Id mapping files as an owner's set or the configs folder holds them: plain text, or
// gzip when the name begins with a digit (damaged or fake streams included).
#include <stdlib.h>
#include <unistd.h>

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
  static std::string dir = korvo::fuzz::scratchDir("mapping");
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string& dir = tempDir();
  const char* name = (data[0] & 1) ? "1.mellosnd" : "config.mellosnd";
  std::string path = dir + "/" + name;
  if (korvo::FileHandle f{fopen(path.c_str(), "wb")}) fwrite(data + 1, 1, size - 1, f.get());
  static korvo::Settings s;
  korvo::SampleIndex idx(s);
  idx.loadHashMappingByName(dir, name);
  for (const auto& node : idx.hashesMap()) (void)node.value;
  // Each line again on its own, as the reader hands it over.
  idx.handleLine(std::string_view(reinterpret_cast<const char*>(data), size));
  unlink(path.c_str());
  return 0;
}
