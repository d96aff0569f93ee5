#include "soundsets/streams.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdint>

#include "base/log.h"

namespace korvo {

namespace {

unsigned ptrWord(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

CompCtx* compCtx(SDL_RWops* ctx) { return ctx ? static_cast<CompCtx*>(ctx->hidden.unknown.data1) : nullptr; }
ZipCtx* zipCtx(SDL_RWops* ctx) { return ctx ? static_cast<ZipCtx*>(ctx->hidden.unknown.data1) : nullptr; }
FILE* stdioFile(SDL_RWops* ctx) { return ctx ? static_cast<FILE*>(ctx->hidden.unknown.data1) : nullptr; }

// Streams are read-only; a write is refused rather than left as a null pointer that
// a stray SDL_RWwrite would jump through.
size_t SDLCALL refuseWrite(SDL_RWops*, const void*, size_t, size_t) {
  SDL_SetError("read-only stream");
  return 0;
}

}  // namespace

// ---- container window -------------------------------------------------------------

Sint64 rwCompSize(SDL_RWops* ctx) {
  CompCtx* c = compCtx(ctx);
  if (c == nullptr) return 0;
  LOG(LEVEL_TRACE, "comp size. size: %u", c->fileChunk.size);
  return c->fileChunk.size;
}

Sint64 rwCompSeek(SDL_RWops* ctx, Sint64 offset, int whence) {
  CompCtx* c = compCtx(ctx);
  if (c == nullptr || !c->f) return -1;
  LOG(LEVEL_TRACE, "comp seek 0x%x. offset: %lld, whence: %d", ptrWord(ctx), static_cast<long long>(offset), whence);
  const int64_t start = c->fileChunk.offset;
  const int64_t size = c->fileChunk.size;
  int rc = -1;
  switch (whence) {
    case RW_SEEK_SET:
      rc = fseeko(c->f.get(), static_cast<off_t>(start + offset), SEEK_SET);
      break;
    case RW_SEEK_END:
      rc = fseeko(c->f.get(), static_cast<off_t>(start + size + offset), SEEK_SET);
      break;
    case RW_SEEK_CUR:
      if (offset == 0) {
        rc = 0;
      } else if (c->pos + offset > size || c->pos + offset < 0) {
        // Only relative seeks are bounds-checked; the decoders seek absolutely only
        // within the file.
        LOG(LEVEL_DEBUG, "comp seek 0x%x. overflow offset: %lld, whence: %d, %u", ptrWord(ctx),
            static_cast<long long>(offset), whence, c->fileChunk.size);
        return -1;
      } else {
        rc = fseeko(c->f.get(), static_cast<off_t>(offset), SEEK_CUR);
      }
      break;
    default:
      return -1;
  }
  if (rc != 0) return -1;
  off_t now = ftello(c->f.get());
  if (now < 0) return -1;
  c->pos = static_cast<int64_t>(now) - start;
  return c->pos;
}

size_t rwCompRead(SDL_RWops* ctx, void* ptr, size_t size, size_t maxnum) {
  CompCtx* c = compCtx(ctx);
  if (c == nullptr || !c->f || size == 0 || maxnum == 0) return 0;
  const int64_t extent = c->fileChunk.size;
  uint64_t toRead = 0;
  if (__builtin_mul_overflow(static_cast<uint64_t>(size), static_cast<uint64_t>(maxnum), &toRead)) toRead = UINT64_MAX;
  if (c->pos < 0 || c->pos >= extent) {
    toRead = 0;
  } else if (toRead > static_cast<uint64_t>(extent - c->pos)) {
    toRead = static_cast<uint64_t>(extent - c->pos);
    LOG(LEVEL_TRACE, "limit toRead to size: %llu", static_cast<unsigned long long>(toRead));
  }
  // Only whole objects are handed out, and never a byte past the audio file: the
  // decoders read in blocks (2 KiB and more), and a block that crosses the end must
  // still deliver the file's last bytes, or short samples would not load at all.
  const size_t objects = static_cast<size_t>(toRead / size);
  if (objects == 0) return 0;
  LOG(LEVEL_TRACE, "comp read. pos: %lld, toRead: %llu", static_cast<long long>(c->pos),
      static_cast<unsigned long long>(toRead));
  size_t got = fread(ptr, size, objects, c->f.get());
  off_t now = ftello(c->f.get());
  if (now >= 0) c->pos = static_cast<int64_t>(now) - static_cast<int64_t>(c->fileChunk.offset);
  if (got < objects) {
    LOG(LEVEL_ERROR, "comp read. size: %zu, maxnum: %zu", size, maxnum);
    return 0;
  }
  if (c->pos > extent) {
    LOG(LEVEL_ERROR, "exceed file size: %lld %u", static_cast<long long>(c->pos), c->fileChunk.size);
    return 0;
  }
  return got;
}

int rwCompClose(SDL_RWops* ctx) {
  CompCtx* c = compCtx(ctx);
  if (c == nullptr) return 0;
  ctx->hidden.unknown.data1 = nullptr;
  LOG(LEVEL_DEBUG, "closing  0x%x", ptrWord(ctx));
  delete c;
  SDL_FreeRW(ctx);
  return 0;
}

SDL_RWops* makeCompoundRW(const char* path, const AudioSample* sample, int index) {
  SDL_RWops* rw = SDL_AllocRW();
  if (rw == nullptr) return nullptr;
  auto* c = new CompCtx();
  c->f.reset(fopen(path, "rb"));
  if (!c->f) LOG(LEVEL_ERROR, "could not open container '%s'", path);
  if (sample != nullptr && index >= 0 && static_cast<std::size_t>(index) < sample->filechunks.size()) {
    c->fileChunk = sample->filechunks[static_cast<std::size_t>(index)];
  } else {
    // An empty extent: every read ends the stream at once.
    LOG(LEVEL_ERROR, "no file chunk %d for sound %u", index, sample ? sample->id : 0u);
  }
  LOG(LEVEL_TRACE, "seeking to %u", c->fileChunk.offset);
  if (c->f && fseeko(c->f.get(), static_cast<off_t>(c->fileChunk.offset), SEEK_SET) != 0) LOG(LEVEL_ERROR, "seek failed");
  rw->size = rwCompSize;
  rw->seek = rwCompSeek;
  rw->read = rwCompRead;
  rw->write = refuseWrite;
  rw->close = rwCompClose;
  rw->type = SDL_RWOPS_MEMORY_RO;
  rw->hidden.unknown.data1 = c;
  LOG(LEVEL_DEBUG, "open for %s(%d) %s = 0x%x", sample ? sample->name.c_str() : "", index, "", ptrWord(rw));
  return rw;
}

// ---- zip entry ----------------------------------------------------------------------

Sint64 rwZipSize(SDL_RWops* ctx) {
  ZipCtx* z = zipCtx(ctx);
  if (z == nullptr || !z->a || z->idx < 0) return 0;
  zip_stat_t st;
  if (zip_stat_index(z->a.get(), static_cast<zip_uint64_t>(z->idx), 0, &st) != 0 || !(st.valid & ZIP_STAT_SIZE)) return 0;
  return static_cast<Sint64>(st.size);
}

namespace {

// Reopens the entry at its start (a compressed entry cannot seek backwards).
bool reopenZipEntry(ZipCtx* z) {
  z->f.reset();
  z->f.reset(zip_fopen_index(z->a.get(), static_cast<zip_uint64_t>(z->idx), 0));
  z->pos = 0;
  return z->f.get() != nullptr;
}

}  // namespace

Sint64 rwZipSeek(SDL_RWops* ctx, Sint64 offset, int whence) {
  ZipCtx* z = zipCtx(ctx);
  if (z == nullptr || !z->f) return -1;
  const int64_t size = rwZipSize(ctx);
  int64_t target = whence == RW_SEEK_CUR ? z->pos + offset : whence == RW_SEEK_END ? size + offset : offset;
  if (target < 0 || target > size) return -1;
  // Stored entries seek directly; compressed ones are read forward to the target,
  // from the start again when it lies behind. The new position is returned: the
  // mixer's decoders take SDL_RWtell (a seek by 0) as the position.
  if (z->stored) {
    if (zip_fseek(z->f.get(), target, SEEK_SET) != 0) return -1;
    z->pos = target;
    return target;
  }
  if (target < z->pos && !reopenZipEntry(z)) return -1;
  char scratch[4096];
  while (z->pos < target) {
    zip_int64_t n = zip_fread(z->f.get(), scratch, static_cast<zip_uint64_t>(std::min<int64_t>(target - z->pos, sizeof scratch)));
    if (n <= 0) return -1;
    z->pos += n;
  }
  return z->pos;
}

size_t rwZipRead(SDL_RWops* ctx, void* ptr, size_t size, size_t maxnum) {
  ZipCtx* z = zipCtx(ctx);
  if (z == nullptr || !z->f || size == 0) return 0;
  zip_uint64_t want = 0;
  if (__builtin_mul_overflow(static_cast<zip_uint64_t>(size), static_cast<zip_uint64_t>(maxnum), &want)) return 0;
  zip_int64_t got = zip_fread(z->f.get(), ptr, want);
  if (got < 0) got = 0;
  z->pos += got;
  // A short read at the end of the entry is the normal end of a decode.
  if (static_cast<zip_uint64_t>(got) < want && z->pos < rwZipSize(ctx)) LOG(LEVEL_ERROR, "not enough data in zip");
  return static_cast<size_t>(got) / size;
}

int rwZipClose(SDL_RWops* ctx) {
  ZipCtx* z = zipCtx(ctx);
  if (z != nullptr) {
    // The handles close the entry, then discard the read-only archive.
    delete z;
  }
  if (ctx) SDL_FreeRW(ctx);
  return 0;
}

SDL_RWops* makeZipRW(const char* zipPath, const AudioSample* sample, int index) {
  SDL_RWops* rw = SDL_AllocRW();
  if (rw == nullptr) return nullptr;
  auto* z = new ZipCtx();
  int err = 0;
  z->a.reset(zip_open(zipPath, ZIP_RDONLY, &err));
  const char* entry = (sample != nullptr && index >= 0 && static_cast<std::size_t>(index) < sample->samples.size())
                          ? sample->samples[static_cast<std::size_t>(index)].c_str()
                          : "";
  if (z->a) {
    z->idx = zip_name_locate(z->a.get(), entry, 0);
    if (z->idx >= 0) z->f.reset(zip_fopen_index(z->a.get(), static_cast<zip_uint64_t>(z->idx), 0));
    zip_stat_t st;
    // A failed zip_fseek leaves the entry in an error state, so only stored entries
    // are ever asked to seek.
    z->stored = z->f.get() != nullptr && zip_stat_index(z->a.get(), static_cast<zip_uint64_t>(z->idx), 0, &st) == 0 &&
                (st.valid & ZIP_STAT_COMP_METHOD) && st.comp_method == ZIP_CM_STORE &&
                (!(st.valid & ZIP_STAT_ENCRYPTION_METHOD) || st.encryption_method == ZIP_EM_NONE);
  }
  if (!z->f) LOG(LEVEL_ERROR, "could not find zip entry %s", entry);
  rw->size = rwZipSize;
  rw->seek = rwZipSeek;
  rw->read = rwZipRead;
  rw->write = refuseWrite;
  rw->close = rwZipClose;
  rw->type = SDL_RWOPS_UNKNOWN;
  rw->hidden.unknown.data1 = z;
  return rw;
}

// ---- stdio file ---------------------------------------------------------------------

Sint64 stdio_size(SDL_RWops* ctx) {
  FILE* f = stdioFile(ctx);
  if (f == nullptr) return -1;
  off_t here = ftello(f);
  if (here < 0 || fseeko(f, 0, SEEK_END) != 0) return -1;
  off_t size = ftello(f);
  fseeko(f, here, SEEK_SET);
  return static_cast<Sint64>(size);
}

Sint64 stdio_seek(SDL_RWops* ctx, Sint64 offset, int whence) {
  FILE* f = stdioFile(ctx);
  int w = whence == RW_SEEK_CUR ? SEEK_CUR : whence == RW_SEEK_END ? SEEK_END : SEEK_SET;
  if (f != nullptr && fseeko(f, static_cast<off_t>(offset), w) == 0) {
    Sint64 pos = static_cast<Sint64>(ftello(f));
    LOG(LEVEL_TRACE, "stdio_seek seek 0x%x. offset: %lld, whence: %d -> %lld", ptrWord(ctx),
        static_cast<long long>(offset), whence, static_cast<long long>(pos));
    return pos;
  }
  LOG(LEVEL_TRACE, "stdio_seek seek 0x%x. offset: %lld, whence: %d -> -1", ptrWord(ctx), static_cast<long long>(offset),
      whence);
  return -1;
}

size_t stdio_read(SDL_RWops* ctx, void* ptr, size_t size, size_t maxnum) {
  FILE* f = stdioFile(ctx);
  if (f == nullptr || size == 0) return 0;
  long long pos = static_cast<long long>(ftello(f));
  size_t n = fread(ptr, size, maxnum, f);
  LOG(LEVEL_TRACE, "stdio_read read 0x%x. pos: %lld, toRead: %zu -> %zu", ptrWord(ctx), pos, size * maxnum, n);
  return n;
}

int stdio_close(SDL_RWops* ctx) {
  if (ctx == nullptr) return 0;
  FILE* f = stdioFile(ctx);
  int rc = 0;
  if (f != nullptr && ctx->hidden.unknown.data2 != nullptr && fclose(f) != 0) rc = -1;
  SDL_FreeRW(ctx);
  return rc;
}

SDL_RWops* RWFromFP(FILE* fp, bool autoClose) {
  SDL_RWops* rw = SDL_AllocRW();
  if (rw == nullptr) return nullptr;
  rw->size = stdio_size;
  rw->seek = stdio_seek;
  rw->read = stdio_read;
  rw->write = refuseWrite;
  rw->close = stdio_close;
  rw->type = SDL_RWOPS_STDFILE;
  rw->hidden.unknown.data1 = fp;
  rw->hidden.unknown.data2 = autoClose ? reinterpret_cast<void*>(1) : nullptr;
  return rw;
}

}  // namespace korvo
