// Reading a container: finding its index (in the tail, or by walking the chunks) and
// loading it into the sample index.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "soundsets/xsnd.h"

namespace korvo {

namespace {

// zlib cannot expand by more than about 1032:1.
constexpr uint64_t kMaxInflateRatio = 1100;
constexpr off_t kFirstChunk = static_cast<off_t>(kChunkHeaderSize) + 2;

// The end of a container as read in one go: the index of a container that was only
// appended to lies there.
struct TailView {
  std::vector<unsigned char> bytes;
  off_t start = 0;
  // The bytes [pos, pos + len) when they are all in the view, else null.
  const unsigned char* at(off_t pos, uint64_t len) const {
    if (pos < start || static_cast<uint64_t>(pos - start) + len > bytes.size()) return nullptr;
    return bytes.data() + (pos - start);
  }
};

// The open container being read.
struct Source {
  const std::string& path;
  int fd;
  off_t size;
};

// Where a META chunk starts and its header; `tail` holds its bytes when they were read
// with the tail.
struct MetaAt {
  off_t pos = -1;
  ChunkHeader h;
  const TailView* tail = nullptr;
};

off_t findMetaByWalk(const Source& src, ChunkHeader& h) {
  unsigned char buf[kChunkHeaderSize];
  off_t pos = kFirstChunk;
  while (pos + static_cast<off_t>(kChunkHeaderSize) <= src.size) {
    if (preadAll(src.fd, buf, sizeof buf, pos) != sizeof buf) break;
    decodeHeader(buf, h);
    if (!checkMatches(h)) {
      LOG(LEVEL_ERROR, "invalid header");
      break;
    }
    if (isChunk(h, "META")) return pos;
    pos += static_cast<off_t>(kChunkHeaderSize) + static_cast<off_t>(h.len);
  }
  return -1;
}

// True when valid xSMP headers follow the chunk at `q` of the tail and end exactly at
// its end.
bool chainEndsAtEnd(const std::vector<unsigned char>& tail, uint64_t q) {
  while (q < tail.size()) {
    if (q + kChunkHeaderSize > tail.size()) return false;
    ChunkHeader next;
    decodeHeader(tail.data() + q, next);
    if (!isChunk(next, "xSMP") || !checkMatches(next)) return false;
    q += kChunkHeaderSize + next.len;
  }
  return q == tail.size();
}

// The last "META" header in the view from which a chain of valid xSMP headers ends
// exactly at the end of the file.
off_t findMetaIn(const TailView& view, ChunkHeader& h) {
  const std::vector<unsigned char>& tail = view.bytes;
  static const unsigned char kMeta[4] = {'M', 'E', 'T', 'A'};
  off_t found = -1;
  const unsigned char* p = tail.data();
  const unsigned char* end = tail.data() + tail.size();
  while (end - p >= static_cast<std::ptrdiff_t>(kChunkHeaderSize)) {
    auto* hit = static_cast<const unsigned char*>(memmem(p, static_cast<std::size_t>(end - p), kMeta, 4));
    if (hit == nullptr || end - hit < static_cast<std::ptrdiff_t>(kChunkHeaderSize)) break;
    ChunkHeader cand;
    decodeHeader(hit, cand);
    const uint64_t next = static_cast<uint64_t>(hit - tail.data()) + kChunkHeaderSize + cand.len;
    if (checkMatches(cand) && chainEndsAtEnd(tail, next)) {
      found = view.start + (hit - tail.data());
      h = cand;
    }
    p = hit + 1;
  }
  return found;
}

off_t findMetaInTail(const Source& src, ChunkHeader& h, TailView& view) {
  // A small window holds the index of most sets; a larger one also covers a few
  // uploads appended after it.
  for (off_t window : {off_t{64 * 1024}, off_t{1024 * 1024}}) {
    const off_t start = std::max<off_t>(kFirstChunk, src.size - window);
    if (src.size - start < static_cast<off_t>(kChunkHeaderSize) + 4) return -1;
    view.start = start;
    view.bytes.resize(static_cast<std::size_t>(src.size - start));
    if (preadAll(src.fd, view.bytes.data(), view.bytes.size(), start) != view.bytes.size()) return -1;
    off_t found = findMetaIn(view, h);
    if (found >= 0 || start == kFirstChunk) return found;
  }
  return -1;
}

// `len` bytes at `pos`, from the tail when it holds them, else read into `buf`.
const unsigned char* bytesAt(const Source& src, const MetaAt& meta, off_t pos, uint64_t len,
                             std::vector<unsigned char>& buf, std::size_t& got) {
  if (const unsigned char* p = meta.tail ? meta.tail->at(pos, len) : nullptr) {
    got = static_cast<std::size_t>(len);
    return p;
  }
  buf.resize(static_cast<std::size_t>(len ? len : 1));
  got = preadAll(src.fd, buf.data(), static_cast<std::size_t>(len), pos);
  return buf.data();
}

// The inflated index of the META chunk; false (logged when `report`) when its stated
// size is implausible or the stream does not end.
bool inflateMeta(const Source& src, const MetaAt& meta, bool report, std::vector<unsigned char>& out) {
  std::vector<unsigned char> buf;
  std::size_t got = 0;
  const unsigned char* sp = bytesAt(src, meta, meta.pos + static_cast<off_t>(kChunkHeaderSize), 4, buf, got);
  if (got != 4) {
    if (report) LOG(LEVEL_ERROR, "no meta data found in %s", src.path.c_str());
    return false;
  }
  const uint32_t metaSize = getBE32(sp);
  LOG(LEVEL_DEBUG, "size of meta: %u", metaSize);
  const off_t dataPos = meta.pos + static_cast<off_t>(kChunkHeaderSize) + 4;
  const uint64_t available = static_cast<uint64_t>(src.size - dataPos);
  // Read as much as the stated size (the stream is shorter and ends inside it) or the
  // chunk's own length when that is larger, never past the end of the file.
  const uint64_t want = std::min(std::max<uint64_t>(metaSize, meta.h.len >= 4 ? meta.h.len - 4u : 0u), available);
  if (metaSize > kMaxMetaSize || metaSize > (available + 1) * kMaxInflateRatio) {
    if (report) LOG(LEVEL_ERROR, "meta data size %u of %s is implausible", metaSize, src.path.c_str());
    return false;
  }
  const unsigned char* compressed = bytesAt(src, meta, dataPos, want, buf, got);
  LOG(LEVEL_INFO, "read %d byte from %s", static_cast<int>(got), src.path.c_str());
  out.resize(metaSize ? metaSize : 1);
  bool ended = false;
  const std::size_t produced = inflateInto(compressed, got, out.data(), metaSize, ended);
  if (!ended) {
    // A stream that does not end (cut short, damaged, checksum wrong) is not an index
    // to trust, even when a prefix of it would decode.
    if (report) LOG(LEVEL_ERROR, "meta data of %s is truncated or corrupt", src.path.c_str());
    return false;
  }
  if (produced != metaSize)
    LOG(LEVEL_WARN, "expected uncompressed size does not match: %u != %u", static_cast<unsigned>(produced), metaSize);
  out.resize(produced);
  return true;
}

// Inflates and decodes the META chunk into the index. `report`: log the failures (the
// tail attempt stays quiet; the walk that follows reports).
int loadMeta(SampleIndex& index, const Source& src, const MetaAt& meta, bool report) {
  std::vector<unsigned char> bytes;
  if (!inflateMeta(src, meta, report, bytes)) return -1;
  std::vector<std::unique_ptr<AudioSample>> records;
  if (!unpackIndex(bytes.data(), bytes.size(), index, src.path, src.size, records)) {
    if (report) LOG(LEVEL_ERROR, "could not decode meta data of %s", src.path.c_str());
    return -1;
  }
  index.clearSamples();
  for (auto& r : records) index.addSample(std::move(r));
  return 0;
}

// The first header is only reported: the reader is lenient there.
void checkFirstHeader(const Source& src) {
  unsigned char head[kChunkHeaderSize + 2];
  ChunkHeader h;
  const bool headOk = preadAll(src.fd, head, sizeof head, 0) == sizeof head;
  decodeHeader(head, h);
  if (!headOk || !isChunk(h, "xSND") || !checkMatches(h)) LOG(LEVEL_ERROR, "reading %s, bad header", src.path.c_str());
  LOG(LEVEL_INFO, "reading xSND format version %d", headOk ? getBE16(head + kChunkHeaderSize) : 0);
}

}  // namespace

int readSamplesFromBinary(SampleIndex& index, const std::string& path) {
  FileHandle f(fopen(path.c_str(), "rb"));
  if (!f) {
    LOG(LEVEL_ERROR, "cannot open container '%s': %s", path.c_str(), strerror(errno));
    return -1;
  }
  struct stat st{};
  if (fstat(fileno(f.get()), &st) != 0) return -1;
  const Source src{path, fileno(f.get()), st.st_size};
  checkFirstHeader(src);

  // The index of a container that was only appended to since it was written sits in
  // its tail: found there with one read instead of one read per audio chunk. When the
  // tail does not show it, or what it shows does not decode, walk the chunks.
  TailView tail;
  MetaAt meta;
  meta.tail = &tail;
  meta.pos = findMetaInTail(src, meta.h, tail);
  if (meta.pos >= 0 && loadMeta(index, src, meta, false) == 0) return 0;
  meta.tail = nullptr;
  meta.pos = findMetaByWalk(src, meta.h);
  if (meta.pos < 0) {
    LOG(LEVEL_ERROR, "no meta data found in %s", path.c_str());
    return -1;
  }
  return loadMeta(index, src, meta, true);
}

}  // namespace korvo
