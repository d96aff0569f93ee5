// Builds sound sets on disk the way owners lay them out, for the soundsets tests.
#pragma once

#include <zlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/settings.h"
#include "soundsets/sample_index.h"
#include "support/testutil.h"

namespace korvo::test {

// A temporary base directory with one PINSOUND set "set" in it, a fresh settings
// record and a fresh index; "configs" for shared mappings lives beside the set.
struct SetFixture {
  TempDir tmp;
  Settings s;
  SampleIndex idx{s};
  SoundSet set;

  SetFixture() {
    initSettings(&s);
    set.name = "set";
    set.basedir = (tmp / "set").string();
    set.type = PINSOUND;
    std::filesystem::create_directories(set.basedir + "/music");
    idx.configsDir = (tmp / "configs").string();
  }

  std::filesystem::path dir(const std::string& rel) const { return std::filesystem::path(set.basedir) / rel; }

  // A sound directory with audio files of `bytes` bytes each.
  void sound(const std::string& rel, std::vector<std::string> files = {"a.ogg"}, std::size_t bytes = 100) {
    std::filesystem::create_directories(dir(rel));
    for (const auto& f : files) writeFile(dir(rel) / f, std::string(bytes, 'x'));
  }
  void file(const std::string& rel, const std::string& content) { writeFile(dir(rel), content); }
  int load(int copyMapping = 0) { return idx.initSamples(set, copyMapping); }
};

inline void writeGzip(const std::filesystem::path& p, const std::string& content) {
  std::filesystem::create_directories(p.parent_path());
  gzFile gz = gzopen(p.c_str(), "wb");
  gzwrite(gz, content.data(), static_cast<unsigned>(content.size()));
  gzclose(gz);
}

}  // namespace korvo::test
