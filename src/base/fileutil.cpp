#include "base/fileutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/handles.h"
#include "base/log.h"

namespace korvo {

namespace {

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

std::string dirOf(const std::string& path) {
  auto pos = path.find_last_of('/');
  if (pos == std::string::npos) return ".";
  if (pos == 0) return "/";
  return path.substr(0, pos);
}

}  // namespace

constexpr std::string_view kTempMarker = ".tmp";
constexpr std::size_t kTempRandomChars = 6;  // mkstemp's XXXXXX

std::string temporaryNameFor(const std::string& path) {
  return path + std::string(kTempMarker) + std::string(kTempRandomChars, 'X');
}

bool isOwnTemporary(std::string_view name) {
  if (name.find('/') != std::string_view::npos) return false;
  const std::size_t tail = kTempMarker.size() + kTempRandomChars;
  // A name of its own before the marker: ".tmpABCDEF" alone is nobody's temporary.
  if (name.size() <= tail) return false;
  const std::string_view marker = name.substr(name.size() - tail, kTempMarker.size());
  if (marker != kTempMarker) return false;
  for (char c : name.substr(name.size() - kTempRandomChars))
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  return true;
}

int removeStaleTemporaries(const std::string& dir, int depth) {
  DirHandle d(opendir(dir.c_str()));
  if (!d) return 0;
  int removed = 0;
  while (dirent* e = readdir(d.get())) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0) continue;
    // Staging directories (an unpacking archive) are hidden and named like the files.
    if (S_ISDIR(st.st_mode) && name[0] == '.' && isOwnTemporary(name)) {
      std::error_code ec;
      if (std::filesystem::remove_all(path, ec) != static_cast<std::uintmax_t>(-1) && !ec) {
        LOG(LEVEL_INFO, "removed stale temporary directory %s", path.c_str());
        ++removed;
      } else {
        LOG(LEVEL_WARN, "cannot remove stale temporary directory %s: %s", path.c_str(), ec.message().c_str());
      }
      continue;
    }
    if (S_ISDIR(st.st_mode) && depth > 0) removed += removeStaleTemporaries(path, depth - 1);
    if (!S_ISREG(st.st_mode) || !isOwnTemporary(name)) continue;
    if (unlink(path.c_str()) == 0) {
      LOG(LEVEL_INFO, "removed stale temporary file %s", path.c_str());
      ++removed;
    } else {
      LOG(LEVEL_WARN, "cannot remove stale temporary file %s: %s", path.c_str(), strerror(errno));
    }
  }
  return removed;
}

namespace {
std::atomic<bool> fileSyncEnabled{true};
}  // namespace

int syncFd(int fd) { return fileSyncEnabled.load(std::memory_order_relaxed) ? fsync(fd) : 0; }

void setFileSyncEnabled(bool on) { fileSyncEnabled.store(on, std::memory_order_relaxed); }

int writeFileAtomic(const std::string& path, std::string_view content) {
  std::string tmpl = temporaryNameFor(path);
  Fd fd(mkstemp(tmpl.data()));
  if (!fd) {
    LOG(LEVEL_ERROR, "cannot create temporary file for %s: %s", path.c_str(), strerror(errno));
    return -1;
  }
  // Keep the permissions of the file being replaced; mkstemp makes it 0600.
  struct stat st{};
  fchmod(fd.get(), ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0644);
  bool ok = writeAll(fd.get(), content) && syncFd(fd.get()) == 0;
  int err = errno;
  if (fd.close() != 0) ok = false;
  if (!ok || rename(tmpl.c_str(), path.c_str()) != 0) {
    if (ok) err = errno;
    LOG(LEVEL_ERROR, "cannot write %s: %s", path.c_str(), strerror(err));
    unlink(tmpl.c_str());
    return -1;
  }
  syncDirectoryOf(path);
  return 0;
}

void syncDirectoryOf(const std::string& path) {
  Fd dir(::open(dirOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir) syncFd(dir.get());
}

bool readWholeFile(const std::string& path, std::string& out) {
  FileHandle f(fopen(path.c_str(), "rb"));
  if (!f) return false;
  out.clear();
  char buf[65536];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, f.get())) > 0) out.append(buf, n);
  return !ferror(f.get());
}

int copyFileAtomic(const std::string& from, const std::string& to) {
  std::string content;
  if (!readWholeFile(from, content)) {
    LOG(LEVEL_ERROR, "cannot read %s: %s", from.c_str(), strerror(errno));
    return -1;
  }
  return writeFileAtomic(to, content);
}

int updateConfigFile(const char* path, const char* keyPrefix, const char* newLine) {
  LOG(LEVEL_DEBUG, "opening %s ...", path);
  std::string old;
  readWholeFile(path, old);  // a missing file is the same as an empty one
  std::string out;
  bool replaced = false;
  std::size_t pos = 0;
  while (pos < old.size()) {
    std::size_t end = old.find('\n', pos);
    std::string_view line(old.data() + pos, (end == std::string::npos ? old.size() : end) - pos);
    if (line.starts_with(keyPrefix)) {
      out.append(newLine).push_back('\n');
      replaced = true;
    } else {
      out.append(line).push_back('\n');
    }
    pos = end == std::string::npos ? old.size() : end + 1;
  }
  if (!replaced) out.append(newLine).push_back('\n');
  LOG(LEVEL_DEBUG, "copy %s to %s", "(temporary file)", path);
  return writeFileAtomic(path, out);
}

bool fileExists(const std::string& path) {
  struct stat st{};
  return ::stat(path.c_str(), &st) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat st{};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace korvo
