#include "soundsets/unzip.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <memory>

#include "base/fileutil.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {

struct ZipFileCloser {
  void operator()(zip_file_t* f) const {
    if (f) zip_fclose(f);
  }
};
using ZipFilePtr = std::unique_ptr<zip_file_t, ZipFileCloser>;

// mkdir -p with mode 0755; true when the directory exists afterwards.
bool makeDirs(const std::string& path) {
  if (path.empty()) return true;
  struct stat st{};
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  for (std::size_t pos = 1; pos < path.size(); ++pos) {
    if (path[pos] != '/') continue;
    std::string part = path.substr(0, pos);
    if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool writeAll(int fd, const char* data, std::size_t len) {
  while (len > 0) {
    ssize_t n = ::write(fd, data, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

// Copies one entry to `dest` through a temporary file in the same directory.
int extractEntry(zip_t* za, zip_uint64_t index, const zip_stat_t& st, const std::string& dest) {
  ZipFilePtr zf(zip_fopen_index(za, index, 0));
  if (!zf) {
    LOG(LEVEL_ERROR, "cant open zip file index");
    return UNZIP_ENTRY_OPEN;
  }
  LOG(LEVEL_INFO, "writing %s", dest.c_str());
  auto slash = dest.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !makeDirs(dest.substr(0, slash))) {
    LOG(LEVEL_ERROR, "cant open destination file: %s", dest.c_str());
    return UNZIP_DEST_CREATE;
  }
  std::string tmp = dest + ".tmpXXXXXX";
  int fd = mkstemp(tmp.data());
  if (fd < 0) {
    LOG(LEVEL_ERROR, "cant open destination file: %s", dest.c_str());
    return UNZIP_DEST_CREATE;
  }
  fchmod(fd, 0644);
  // Small blocks keep the footprint low on the board; the entry's size decides the end.
  char buf[100];
  zip_uint64_t sum = 0;
  const zip_uint64_t total = (st.valid & ZIP_STAT_SIZE) ? st.size : 0;
  int rc = UNZIP_OK;
  while (sum < total) {
    zip_int64_t len = zip_fread(zf.get(), buf, sizeof buf);
    if (len <= 0) {  // an error, or an entry shorter than its stated size
      LOG(LEVEL_ERROR, "len does not match, zip corrupt?");
      rc = UNZIP_ENTRY_READ;
      break;
    }
    if (!writeAll(fd, buf, static_cast<std::size_t>(len))) {
      LOG(LEVEL_ERROR, "cant write destination file: %s: %s", dest.c_str(), strerror(errno));
      rc = UNZIP_DEST_CREATE;
      break;
    }
    sum += static_cast<zip_uint64_t>(len);
  }
  if (rc == UNZIP_OK && fsync(fd) != 0) {
    LOG(LEVEL_ERROR, "cant write destination file: %s: %s", dest.c_str(), strerror(errno));
    rc = UNZIP_DEST_CREATE;
  }
  ::close(fd);
  // libzip checks the CRC when the entry is closed after a full read.
  if (rc == UNZIP_OK && zip_fclose(zf.release()) != 0) {
    LOG(LEVEL_ERROR, "len does not match, zip corrupt?");
    rc = UNZIP_ENTRY_READ;
  }
  if (rc == UNZIP_OK && ::rename(tmp.c_str(), dest.c_str()) != 0) {
    LOG(LEVEL_ERROR, "cant open destination file: %s", dest.c_str());
    rc = UNZIP_DEST_CREATE;
  }
  if (rc != UNZIP_OK) {
    ::unlink(tmp.c_str());
    return rc;
  }
  syncDirectoryOf(dest);
  return UNZIP_OK;
}

}  // namespace

bool isContainedPath(std::string_view name) {
  if (name.empty()) return true;
  if (name.front() == '/' || name.find('\0') != std::string_view::npos) return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    if (name.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string prefixDir(const char* dir, std::string_view name) {
  if (dir == nullptr || *dir == '\0') return std::string(name);
  std::string out(dir);
  if (out.back() != '/') out += '/';
  out.append(name);
  return out;
}

int unzip(const char* archive, const char* target) {
  int err = 0;
  zip_t* za = zip_open(archive, ZIP_RDONLY, &err);
  if (za == nullptr) {
    zip_error_t error;
    zip_error_init_with_code(&error, err);
    LOG(LEVEL_ERROR, "can't open zip archive `%s': %s/n", archive, zip_error_strerror(&error));
    zip_error_fini(&error);
    return UNZIP_ARCHIVE;
  }
  const zip_int64_t count = zip_get_num_entries(za, 0);
  // Refuse the whole archive before anything is written when one entry would land
  // outside the target: a half-unpacked hostile archive is worse than none.
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t st;
    if (zip_stat_index(za, static_cast<zip_uint64_t>(i), 0, &st) != 0 || !(st.valid & ZIP_STAT_NAME)) continue;
    if (!isContainedPath(st.name)) {
      LOG(LEVEL_ERROR, "refusing zip entry '%s' of '%s': it leaves the target directory", st.name, archive);
      zip_discard(za);
      return UNZIP_DEST_CREATE;
    }
  }
  int rc = UNZIP_OK;
  for (zip_int64_t i = 0; i < count && rc == UNZIP_OK; ++i) {
    zip_stat_t st;
    if (zip_stat_index(za, static_cast<zip_uint64_t>(i), 0, &st) != 0 || !(st.valid & ZIP_STAT_NAME)) continue;
    std::string_view name(st.name);
    if (name.empty()) continue;
    if (name.back() == '/') {
      LOG(LEVEL_DEBUG, "mkdir %s", st.name);
      std::string dir = prefixDir(target, name);
      if (!makeDirs(dir)) {
        LOG(LEVEL_ERROR, "cant make directory %s: %s", dir.c_str(), strerror(errno));
        rc = UNZIP_MKDIR;
      }
      continue;
    }
    rc = extractEntry(za, static_cast<zip_uint64_t>(i), st, prefixDir(target, name));
  }
  if (rc != UNZIP_OK) {
    zip_discard(za);
    return rc;
  }
  if (zip_close(za) != 0) {
    LOG(LEVEL_ERROR, "can't close zip archive '%s'", archive);
    zip_discard(za);
    return UNZIP_ARCHIVE;
  }
  return UNZIP_OK;
}

void do_zip_dir(zip_t* za, const char* base, const char* dir) {
  DIR* d = opendir(dir);
  if (d == nullptr) {
    LOG(LEVEL_ERROR, "open dir %s", dir);
    return;
  }
  const std::size_t baseLen = strlen(base);
  while (struct dirent* e = readdir(d)) {
    std::string path = strFormat("%s/%s", dir, e->d_name);
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0) continue;
    // Name inside the archive: relative to `base`, without a leading '/'.
    std::string rel = path.substr(std::min(baseLen, path.size()));
    while (!rel.empty() && rel.front() == '/') rel.erase(0, 1);
    if (S_ISREG(st.st_mode)) {
      zip_source_t* src = zip_source_file(za, path.c_str(), 0, -1);
      LOG(LEVEL_DEBUG, "adding %s to zip", path.c_str());
      if (src == nullptr || zip_file_add(za, rel.c_str(), src, ZIP_FL_ENC_UTF_8) < 0) {
        LOG(LEVEL_ERROR, "reading / adding zip source '%s': %s", path.c_str(), zip_strerror(za));
        if (src) zip_source_free(src);
      }
    } else if (S_ISDIR(st.st_mode) && e->d_name[0] != '.') {
      LOG(LEVEL_DEBUG, "adding dir %s to zip", path.c_str());
      if (zip_dir_add(za, rel.c_str(), ZIP_FL_ENC_UTF_8) < 0) {
        LOG(LEVEL_ERROR, "adding dir to zip: %s", zip_strerror(za));
      }
      do_zip_dir(za, base, path.c_str());
    }
  }
  closedir(d);
}

int pack_zip(const char* archive, const char* dir) {
  LOG(LEVEL_INFO, "creating zip '%s' of dir '%s'", archive, dir);
  int err = 0;
  zip_t* za = zip_open(archive, ZIP_CREATE | ZIP_EXCL, &err);
  if (za == nullptr) {
    zip_error_t error;
    zip_error_init_with_code(&error, err);
    LOG(LEVEL_ERROR, "open zip archive: %s", zip_error_strerror(&error));
    zip_error_fini(&error);
    return 1;
  }
  do_zip_dir(za, dir, dir);
  LOG(LEVEL_INFO, "closing zip '%s'", archive);
  if (zip_close(za) != 0) {
    LOG(LEVEL_ERROR, "can't close zip archive '%s': %s", archive, zip_strerror(za));
    zip_discard(za);
    return 1;
  }
  return 0;
}

}  // namespace korvo
