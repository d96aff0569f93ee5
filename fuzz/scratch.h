// A fuzz target's scratch directory: created once per process under /tmp, removed when
// the process exits normally (libFuzzer ends a timed run with exit()), and fsync
// switched off, since nothing written here has to survive a power cut.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "base/fileutil.h"
#include "base/log.h"

namespace korvo::fuzz {

class Scratch {
 public:
  explicit Scratch(const char* tag) {
    korvo::setLogLevel(korvo::LEVEL_NONE);
    korvo::setFileSyncEnabled(false);
    std::string tmpl = std::string("/tmp/korvo-fuzz-") + tag + "-XXXXXX";
    path_ = mkdtemp(tmpl.data()) ? tmpl : std::string();
    if (path_.empty()) abort();
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The target's one scratch directory (a function-local static: destroyed at exit).
inline const std::string& scratchDir(const char* tag) {
  static Scratch s(tag);
  return s.path();
}

}  // namespace korvo::fuzz
