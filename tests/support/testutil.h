// Helpers shared by the test binaries: temporary directories, file I/O, log capture.
#pragma once

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace korvo::test {

// A fresh directory under the system temp dir, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Waits until `cond` holds, checking it every millisecond, for at most `limit` (a
// generous bound for loaded machines, not a timing assertion). False when it never held:
// callers assert it.
bool waitUntil(const std::function<bool()>& cond, std::chrono::milliseconds limit = std::chrono::seconds(30));
// The same with the limit in milliseconds (10 s by default), for conditions that the
// audio, service or HTTP thread makes true.
template <typename F>
bool waitFor(F cond, int maxMs = 10000) {
  return waitUntil(std::function<bool()>(std::move(cond)), std::chrono::milliseconds(maxMs));
}

std::string readFile(const std::filesystem::path& p);
void writeFile(const std::filesystem::path& p, const std::string& content);
// The names in directory `d` (not recursive), sorted; empty when it cannot be read.
std::vector<std::string> namesIn(const std::filesystem::path& d);
// The repository's source tree (tests read html/, sounds/, demo/ from it).
std::filesystem::path sourceDir();

// Sends every log line into a memory file while alive and restores the previous
// device after; text() returns what was logged so far.
class LogCapture {
 public:
  explicit LogCapture(int level = 5);
  ~LogCapture();
  std::string text();
  bool contains(const std::string& needle) { return text().find(needle) != std::string::npos; }

 private:
  FILE* mem_ = nullptr;
  char* buf_ = nullptr;
  size_t size_ = 0;
  FILE* previous_ = nullptr;
  int previousLevel_ = 0;
};

}  // namespace korvo::test
