#include "web/upload_file.h"

#include <sys/statvfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/fileutil.h"
#include "base/log.h"

namespace korvo {

UploadFile::UploadFile(UploadFile&& o) noexcept
    : fd_(std::move(o.fd_)), path_(std::exchange(o.path_, {})), written_(std::exchange(o.written_, 0)) {}

UploadFile& UploadFile::operator=(UploadFile&& o) noexcept {
  if (this != &o) {
    discard();
    fd_ = std::move(o.fd_);
    path_ = std::exchange(o.path_, {});
    written_ = std::exchange(o.written_, 0);
  }
  return *this;
}

bool UploadFile::create(const std::string& dir) {
  discard();
  std::string tmpl = temporaryNameFor((dir.empty() ? std::string(".") : dir) + "/.upload");
  int fd = mkstemp(tmpl.data());
  if (fd < 0) {
    LOG(LEVEL_ERROR, "could not create upload file in %s: %s", dir.c_str(), strerror(errno));
    return false;
  }
  // mkstemp makes it 0600; an installed sample or set is read by other tools too.
  fchmod(fd, 0644);
  fd_.reset(fd);
  path_ = std::move(tmpl);
  written_ = 0;
  return true;
}

bool UploadFile::write(const char* data, std::size_t size) {
  if (!fd_) {
    errno = EBADF;
    return false;
  }
  while (size > 0) {
    ssize_t n = ::write(fd_.get(), data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
    written_ += static_cast<uint64_t>(n);
  }
  return true;
}

bool UploadFile::finish() {
  if (!fd_) return exists();
  bool ok = syncFd(fd_.get()) == 0;
  int err = errno;
  if (fd_.close() != 0) {
    ok = false;
    err = errno;
  }
  if (!ok) LOG(LEVEL_ERROR, "could not write upload file %s: %s", path_.c_str(), strerror(err));
  return ok;
}

bool UploadFile::commitTo(const std::string& target) {
  if (!exists()) return false;
  if (!finish()) {
    discard();
    return false;
  }
  if (rename(path_.c_str(), target.c_str()) != 0) {
    LOG(LEVEL_ERROR, "could not move upload to %s: %s", target.c_str(), strerror(errno));
    discard();
    return false;
  }
  path_.clear();
  syncDirectoryOf(target);
  return true;
}

void UploadFile::discard() {
  fd_.reset();
  if (!path_.empty()) {
    unlink(path_.c_str());
    path_.clear();
  }
  written_ = 0;
}

long long freeSpaceOf(const std::string& dir) {
  struct statvfs st{};
  if (statvfs(dir.empty() ? "." : dir.c_str(), &st) != 0) return -1;
  return static_cast<long long>(st.f_bavail) * static_cast<long long>(st.f_frsize);
}

}  // namespace korvo
