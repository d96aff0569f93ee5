// Zip packing and unpacking of sound sets (uploads arrive as zip archives; a set
// directory can be packed for download). Both run on the caller's thread and touch
// only the files named; no shared state.
#pragma once

#include <zip.h>

#include <string>
#include <string_view>

namespace korvo {

// Result codes of `unzip`.
enum UnzipResult : int {
  UNZIP_OK = 0,
  UNZIP_ARCHIVE = 1,         // archive cannot be opened or closed
  UNZIP_MKDIR = 2,           // a directory cannot be made
  UNZIP_ENTRY_OPEN = 100,    // an entry cannot be opened
  UNZIP_DEST_CREATE = 101,   // a destination file cannot be created (or would leave the target)
  UNZIP_ENTRY_READ = 102,    // an entry cannot be read (short, corrupt, bad checksum)
};

// Unpacks every entry of `archive` below `target` (null or empty: the working
// directory). Entry names that are absolute or climb with ".." are refused before
// anything is written. Each file is written to a temporary name beside it, synced
// and renamed, so a power cut never leaves a half-written sample. An error stops at
// once; files already written stay.
int unzip(const char* archive, const char* target);

// Packs the tree below `dir` into a new archive (it must not exist yet). Hidden
// directories are skipped, hidden files are packed. 0 on success, non-zero on failure.
int pack_zip(const char* archive, const char* dir);
// Adds the contents of `dir` to `za` recursively, named relative to `base`.
void do_zip_dir(zip_t* za, const char* base, const char* dir);

// `name` alone when `dir` is null or empty; "dir" + name when dir ends in "/";
// else "dir/name".
std::string prefixDir(const char* dir, std::string_view name);

// True when `name` (an archive entry or upload name) stays below the directory it is
// resolved against: not absolute, no ".." component, no NUL.
bool isContainedPath(std::string_view name);

}  // namespace korvo
