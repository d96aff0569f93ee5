// Zip packing and unpacking of sound sets (uploads arrive as zip archives; a set
// directory can be packed for download). Both run on the caller's thread and touch
// only the files named; no shared state.
#pragma once

#include <zip.h>

#include <string>
#include <string_view>

namespace korvo {

// Result codes of `unzip`. Whatever the code, a failed unpack leaves nothing of the
// archive behind: the target holds what it held before the call (only missing parent
// directories of a missing target may have been made).
enum UnzipResult : int {
  UNZIP_OK = 0,              // every entry is in place
  UNZIP_ARCHIVE = 1,         // the archive cannot be opened or closed (not a zip, damaged directory)
  UNZIP_MKDIR = 2,           // a directory cannot be made (also: the target is not a directory,
                             // its parent is not writable)
  UNZIP_ENTRY_OPEN = 100,    // an entry cannot be opened (unsupported method, encrypted)
  UNZIP_DEST_CREATE = 101,   // a file cannot be created or moved into place; also an entry that
                             // would leave the target (absolute, "..") or land on a symbolic
                             // link or a different kind of file already in the target
  UNZIP_ENTRY_READ = 102,    // an entry cannot be read (short, corrupt, bad checksum)
};

// Unpacks every entry of `archive` below `target` (null or empty: the working
// directory); the target and its parents are made when missing. Entry names that are
// absolute or climb with ".." are refused before anything is written.
//
// The archive is unpacked whole into a fresh hidden directory beside the target (in
// its parent, so moving it is a rename) and moved into place only when every entry
// was read and synced: into a missing target by one rename, into an existing one
// entry by entry (existing files of the same name are replaced, others stay). A
// symbolic link already in the target is never followed or replaced: the archive is
// refused instead. Runs on the caller's thread (an HTTP upload, a test); no shared
// state.
int unzip(const char* archive, const char* target);
int unzip(const std::string& archive, const std::string& targetDir);

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
