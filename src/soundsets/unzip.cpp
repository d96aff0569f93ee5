#include "soundsets/unzip.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {

namespace fs = std::filesystem;

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

// Copies the entry's bytes to `fd` until its stated size is reached.
int copyEntry(zip_file_t* zf, const zip_stat_t& st, int fd, const std::string& dest) {
  // Small blocks keep the footprint low on the board; the entry's size decides the end.
  char buf[100];
  zip_uint64_t sum = 0;
  const zip_uint64_t total = (st.valid & ZIP_STAT_SIZE) ? st.size : 0;
  while (sum < total) {
    zip_int64_t len = zip_fread(zf, buf, sizeof buf);
    if (len <= 0) {  // an error, or an entry shorter than its stated size
      LOG(LEVEL_ERROR, "len does not match, zip corrupt?");
      return UNZIP_ENTRY_READ;
    }
    if (!writeAll(fd, buf, static_cast<std::size_t>(len))) {
      LOG(LEVEL_ERROR, "cant write destination file: %s: %s", dest.c_str(), strerror(errno));
      return UNZIP_DEST_CREATE;
    }
    sum += static_cast<zip_uint64_t>(len);
  }
  return UNZIP_OK;
}

// Writes one entry to `dest` inside the private staging directory.
int extractEntry(zip_t* za, zip_uint64_t index, const zip_stat_t& st, const std::string& dest) {
  ZipFileHandle zf(zip_fopen_index(za, index, 0));
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
  Fd fd(::open(dest.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd) {
    LOG(LEVEL_ERROR, "cant open destination file: %s", dest.c_str());
    return UNZIP_DEST_CREATE;
  }
  fchmod(fd.get(), 0644);
  int rc = copyEntry(zf.get(), st, fd.get(), dest);
  if (rc == UNZIP_OK && (syncFd(fd.get()) != 0 || fd.close() != 0)) {
    LOG(LEVEL_ERROR, "cant write destination file: %s: %s", dest.c_str(), strerror(errno));
    rc = UNZIP_DEST_CREATE;
  }
  // libzip checks the CRC when the entry is closed after a full read.
  if (rc == UNZIP_OK && zip_fclose(zf.release()) != 0) {
    LOG(LEVEL_ERROR, "len does not match, zip corrupt?");
    rc = UNZIP_ENTRY_READ;
  }
  return rc;
}

// Refuses the whole archive before anything is written when one entry would land
// outside the target: a half-unpacked hostile archive is worse than none.
bool entriesStayInside(zip_t* za, const char* archive) {
  const zip_int64_t count = zip_get_num_entries(za, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t st;
    if (zip_stat_index(za, static_cast<zip_uint64_t>(i), 0, &st) != 0 || !(st.valid & ZIP_STAT_NAME)) continue;
    if (!isContainedPath(st.name)) {
      LOG(LEVEL_ERROR, "refusing zip entry '%s' of '%s': it leaves the target directory", st.name, archive);
      return false;
    }
  }
  return true;
}

// Every entry, in index order, below the staging directory.
int extractAll(zip_t* za, const std::string& stage) {
  const zip_int64_t count = zip_get_num_entries(za, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t st;
    if (zip_stat_index(za, static_cast<zip_uint64_t>(i), 0, &st) != 0 || !(st.valid & ZIP_STAT_NAME)) continue;
    std::string_view name(st.name);
    if (name.empty()) continue;
    if (name.back() == '/') {
      LOG(LEVEL_DEBUG, "mkdir %s", st.name);
      std::string dir = prefixDir(stage.c_str(), name);
      if (!makeDirs(dir)) {
        LOG(LEVEL_ERROR, "cant make directory %s: %s", dir.c_str(), strerror(errno));
        return UNZIP_MKDIR;
      }
      continue;
    }
    int rc = extractEntry(za, static_cast<zip_uint64_t>(i), st, prefixDir(stage.c_str(), name));
    if (rc != UNZIP_OK) return rc;
  }
  return UNZIP_OK;
}

// A fresh directory the archive is unpacked into before it is moved into place;
// removed with everything in it unless the move took it.
class Staging {
 public:
  // In the target's parent, so that the move is a rename on the same file system.
  bool create(const fs::path& target) {
    std::string pattern = (target.parent_path() / ("." + target.filename().string() + ".unzip.tmpXXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) return false;
    dir_ = pattern;
    ::chmod(dir_.c_str(), 0755);
    return true;
  }
  ~Staging() {
    if (dir_.empty()) return;
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

// True when moving the staged tree `from` into `to` replaces nothing but plain files:
// an existing symbolic link is never followed nor replaced, and a file never takes
// the place of a directory (or the other way round).
bool mergeIsSafe(const std::string& from, const std::string& to, const std::string& rel) {
  DirHandle d(opendir(from.c_str()));
  if (!d) return false;
  while (dirent* e = readdir(d.get())) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    const std::string src = from + "/" + e->d_name, dst = to + "/" + e->d_name, name = rel + e->d_name;
    struct stat s{}, t{};
    if (::lstat(dst.c_str(), &t) != 0) continue;  // new here
    if (::lstat(src.c_str(), &s) != 0) return false;
    if (S_ISLNK(t.st_mode)) {
      LOG(LEVEL_ERROR, "refusing zip entry '%s': it is a symbolic link in the target directory", name.c_str());
      return false;
    }
    if (S_ISDIR(s.st_mode) != S_ISDIR(t.st_mode)) {
      LOG(LEVEL_ERROR, "refusing zip entry '%s': the target directory holds another kind of file there", name.c_str());
      return false;
    }
    if (S_ISDIR(s.st_mode) && !mergeIsSafe(src, dst, name + "/")) return false;
  }
  return true;
}

// Moves the staged tree into `to`: new names by rename, existing directories entry by
// entry, existing files replaced by rename. mergeIsSafe ran first.
bool mergeInto(const std::string& from, const std::string& to) {
  std::vector<std::string> names;  // read first: the loop below empties the directory
  {
    DirHandle d(opendir(from.c_str()));
    if (!d) return false;
    while (dirent* e = readdir(d.get()))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
  }
  bool ok = true;
  for (const std::string& name : names) {
    const std::string src = from + "/" + name, dst = to + "/" + name;
    struct stat t{};
    if (::lstat(dst.c_str(), &t) == 0 && S_ISDIR(t.st_mode)) {
      ok = mergeInto(src, dst) && ok;
    } else if (::rename(src.c_str(), dst.c_str()) != 0) {
      LOG(LEVEL_ERROR, "cant move %s to %s: %s", src.c_str(), dst.c_str(), strerror(errno));
      ok = false;
    }
  }
  syncDirectoryOf(to + "/.");
  return ok;
}

// The target as a directory path without a trailing separator ("." when none given);
// an existing target is taken where it really lies.
fs::path targetPath(const char* target) {
  fs::path p = fs::absolute((target == nullptr || *target == '\0') ? "." : target).lexically_normal();
  if (p.filename().empty()) p = p.parent_path();
  std::error_code ec;
  fs::path real = fs::canonical(p, ec);
  return ec ? p : real;
}

// Puts the complete staged tree in place.
int moveIntoPlace(Staging& stage, const fs::path& target) {
  struct stat st{};
  if (::lstat(target.c_str(), &st) != 0) {
    if (::rename(stage.dir().c_str(), target.c_str()) != 0) {
      LOG(LEVEL_ERROR, "cant make directory %s: %s", target.c_str(), strerror(errno));
      return UNZIP_MKDIR;
    }
    syncDirectoryOf(target.string());
    return UNZIP_OK;
  }
  if (!S_ISDIR(st.st_mode)) {
    LOG(LEVEL_ERROR, "cant make directory %s: not a directory", target.c_str());
    return UNZIP_MKDIR;
  }
  if (!mergeIsSafe(stage.dir(), target.string(), "")) return UNZIP_DEST_CREATE;
  return mergeInto(stage.dir(), target.string()) ? UNZIP_OK : UNZIP_DEST_CREATE;
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
  ZipHandle za(zip_open(archive, ZIP_RDONLY, &err));
  if (!za) {
    zip_error_t error;
    zip_error_init_with_code(&error, err);
    LOG(LEVEL_ERROR, "can't open zip archive `%s': %s/n", archive, zip_error_strerror(&error));
    zip_error_fini(&error);
    return UNZIP_ARCHIVE;
  }
  if (!entriesStayInside(za.get(), archive)) return UNZIP_DEST_CREATE;
  const fs::path dest = targetPath(target);
  Staging stage;
  if (!makeDirs(dest.parent_path().string()) || !stage.create(dest)) {
    LOG(LEVEL_ERROR, "cant make directory %s: %s", dest.parent_path().c_str(), strerror(errno));
    return UNZIP_MKDIR;
  }
  int rc = extractAll(za.get(), stage.dir());
  if (rc != UNZIP_OK) return rc;
  if (zip_close(za.get()) != 0) {
    LOG(LEVEL_ERROR, "can't close zip archive '%s'", archive);
    return UNZIP_ARCHIVE;
  }
  za.release();  // closed
  return moveIntoPlace(stage, dest);
}

int unzip(const std::string& archive, const std::string& targetDir) { return unzip(archive.c_str(), targetDir.c_str()); }

void do_zip_dir(zip_t* za, const char* base, const char* dir) {
  DirHandle d(opendir(dir));
  if (!d) {
    LOG(LEVEL_ERROR, "open dir %s", dir);
    return;
  }
  const std::size_t baseLen = strlen(base);
  while (struct dirent* e = readdir(d.get())) {
    std::string path = strFormat("%s/%s", dir, e->d_name);
    struct stat st{};
    if (::lstat(path.c_str(), &st) != 0) continue;
    // Name inside the archive: relative to `base`, without a leading '/'.
    std::string rel = path.substr(std::min(baseLen, path.size()));
    while (!rel.empty() && rel.front() == '/') rel.erase(0, 1);
    if (S_ISREG(st.st_mode)) {
      ZipSourceHandle src(zip_source_file(za, path.c_str(), 0, -1));
      LOG(LEVEL_DEBUG, "adding %s to zip", path.c_str());
      if (!src || zip_file_add(za, rel.c_str(), src.get(), ZIP_FL_ENC_UTF_8) < 0) {
        LOG(LEVEL_ERROR, "reading / adding zip source '%s': %s", path.c_str(), zip_strerror(za));
      } else {
        src.release();  // the archive owns it now
      }
    } else if (S_ISDIR(st.st_mode) && e->d_name[0] != '.') {
      LOG(LEVEL_DEBUG, "adding dir %s to zip", path.c_str());
      if (zip_dir_add(za, rel.c_str(), ZIP_FL_ENC_UTF_8) < 0) LOG(LEVEL_ERROR, "adding dir to zip: %s", zip_strerror(za));
      do_zip_dir(za, base, path.c_str());
    }
  }
}

int pack_zip(const char* archive, const char* dir) {
  LOG(LEVEL_INFO, "creating zip '%s' of dir '%s'", archive, dir);
  int err = 0;
  ZipHandle za(zip_open(archive, ZIP_CREATE | ZIP_EXCL, &err));
  if (!za) {
    zip_error_t error;
    zip_error_init_with_code(&error, err);
    LOG(LEVEL_ERROR, "open zip archive: %s", zip_error_strerror(&error));
    zip_error_fini(&error);
    return 1;
  }
  do_zip_dir(za.get(), dir, dir);
  LOG(LEVEL_INFO, "closing zip '%s'", archive);
  if (zip_close(za.get()) != 0) {
    LOG(LEVEL_ERROR, "can't close zip archive '%s': %s", archive, zip_strerror(za.get()));
    return 1;
  }
  za.release();  // closed
  return 0;
}

}  // namespace korvo
