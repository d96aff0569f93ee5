// One read of a directory, kept so that the small per-sound files can be looked up
// (ignoring case) without reading the directory again for each of them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korvo {

struct DirEntry {
  std::string name;
  unsigned char dtype = 0;  // d_type as readdir reported it (DT_UNKNOWN possible)
};

class DirListing {
 public:
  // Reads `dir` in directory order (unsorted). ok() is false when it cannot be opened.
  explicit DirListing(const std::string& dir);
  bool ok() const { return ok_; }
  const std::string& dir() const { return dir_; }
  const std::vector<DirEntry>& entries() const { return entries_; }
  // "dir/entry" of the first entry equal to `name` ignoring case; empty if none.
  std::string find(std::string_view name) const;
  // Follows symbolic links; stats only when readdir did not tell.
  bool isDirectory(const DirEntry& e) const;
  bool isRegularFile(const DirEntry& e) const;

 private:
  std::string dir_;
  std::vector<DirEntry> entries_;
  bool ok_ = false;
};

// First integer of a text as "%d" reads it (leading white space, optional sign,
// digits; saturating). False when there is none.
bool readFirstInt(std::string_view text, int& out);
// The first line of a file (at most 1024 bytes, without its line end). False when the
// file cannot be opened.
bool readFirstLine(const std::string& path, std::string& out);

}  // namespace korvo
