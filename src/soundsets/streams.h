// Read-only SDL_RWops streams the mixer decodes samples from: a window onto one
// audio file inside an xsnd container, one entry of a zip archive, and a stdio file.
//
// A stream serves one decode (the mixer reads the whole sample, then closes it) and
// owns the file or archive it opened; every stream opens its source anew, so any
// number may be open on one container at once. Streams are not shared between
// threads. Creation never fails for a bad entry or a failed seek: it logs and hands
// back a stream whose reads fail, so the mixer's load reports the error.
#pragma once

#include <SDL2/SDL_rwops.h>
#include <zip.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "base/handles.h"
#include "soundsets/model.h"

namespace korvo {

// State of a container stream. `pos` is relative to the first audio byte; the chunk
// is a copy of the sample's entry, so the record may change while the stream is open.
struct CompCtx {
  FileHandle f;
  int64_t pos = 0;
  CompFileChunk fileChunk;
};

// State of a zip stream; `pos` is the position in the uncompressed entry.
struct ZipCtx {
  ZipHandle a;
  ZipFileHandle f;  // declared after `a`: closed before the archive
  int64_t idx = -1;
  int64_t pos = 0;
  bool stored = false;  // uncompressed: zip_fseek works
};

// Reads never go past the audio file's extent: a read crossing its end delivers the
// whole objects that fit. Relative seeks are bounds-checked, absolute ones are not
// (reads outside the extent answer end of stream).
// Stream over audio file `index` of `sample` inside the container at `path`.
SDL_RWops* makeCompoundRW(const char* path, const AudioSample* sample, int index);
// Stream over the zip entry named by `sample->samples[index]`.
SDL_RWops* makeZipRW(const char* zipPath, const AudioSample* sample, int index);
// Stream over an open stdio file; null when memory runs out.
SDL_RWops* RWFromFP(FILE* fp, bool autoClose);

// The installed operations (exposed for tests of their edge semantics).
Sint64 rwCompSize(SDL_RWops* ctx);
Sint64 rwCompSeek(SDL_RWops* ctx, Sint64 offset, int whence);
size_t rwCompRead(SDL_RWops* ctx, void* ptr, size_t size, size_t maxnum);
int rwCompClose(SDL_RWops* ctx);
Sint64 rwZipSize(SDL_RWops* ctx);
// The new position, or -1. Compressed entries seek by reading (backwards: from the
// start again).
Sint64 rwZipSeek(SDL_RWops* ctx, Sint64 offset, int whence);
size_t rwZipRead(SDL_RWops* ctx, void* ptr, size_t size, size_t maxnum);
int rwZipClose(SDL_RWops* ctx);
Sint64 stdio_size(SDL_RWops* ctx);
Sint64 stdio_seek(SDL_RWops* ctx, Sint64 offset, int whence);
size_t stdio_read(SDL_RWops* ctx, void* ptr, size_t size, size_t maxnum);
int stdio_close(SDL_RWops* ctx);

}  // namespace korvo
