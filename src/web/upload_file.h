// An upload on its way to disk. The bytes go to a hidden temporary file
// ("<dir>/.upload.tmpXXXXXX"; the daemon removes one a power cut left behind at start)
// in the directory of the final file, so the catalogue scan never sees it and the final rename stays on one file system. Only commitTo() makes
// it the real file; an upload that is dropped, refused or fails validation is removed
// when its UploadFile goes away, so nothing half written is ever left behind.
//
// Thread: the HTTP thread (one request owns one UploadFile through its ConnectionInfo).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/handles.h"

namespace korvo {

class UploadFile {
 public:
  UploadFile() = default;
  ~UploadFile() { discard(); }
  UploadFile(UploadFile&& o) noexcept;
  UploadFile& operator=(UploadFile&& o) noexcept;
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  // Creates the temporary file in `dir`. False with an ERROR line.
  bool create(const std::string& dir);
  // True from create() until finish(), commitTo() or discard().
  bool isOpen() const { return static_cast<bool>(fd_); }
  // True while a temporary file exists on disk (open or finished, not committed).
  bool exists() const { return !path_.empty(); }
  const std::string& tempPath() const { return path_; }
  uint64_t written() const { return written_; }

  // Appends all `size` bytes. False (errno kept) when the disk refuses them.
  bool write(const char* data, std::size_t size);
  // Flushes to the disk and closes; the temporary stays for validation. False with an
  // ERROR line when the data did not reach the disk.
  bool finish();
  // finish() if still open, then renames the temporary over `target` and syncs the
  // directory. False with an ERROR line; the temporary is then removed.
  bool commitTo(const std::string& target);
  // Closes and removes the temporary now (nothing when there is none).
  void discard();

 private:
  Fd fd_;
  std::string path_;
  uint64_t written_ = 0;
};

// Bytes an unprivileged writer may still put into the file system holding `dir`;
// -1 when it cannot be told.
long long freeSpaceOf(const std::string& dir);

}  // namespace korvo
