// Owning handles for the C libraries' objects. Every file, directory, archive, stream,
// chunk and daemon the program opens is held by one of these, so an early return or an
// exception closes it exactly once; no code writes its own close or one-off deleter.
//
// A handle is a std::unique_ptr whose deleter calls the library's release function on a
// non-null pointer. `Fd` is the same for POSIX file descriptors.
#pragma once

#include <SDL2/SDL_mixer.h>
#include <dirent.h>
#include <libxml/tree.h>
#include <netdb.h>
#include <regex.h>
#include <unistd.h>
#include <zip.h>
#include <zlib.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace korvo {

template <auto Release>
struct ReleaseWith {
  template <class T>
  void operator()(T* p) const noexcept {
    if (p) Release(p);
  }
};

template <class T, auto Release>
using Handle = std::unique_ptr<T, ReleaseWith<Release>>;

using FileHandle = Handle<FILE, std::fclose>;      // fopen / fdopen
using PipeHandle = Handle<FILE, ::pclose>;         // popen (only for fixed command texts)
using DirHandle = Handle<DIR, ::closedir>;         // opendir
using GzHandle = Handle<gzFile_s, ::gzclose>;      // gzopen
using ZipHandle = Handle<zip_t, ::zip_discard>;    // zip_open: discard = close without writing;
                                                   // call zip_close(h.release()) to commit
using ZipFileHandle = Handle<zip_file_t, ::zip_fclose>;  // zip_fopen_index
using ZipSourceHandle = Handle<zip_source_t, ::zip_source_free>;
using XmlDocHandle = Handle<xmlDoc, ::xmlFreeDoc>;     // xmlReadMemory / xmlReadFile
using AddrInfoHandle = Handle<addrinfo, ::freeaddrinfo>;  // getaddrinfo
using RWopsHandle = Handle<SDL_RWops, SDL_RWclose>;      // SDL_RWFromFile / own streams
using ChunkHandle = Handle<Mix_Chunk, Mix_FreeChunk>;    // Mix_LoadWAV_RW
using MusicHandle = Handle<Mix_Music, Mix_FreeMusic>;    // Mix_LoadMUS_RW

// A regex_t compiled with regcomp; regfree on destruction.
struct RegexRelease {
  void operator()(regex_t* r) const noexcept {
    if (r) {
      regfree(r);
      delete r;
    }
  }
};
using RegexHandle = std::unique_ptr<regex_t, RegexRelease>;

// An owned POSIX file descriptor (-1 = none).
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  Fd& operator=(Fd&& o) noexcept {
    if (this != &o) reset(std::exchange(o.fd_, -1));
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  // Closes now and reports close's result (write errors of NFS-like targets surface
  // here); 0 when there was nothing to close.
  int close() { return fd_ >= 0 ? ::close(std::exchange(fd_, -1)) : 0; }

 private:
  int fd_ = -1;
};

}  // namespace korvo
