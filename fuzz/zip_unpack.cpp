// fuzz-lib: korvo_soundsets
// Unpacks arbitrary bytes as a zip archive and checks that nothing lands outside the
// target directory.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "soundsets/unzip.h"

namespace fs = std::filesystem;

namespace {

std::string scratchDir() {
  char tmpl[] = "/tmp/korvo-fuzz-zip-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  return dir ? dir : "/tmp/korvo-fuzz-zip";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = scratchDir();
  korvo::setLogLevel(korvo::LEVEL_NONE);
  const std::string archive = dir + "/in.zip";
  const std::string target = dir + "/target";
  std::error_code ec;
  fs::remove_all(target, ec);
  fs::create_directories(target, ec);
  {
    korvo::FileHandle f(fopen(archive.c_str(), "wb"));
    if (!f) return 0;
    fwrite(data, 1, size, f.get());
  }
  korvo::unzip(archive.c_str(), target.c_str());
  // Only the archive and the target may exist beside each other: the staging
  // directory of a failed or finished unpack is gone.
  for (const auto& e : fs::directory_iterator(dir, ec)) {
    const std::string name = e.path().filename().string();
    if (name != "in.zip" && name != "target") abort();
  }
  return 0;
}
