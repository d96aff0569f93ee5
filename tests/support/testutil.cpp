#include "support/testutil.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "base/log.h"

namespace korvo::test {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "korvo-test-XXXXXX").string();
  if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

bool waitUntil(const std::function<bool()>& cond, std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!cond()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string readFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::filesystem::path& p, const std::string& content) {
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << content;
}

std::vector<std::string> namesIn(const std::filesystem::path& d) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(d, ec)) out.push_back(e.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

std::filesystem::path sourceDir() {
  const char* dir = getenv("KORVO_SOURCE_DIR");
  return dir ? std::filesystem::path(dir) : std::filesystem::current_path();
}

LogCapture::LogCapture(int level) {
  mem_ = open_memstream(&buf_, &size_);
  previous_ = Log::instance().logDevice();
  previousLevel_ = Log::instance().logLevel();
  Log::instance().setLogDevice(mem_);
  Log::instance().setLogLevel(level);
}

LogCapture::~LogCapture() {
  Log::instance().setLogDevice(previous_);
  Log::instance().setLogLevel(previousLevel_);
  fclose(mem_);
  free(buf_);
}

std::string LogCapture::text() {
  std::string copy;
  Log::instance().withDeviceLocked([&] {
    fflush(mem_);
    copy.assign(buf_, size_);
  });
  return copy;
}

}  // namespace korvo::test
