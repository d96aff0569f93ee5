// Container operations that write: new containers, appended and deleted audio files,
// audio copied out.
#include "soundsets/xsnd.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {

constexpr std::size_t kCopyBlock = 4096;

// Copies up to `limit` bytes (all when limit < 0) from `src` to `dest` in 4096-byte
// blocks. The bytes copied, or -1 on a write error.
int64_t copyBlocks(FILE* src, FILE* dest, int64_t limit) {
  char buf[kCopyBlock];
  int64_t total = 0;
  while (limit < 0 || total < limit) {
    std::size_t want = kCopyBlock;
    if (limit >= 0) want = static_cast<std::size_t>(std::min<int64_t>(limit - total, kCopyBlock));
    std::size_t n = fread(buf, 1, want, src);
    if (n == 0) break;
    if (!writeAllStdio(dest, buf, n)) return -1;
    total += static_cast<int64_t>(n);
  }
  return total;
}

// Where the audio of one file comes from when it is written into a container.
struct AudioSource {
  std::string path;  // a plain file, or the container holding the bytes
  bool inContainer = false;
  CompFileChunk chunk;  // when inContainer
};

enum class ChunkResult { OK, SOURCE_FAILED, CONTAINER_FAILED };

// Copies the audio bytes of `src` to the current position of `f`.
int copySource(FILE* f, const AudioSource& src) {
  if (!src.inContainer) return appendFile(f, src.path);
  FileHandle in(fopen(src.path.c_str(), "rb"));
  if (!in || fseeko(in.get(), static_cast<off_t>(src.chunk.offset), SEEK_SET) != 0) {
    LOG(LEVEL_ERROR, "error open %s", src.path.c_str());
    return -1;
  }
  if (copyBlocks(in.get(), f, src.chunk.size) != static_cast<int64_t>(src.chunk.size)) {
    LOG(LEVEL_ERROR, "error append file from %s , errno %d", src.path.c_str(), errno);
    return -1;
  }
  return 0;
}

uint64_t sourceSize(const AudioSource& src) {
  if (src.inContainer) return src.chunk.size;
  struct stat st{};
  return ::stat(src.path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// Frames one xSMP chunk at the current position of `f` and copies the source into it;
// its offset and size go to `out`. No audio byte may lie past `limit`: the check runs
// before the copy (with the source's size) and after it (with what landed).
ChunkResult writeChunkFrom(FILE* f, const AudioSource& src, CompFileChunk& out, uint64_t limit) {
  out = CompFileChunk{};
  long headerPos = writeChunkHeaderPlaceHolder(f);
  if (headerPos < 0 || !writeUint16(f, 1)) return ChunkResult::CONTAINER_FAILED;
  const off_t start = ftello(f);
  const uint64_t expected = sourceSize(src);
  if (start < 0 || static_cast<uint64_t>(start) + expected > limit) return ChunkResult::CONTAINER_FAILED;
  out.offset = static_cast<uint32_t>(start);
  out.size = static_cast<uint32_t>(expected);
  LOG(LEVEL_INFO, "writing %d byte @ %u to comp file", static_cast<int>(out.size), out.offset);
  const int rc = copySource(f, src);
  if (ferror(f)) return ChunkResult::CONTAINER_FAILED;
  const off_t end = ftello(f);
  if (end < 0 || static_cast<uint64_t>(end) > limit) return ChunkResult::CONTAINER_FAILED;
  // The chunk describes what actually landed, even when the source was short.
  out.size = static_cast<uint32_t>(end - start);
  ChunkHeader h = makeChunkHeader("xSMP", static_cast<uint32_t>(end - headerPos - static_cast<off_t>(kChunkHeaderSize)));
  if (updateChunkHeader(f, h, headerPos) != 0) return ChunkResult::CONTAINER_FAILED;
  return rc == 0 ? ChunkResult::OK : ChunkResult::SOURCE_FAILED;
}

// The temporary file a new container is written to, beside its target. Removed on
// destruction unless commit() renamed it over the target.
class ContainerFile {
 public:
  explicit ContainerFile(std::string path) : path_(std::move(path)), tmp_(path_ + ".tmpXXXXXX") {}
  ~ContainerFile() {
    if (committed_) return;
    file_.reset();
    if (opened_) ::unlink(tmp_.c_str());
  }
  ContainerFile(const ContainerFile&) = delete;
  ContainerFile& operator=(const ContainerFile&) = delete;

  bool open() {
    Fd fd(mkstemp(tmp_.data()));
    opened_ = static_cast<bool>(fd);
    if (fd) file_.reset(fdopen(fd.get(), "wb"));
    if (!file_) {
      LOG(LEVEL_ERROR, "cannot create a temporary file beside '%s': %s", path_.c_str(), strerror(errno));
      LOG(LEVEL_ERROR, "open for bin export to '%s' failed", path_.c_str());
      return false;
    }
    // A replaced container keeps its permissions; mkstemp makes it 0600.
    struct stat st{};
    fchmod(fd.release(), ::stat(path_.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0644);
    setvbuf(file_.get(), iobuf_.data(), _IOFBF, iobuf_.size());
    return true;
  }
  FILE* get() const { return file_.get(); }
  int fail(const std::string& what) const {
    LOG(LEVEL_ERROR, "writing '%s' failed: %s", path_.c_str(), what.c_str());
    return -1;
  }
  // For a failed write or sync: the system's reason ("No space left on device") too.
  int failWrite(const std::string& what) const { return fail(what + ": " + strerror(errno)); }
  int commit() {
    if (fflush(file_.get()) != 0 || syncFd(fileno(file_.get())) != 0) return failWrite("flush");
    if (fclose(file_.release()) != 0) return failWrite("close");
    if (::rename(tmp_.c_str(), path_.c_str()) != 0) return fail(strerror(errno));
    committed_ = true;
    syncDirectoryOf(path_);
    return 0;
  }

 private:
  std::string path_, tmp_;
  std::vector<char> iobuf_ = std::vector<char>(1 << 16);
  FileHandle file_;
  bool opened_ = false;
  bool committed_ = false;
};

// Copies every file of `s` into `out` as xSMP chunks. -1 (logged) when the container
// cannot take them; a source that cannot be read leaves an empty chunk.
int writeSoundAudio(ContainerFile& out, const AudioSample& s, bool fromContainer, uint64_t limit,
                    std::vector<CompFileChunk>& chunks) {
  LOG(LEVEL_DEBUG, "writing sample: %d, %d sounds", static_cast<int>(s.id), static_cast<int>(s.samples.size()));
  chunks.assign(s.samples.size(), CompFileChunk{});
  for (std::size_t i = 0; i < s.samples.size(); ++i) {
    flushLog();  // a long export shows its progress
    AudioSource src;
    if (fromContainer) {
      src.path = s.basepath;
      src.inContainer = true;
      src.chunk = s.filechunks[i];
    } else {
      src.path = s.samples[i];
    }
    if (writeChunkFrom(out.get(), src, chunks[i], limit) != ChunkResult::CONTAINER_FAILED) continue;
    if (ferror(out.get())) return out.failWrite("audio chunk");
    return out.fail(strFormat("the container would grow past %llu bytes", static_cast<unsigned long long>(limit)));
  }
  return 0;
}

// Compresses the index of `entries` into the META chunk.
int writeIndex(ContainerFile& out, const SampleIndex& index, const std::vector<IndexEntry>& entries, bool stripNames,
               const std::string& path) {
  std::vector<unsigned char> packed;
  if (!packIndex(index, entries, stripNames, packed)) return out.fail("index too large");
  LOG(LEVEL_DEBUG, "size of meta: %u", static_cast<unsigned>(packed.size()));
  LOG(LEVEL_INFO, "writing %d byte to %s", static_cast<int>(packed.size()), path.c_str());
  // Room for metadata that does not shrink (tiny sets): zlib's worst case.
  std::vector<unsigned char> compressed(static_cast<std::size_t>(getMaxCompressedLen(static_cast<int>(packed.size()))));
  int clen = compressData(packed.data(), packed.size(), compressed.data(), compressed.size());
  if (clen < 0) return out.fail("compressing the index");
  if (writeChunkHeader(out.get(), makeChunkHeader("META", static_cast<uint32_t>(clen) + 4)) != 0 ||
      !writeUint32(out.get(), static_cast<uint32_t>(packed.size())) ||
      !writeAllStdio(out.get(), compressed.data(), static_cast<std::size_t>(clen)))
    return out.failWrite("index");
  return 0;
}

}  // namespace

int appendFile(FILE* dest, const std::string& sourcePath) {
  FileHandle in(fopen(sourcePath.c_str(), "rb"));
  if (!in) {
    LOG(LEVEL_ERROR, "error open %s", sourcePath.c_str());
    return -1;
  }
  if (copyBlocks(in.get(), dest, -1) < 0 || ferror(in.get())) {
    LOG(LEVEL_ERROR, "error append file from %s , errno %d", sourcePath.c_str(), errno);
    return -1;
  }
  LOG(LEVEL_INFO, "success append file from %s", sourcePath.c_str());
  return 0;
}

int writeFileChunk(FILE* f, const std::string& sourcePath, AudioSample& sample, std::size_t index) {
  AudioSource src;
  src.path = sourcePath;
  CompFileChunk chunk;
  const ChunkResult rc = writeChunkFrom(f, src, chunk, kMaxContainerSize);
  if (rc == ChunkResult::CONTAINER_FAILED) {
    LOG(LEVEL_ERROR, "cannot append %s: the container cannot take it", sourcePath.c_str());
    return -1;
  }
  if (sample.filechunks.size() <= index) sample.filechunks.resize(index + 1);
  sample.filechunks[index] = chunk;
  return rc == ChunkResult::OK ? 0 : -1;
}

int appendChunkToContainer(const std::string& container, const std::string& sourcePath, CompFileChunk& out) {
  FileHandle in(fopen(container.c_str(), "rb"));
  if (!in) {
    LOG(LEVEL_ERROR, "failed to open '%s': %s", container.c_str(), strerror(errno));
    return -1;
  }
  ContainerFile copy(container);
  if (!copy.open()) return -1;
  if (copyBlocks(in.get(), copy.get(), -1) < 0) return copy.failWrite("copying the container");
  if (ferror(in.get())) return copy.fail(strFormat("reading the container: %s", strerror(errno)));
  AudioSource src;
  src.path = sourcePath;
  switch (writeChunkFrom(copy.get(), src, out, kMaxContainerSize)) {
    case ChunkResult::OK:
      return copy.commit();
    case ChunkResult::SOURCE_FAILED:
      return copy.fail("cannot read " + sourcePath);
    case ChunkResult::CONTAINER_FAILED:
      break;
  }
  if (ferror(copy.get())) return copy.failWrite("audio chunk");
  return copy.fail(
      strFormat("the container would grow past %llu bytes", static_cast<unsigned long long>(kMaxContainerSize)));
}

int markChunkAsDeleted(const std::string& container, CompFileChunk& chunk) {
  chunk.state = CompFileChunk::DELETED;
  FileHandle f(fopen(container.c_str(), "r+b"));
  if (!f) {
    LOG(LEVEL_ERROR, "failed to open '%s'", container.c_str());
    return -1;
  }
  // Only a state word that really heads this audio file may be overwritten: check the
  // xSMP header in front of it first.
  unsigned char buf[kChunkHeaderSize + 2];
  ChunkHeader h;
  if (chunk.offset < sizeof buf ||
      fseeko(f.get(), static_cast<off_t>(chunk.offset) - static_cast<off_t>(sizeof buf), SEEK_SET) != 0 ||
      fread(buf, 1, sizeof buf, f.get()) != sizeof buf) {
    LOG(LEVEL_ERROR, "no audio chunk at %u in '%s'", chunk.offset, container.c_str());
    return -1;
  }
  decodeHeader(buf, h);
  if (!isChunk(h, "xSMP") || !checkMatches(h) || h.len != chunk.size + 2u) {
    LOG(LEVEL_ERROR, "no audio chunk at %u in '%s'", chunk.offset, container.c_str());
    return -1;
  }
  if (fseeko(f.get(), static_cast<off_t>(chunk.offset) - 2, SEEK_SET) != 0 || !writeUint16(f.get(), 0) ||
      fflush(f.get()) != 0 || syncFd(fileno(f.get())) != 0) {
    LOG(LEVEL_ERROR, "failed to mark chunk at %u of '%s' deleted", chunk.offset, container.c_str());
    return -1;
  }
  return 0;
}

int extractContainerFile(const std::string& container, const CompFileChunk& chunk, const std::string& dest) {
  FileHandle in(fopen(container.c_str(), "rb"));
  std::string bytes(chunk.size, '\0');
  if (!in || fseeko(in.get(), static_cast<off_t>(chunk.offset), SEEK_SET) != 0 ||
      fread(bytes.data(), 1, bytes.size(), in.get()) != bytes.size()) {
    LOG(LEVEL_ERROR, "cannot read %u bytes @ %u of '%s'", chunk.size, chunk.offset, container.c_str());
    return -1;
  }
  return writeFileAtomic(dest, bytes);
}

bool containerFilesHaveChunks(const SampleIndex& index) {
  if (index.setType() != XSNDFILE) return true;
  bool ok = true;
  for (const auto& node : index.samplesMap()) {
    const AudioSample* s = node.value.get();
    if (s == nullptr) continue;
    for (std::size_t i = s->filechunks.size(); i < s->samples.size(); ++i) {
      LOG(LEVEL_ERROR, "sound %u: entry '%s' of '%s' has no audio chunk; refusing to read it from disk", s->id,
          s->samples[i].c_str(), s->basepath.c_str());
      ok = false;
    }
  }
  return ok;
}

int writeSamplesToBinary(SampleIndex& index, const std::string& path, bool stripNames, uint64_t sizeLimit) {
  const auto started = std::chrono::steady_clock::now();
  if (!containerFilesHaveChunks(index)) {
    LOG(LEVEL_ERROR, "writing '%s' failed: the container's index names files it does not hold", path.c_str());
    return -1;
  }
  ContainerFile out(path);
  if (!out.open()) return -1;
  LOG(LEVEL_INFO, "writing binary XSND file %sto '%s'", "", path.c_str());
  LOG(LEVEL_DEBUG, "writing %d samples.", index.samplesMap().mapSize());
  if (writeChunkHeader(out.get(), makeChunkHeader("xSND", 2)) != 0 || !writeUint16(out.get(), kXsndVersion))
    return out.failWrite("header");

  const bool fromContainer = index.setType() == XSNDFILE;
  std::vector<IndexEntry> entries;
  entries.reserve(static_cast<std::size_t>(index.samplesMap().mapSize()));
  for (auto& node : index.samplesMap()) {
    const AudioSample* s = node.value.get();
    if (s == nullptr) {
      LOG(LEVEL_ERROR, "AudioSample was not initialized correct");
      continue;
    }
    entries.push_back(IndexEntry{s, {}});
    if (writeSoundAudio(out, *s, fromContainer, sizeLimit, entries.back().chunks) != 0) return -1;
  }
  if (writeIndex(out, index, entries, stripNames, path) != 0 || out.commit() != 0) return -1;
  auto used = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
  LOG(LEVEL_INFO, "done. used %d ms", static_cast<int>(used.count()));
  return 0;
}

}  // namespace korvo
