// Crash-safe file writing. The machine's power is cut at any moment: every file the
// daemon rewrites goes to a temporary file in the same directory, is flushed with
// fsync, then renamed over the target, and the directory is synced. A cut leaves
// either the old or the new file, never an empty or half-written one.
#pragma once

#include <string>
#include <string_view>

namespace korvo {

// The temporary a writer of `path` creates beside it: a mkstemp template
// "<path>.tmpXXXXXX". Every crash-safe writer (this file's, the container writer, uploads)
// names its temporaries this way, so the start-up clean-up can find what a power cut left.
std::string temporaryNameFor(const std::string& path);
// True for a file name (no directory) made from such a template.
bool isOwnTemporary(std::string_view name);
// Removes the regular files in `dir` whose names are own temporaries, with an INFO line
// each, and in its subdirectories down to `depth` levels (symbolic links are not
// followed); nothing else is touched. Returns how many were removed.
int removeStaleTemporaries(const std::string& dir, int depth = 0);

// fsync(fd), or 0 at once when syncing is switched off. Every crash-safe writer syncs
// through this. Fuzz targets switch it off: their files are thrown away, and the disk
// must not set the pace of a run. The switch is process-wide, set before any thread writes.
int syncFd(int fd);
void setFileSyncEnabled(bool on);

// 0 on success, -1 with an ERROR line (the target is then untouched).
int writeFileAtomic(const std::string& path, std::string_view content);
// Copies `from` over `to` atomically. 0 on success, -1 with an ERROR line.
int copyFileAtomic(const std::string& from, const std::string& to);
// Syncs the directory holding `path`, so a rename into it reaches the disk too.
void syncDirectoryOf(const std::string& path);
// Reads a whole file; false if it cannot be opened or read.
bool readWholeFile(const std::string& path, std::string& out);
// Replaces each line of `path` beginning with `keyPrefix` (case-sensitive) by
// `newLine`, or appends `newLine` when none matched (or the file did not exist).
// 0 on success, -1 on failure.
int updateConfigFile(const char* path, const char* keyPrefix, const char* newLine);
bool fileExists(const std::string& path);
bool isDirectory(const std::string& path);

}  // namespace korvo
