#include "soundsets/xsnd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "Audio.pb-c.h"
#include "base/fileutil.h"
#include "base/log.h"

namespace korvo {

namespace {

constexpr std::size_t kCopyBlock = 4096;
// A sane ceiling for the index of one set: 2000 sounds pack into a few hundred KB.
constexpr uint32_t kMaxMetaSize = 256u * 1024u * 1024u;
// zlib cannot expand by more than about 1032:1.
constexpr uint64_t kMaxInflateRatio = 1100;

void putBE32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}
uint32_t getBE32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
uint16_t getBE16(const unsigned char* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

void decodeHeader(const unsigned char* buf, ChunkHeader& h) {
  std::memcpy(h.chunkName, buf, 4);
  h.len = getBE32(buf + 4);
  h.check = getBE16(buf + 8);
}

// pread that retries short reads; the number of bytes obtained.
std::size_t preadAll(int fd, void* buf, std::size_t len, off_t pos) {
  std::size_t got = 0;
  while (got < len) {
    ssize_t n = ::pread(fd, static_cast<char*>(buf) + got, len - got, pos + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  return got;
}

bool writeAllStdio(FILE* f, const void* data, std::size_t len) {
  const char* p = static_cast<const char*>(data);
  while (len > 0) {
    std::size_t n = fwrite(p, 1, len, f);
    if (n == 0) {
      if (ferror(f) && errno == EINTR) {
        clearerr(f);
        continue;
      }
      return false;
    }
    p += n;
    len -= n;
  }
  return true;
}

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

struct FileCloser {
  void operator()(FILE* f) const {
    if (f) fclose(f);
  }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Where the audio of file `i` of `sample` comes from when the set is written.
struct AudioSource {
  std::string path;       // a plain file, or the container holding the bytes
  bool inContainer = false;
  CompFileChunk chunk;    // when inContainer
};

// Frames one xSMP chunk at the current position of `f` and copies the source into it.
// The chunk's offset and size are returned in `out`.
int writeChunkFrom(FILE* f, const AudioSource& src, CompFileChunk& out) {
  long headerPos = writeChunkHeaderPlaceHolder(f);
  if (headerPos < 0 || !writeUint16(f, 1)) return -1;
  off_t start = ftello(f);
  if (start < 0 || start > static_cast<off_t>(UINT32_MAX)) {
    LOG(LEVEL_ERROR, "container grows beyond 4 GiB");
    return -1;
  }
  out = CompFileChunk{};
  out.offset = static_cast<uint32_t>(start);
  int rc = 0;
  if (src.inContainer) {
    out.size = src.chunk.size;
    LOG(LEVEL_INFO, "writing %d byte @ %u to comp file", static_cast<int>(out.size), out.offset);
    FilePtr in(fopen(src.path.c_str(), "rb"));
    if (!in || fseeko(in.get(), static_cast<off_t>(src.chunk.offset), SEEK_SET) != 0) {
      LOG(LEVEL_ERROR, "error open %s", src.path.c_str());
      rc = -1;
    } else if (copyBlocks(in.get(), f, src.chunk.size) != static_cast<int64_t>(src.chunk.size)) {
      LOG(LEVEL_ERROR, "error append file from %s , errno %d", src.path.c_str(), errno);
      rc = -1;
    }
  } else {
    struct stat st{};
    out.size = ::stat(src.path.c_str(), &st) == 0 ? static_cast<uint32_t>(st.st_size) : 0;
    LOG(LEVEL_INFO, "writing %d byte @ %u to comp file", static_cast<int>(out.size), out.offset);
    rc = appendFile(f, src.path);
  }
  off_t end = ftello(f);
  if (end < 0 || end > static_cast<off_t>(UINT32_MAX)) return -1;
  // The chunk describes what actually landed, even when the source was short.
  out.size = static_cast<uint32_t>(end - start);
  ChunkHeader h = makeChunkHeader("xSMP", static_cast<uint32_t>(end - headerPos - static_cast<off_t>(kChunkHeaderSize)));
  if (updateChunkHeader(f, h, headerPos) != 0) return -1;
  return rc;
}

// Inflates `in` into `out`; the bytes produced and whether the stream ended.
std::size_t inflateInto(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap,
                        bool& ended) {
  z_stream zs{};
  ended = false;
  if (inflateInit(&zs) != Z_OK) return 0;
  zs.next_in = const_cast<unsigned char*>(in);
  zs.avail_in = static_cast<uInt>(std::min<std::size_t>(inLen, UINT_MAX));
  zs.next_out = out;
  zs.avail_out = static_cast<uInt>(std::min<std::size_t>(outCap, UINT_MAX));
  int rc = inflate(&zs, Z_FINISH);
  ended = rc == Z_STREAM_END;
  std::size_t produced = zs.total_out;
  inflateEnd(&zs);
  return produced;
}

std::string extensionOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  auto dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return path.substr(dot);
}

// Storage of one AudioSample message while the index is packed: the message points
// into these members, so they are filled first and never moved afterwards.
struct SampleMessage {
  ::AudioSample msg = AUDIO_SAMPLE__INIT;
  std::string basePath;
  std::vector<std::string> files;
  std::vector<char*> filePtrs;
  std::vector<::CompFileChunk> chunks;
  std::vector<::CompFileChunk*> chunkPtrs;
  std::vector<uint32_t> shaker;
};

void fillMessage(SampleMessage& m, const AudioSample& s, const std::vector<CompFileChunk>& chunks, bool stripNames) {
  m.basePath = stripNames ? remapName(s.id, -1, "") : s.basepath;
  if (stripNames) LOG(LEVEL_INFO, "stripped to '%s'", m.basePath.c_str());
  for (std::size_t i = 0; i < s.samples.size(); ++i) {
    if (stripNames) {
      m.files.push_back(remapName(s.id, static_cast<int>(i), extensionOf(s.samples[i])));
      LOG(LEVEL_INFO, "stripped to '%s'", m.files.back().c_str());
    } else {
      m.files.push_back(s.samples[i]);
    }
  }
  for (auto& f : m.files) m.filePtrs.push_back(f.data());
  for (const auto& c : chunks) {
    ::CompFileChunk cm = COMP_FILE_CHUNK__INIT;
    cm.has_offset = 1;
    cm.offset = c.offset;
    cm.has_size = 1;
    cm.size = c.size;
    if (c.state == CompFileChunk::DELETED) {
      cm.has_state = 1;
      cm.state = COMP_FILE_CHUNK__STATE__DELETED;
    }
    m.chunks.push_back(cm);
  }
  for (auto& c : m.chunks) m.chunkPtrs.push_back(&c);
  m.shaker = s.shakersequence;

  ::AudioSample& a = m.msg;
  a.has_type = 1;
  a.type = static_cast<AudioSample__AudioType>(s.type);
  a.has_id = 1;
  a.id = s.id;
  a.has_magic = 1;
  a.magic = s.magic;
  a.basepath = m.basePath.data();
  a.name = const_cast<char*>(s.name.c_str());
  a.has_gain = 1;
  a.gain = s.gain;
  a.has_preload = 1;
  a.preload = s.preload;
  a.n_shakersequence = m.shaker.size();
  a.shakersequence = m.shaker.data();
  a.has_lastused = 1;
  a.lastused = s.lastused;
  a.n_samples = m.filePtrs.size();
  a.samples = m.filePtrs.data();
  a.has_isplayingonchannel = 1;
  a.isplayingonchannel = static_cast<uint32_t>(s.isplayingonchannel);
  a.has_size = 1;
  a.size = s.size;
  a.serialcmd = s.serialcmd.empty() ? nullptr : const_cast<char*>(s.serialcmd.c_str());
  a.n_filechunks = m.chunkPtrs.size();
  a.filechunks = m.chunkPtrs.data();
  a.has_ducking = 1;
  a.ducking = s.ducking;
  a.has_gaindefault = 1;
  a.gaindefault = s.gaindefault;
  a.has_duckingdefault = 1;
  a.duckingdefault = s.duckingdefault;
}

std::unique_ptr<AudioSample> recordFromMessage(const ::AudioSample& a, const ::SoundSet& set,
                                               const SampleIndex& index, const std::string& path, off_t fileSize) {
  // Not newAudioSampleForId: its room for ten files is two allocations per sound that
  // a decoded record, sized exactly, never uses.
  auto rec = std::make_unique<AudioSample>();
  rec->id = a.id;
  int type = a.has_type ? static_cast<int>(a.type) : UNKNOWN;
  rec->type = (type >= 0 && type < kAudioTypeCount) ? static_cast<AudioType>(type) : UNKNOWN;
  rec->magic = a.magic;
  rec->basepath = path;
  if (a.name) rec->name = a.name;
  rec->gain = a.gain;
  rec->preload = a.preload;
  rec->shakersequence.assign(a.shakersequence, a.shakersequence + a.n_shakersequence);
  rec->lastused = 0;
  for (std::size_t i = 0; i < a.n_samples; ++i) rec->samples.emplace_back(a.samples[i] ? a.samples[i] : "");
  rec->isplayingonchannel = AudioSample::kNotPlaying;
  rec->size = a.size;
  if (a.serialcmd) rec->serialcmd = a.serialcmd;
  for (std::size_t i = 0; i < a.n_filechunks; ++i) {
    CompFileChunk c;
    if (a.filechunks[i]) {
      c.offset = a.filechunks[i]->offset;
      c.size = a.filechunks[i]->size;
      c.state = a.filechunks[i]->state == COMP_FILE_CHUNK__STATE__DELETED ? CompFileChunk::DELETED
                                                                          : CompFileChunk::REGULAR;
    }
    if (static_cast<off_t>(c.offset) + static_cast<off_t>(c.size) > fileSize) {
      LOG(LEVEL_WARN, "file %zu of sound %u lies outside %s", i, rec->id, path.c_str());
    }
    rec->filechunks.push_back(c);
  }
  if (rec->filechunks.size() != rec->samples.size()) {
    LOG(LEVEL_WARN, "sound %u of %s has %zu files but %zu chunks", rec->id, path.c_str(), rec->samples.size(),
        rec->filechunks.size());
  }
  rec->ducking = a.ducking;
  if (rec->ducking == 0) {
    rec->ducking = static_cast<std::size_t>(rec->type) < set.n_ducking
                       ? set.ducking[rec->type]
                       : static_cast<uint32_t>(index.duckingByType(static_cast<std::size_t>(rec->type)));
  }
  rec->gaindefault = a.gaindefault;
  rec->duckingdefault = a.duckingdefault;
  rec->syncChunks();
  return rec;
}

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
off_t findMetaByWalk(int fd, off_t fileSize, ChunkHeader& h);
off_t findMetaIn(const TailView& view, ChunkHeader& h);
off_t findMetaInTail(int fd, off_t fileSize, ChunkHeader& h, TailView& tail);
int loadMeta(SampleIndex& index, const std::string& path, int fd, off_t fileSize, off_t pos, const ChunkHeader& h,
             const TailView* tail, bool report);

}  // namespace

// ---- chunk primitives ---------------------------------------------------------------

uint16_t chunkCheck(const char name[4]) {
  unsigned sum = 0;
  for (int i = 0; i < 4; ++i) sum += static_cast<unsigned char>(name[i]);
  return static_cast<uint16_t>(sum & 0xFFFF);
}

ChunkHeader makeChunkHeader(const char* name, uint32_t len) {
  ChunkHeader h;
  for (int i = 0; i < 4 && name[i] != '\0'; ++i) h.chunkName[i] = name[i];
  h.len = len;
  h.check = chunkCheck(h.chunkName);
  return h;
}

long writeChunkHeaderPlaceHolder(FILE* f) {
  long pos = ftell(f);
  static const unsigned char zeros[kChunkHeaderSize] = {};
  if (pos < 0 || !writeAllStdio(f, zeros, sizeof zeros)) return -1;
  return pos;
}

void chunkHeaderToChar(const ChunkHeader& h, unsigned char buf[kChunkHeaderSize]) {
  std::memset(buf, 0, kChunkHeaderSize);
  for (int i = 0; i < 4 && h.chunkName[i] != '\0'; ++i) buf[i] = static_cast<unsigned char>(h.chunkName[i]);
  putBE32(buf + 4, h.len);
  uint16_t check = chunkCheck(reinterpret_cast<const char*>(buf));
  buf[8] = static_cast<unsigned char>(check >> 8);
  buf[9] = static_cast<unsigned char>(check);
}

int writeChunkHeader(FILE* f, const ChunkHeader& h) {
  unsigned char buf[kChunkHeaderSize];
  chunkHeaderToChar(h, buf);
  return writeAllStdio(f, buf, sizeof buf) ? 0 : -1;
}

int updateChunkHeader(FILE* f, const ChunkHeader& h, long pos) {
  long back = ftell(f);
  if (back < 0 || fseek(f, pos, SEEK_SET) != 0) return -1;
  int rc = writeChunkHeader(f, h);
  if (fseek(f, back, SEEK_SET) != 0) return -1;
  return rc;
}

int64_t readChunkHeader(FILE* f, ChunkHeader& h) {
  unsigned char buf[kChunkHeaderSize];
  if (fread(buf, 1, sizeof buf, f) != sizeof buf) {
    LOG(LEVEL_ERROR, "invalid header");
    return -1;
  }
  decodeHeader(buf, h);
  if (h.check != chunkCheck(h.chunkName)) {
    LOG(LEVEL_ERROR, "invalid header");
    return -1;
  }
  return h.len;
}

bool isChunk(const ChunkHeader& h, const char* name) { return std::strncmp(h.chunkName, name, 4) == 0; }

bool readUint32(FILE* f, uint32_t& v) {
  unsigned char b[4];
  if (fread(b, 1, 4, f) != 4) return false;
  v = getBE32(b);
  return true;
}

bool readUint16(FILE* f, uint16_t& v) {
  unsigned char b[2];
  if (fread(b, 1, 2, f) != 2) return false;
  v = getBE16(b);
  return true;
}

bool writeUint32(FILE* f, uint32_t v) {
  unsigned char b[4];
  putBE32(b, v);
  return writeAllStdio(f, b, 4);
}

bool writeUint16(FILE* f, uint16_t v) {
  unsigned char b[2] = {static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
  return writeAllStdio(f, b, 2);
}

int compressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap) {
  z_stream zs{};
  if (deflateInit(&zs, Z_DEFAULT_COMPRESSION) != Z_OK) return -1;
  zs.next_in = const_cast<unsigned char*>(in);
  zs.avail_in = static_cast<uInt>(inLen);
  zs.next_out = out;
  zs.avail_out = static_cast<uInt>(outCap);
  int rc = deflate(&zs, Z_FINISH);
  int len = static_cast<int>(zs.total_out);
  deflateEnd(&zs);
  return rc == Z_STREAM_END ? len : -1;
}

int uncompressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap) {
  bool ended = false;
  std::size_t n = inflateInto(in, inLen, out, outCap, ended);
  return ended ? static_cast<int>(n) : -1;
}

int getMaxCompressedLen(int n) { return n + 6 + ((n + 16383) / 16384) * 5; }

// ---- container operations -----------------------------------------------------------

int appendFile(FILE* dest, const std::string& sourcePath) {
  FilePtr in(fopen(sourcePath.c_str(), "rb"));
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
  int rc = writeChunkFrom(f, src, chunk);
  if (sample.filechunks.size() <= index) sample.filechunks.resize(index + 1);
  sample.filechunks[index] = chunk;
  return rc;
}

std::string remapName(uint32_t id, int index, std::string_view ext) {
  if (index < 0) return std::to_string(id);
  std::string out = std::to_string(id) + "-" + std::to_string(index);
  out.append(ext);
  return out;
}

int markChunkAsDeleted(const std::string& container, CompFileChunk& chunk) {
  chunk.state = CompFileChunk::DELETED;
  FilePtr f(fopen(container.c_str(), "r+b"));
  if (!f) {
    LOG(LEVEL_ERROR, "failed to open '%s'", container.c_str());
    return -1;
  }
  // Only a state word that really heads this audio file may be overwritten: check the
  // xSMP header in front of it first.
  unsigned char buf[kChunkHeaderSize + 2];
  ChunkHeader h;
  if (chunk.offset < sizeof buf || fseeko(f.get(), static_cast<off_t>(chunk.offset) - static_cast<off_t>(sizeof buf), SEEK_SET) != 0 ||
      fread(buf, 1, sizeof buf, f.get()) != sizeof buf) {
    LOG(LEVEL_ERROR, "no audio chunk at %u in '%s'", chunk.offset, container.c_str());
    return -1;
  }
  decodeHeader(buf, h);
  if (!isChunk(h, "xSMP") || h.check != chunkCheck(h.chunkName) || h.len != chunk.size + 2u) {
    LOG(LEVEL_ERROR, "no audio chunk at %u in '%s'", chunk.offset, container.c_str());
    return -1;
  }
  if (fseeko(f.get(), static_cast<off_t>(chunk.offset) - 2, SEEK_SET) != 0 || !writeUint16(f.get(), 0) ||
      fflush(f.get()) != 0 || fsync(fileno(f.get())) != 0) {
    LOG(LEVEL_ERROR, "failed to mark chunk at %u of '%s' deleted", chunk.offset, container.c_str());
    return -1;
  }
  return 0;
}

int extractContainerFile(const std::string& container, const CompFileChunk& chunk, const std::string& dest) {
  FilePtr in(fopen(container.c_str(), "rb"));
  std::string bytes(chunk.size, '\0');
  if (!in || fseeko(in.get(), static_cast<off_t>(chunk.offset), SEEK_SET) != 0 ||
      fread(bytes.data(), 1, bytes.size(), in.get()) != bytes.size()) {
    LOG(LEVEL_ERROR, "cannot read %u bytes @ %u of '%s'", chunk.size, chunk.offset, container.c_str());
    return -1;
  }
  return writeFileAtomic(dest, bytes);
}

int writeSamplesToBinary(SampleIndex& index, const std::string& path, bool stripNames) {
  const auto started = std::chrono::steady_clock::now();
  std::string tmp = path + ".tmpXXXXXX";
  int fd = mkstemp(tmp.data());
  FILE* raw = fd >= 0 ? fdopen(fd, "wb") : nullptr;
  if (raw == nullptr) {
    if (fd >= 0) {
      ::close(fd);
      ::unlink(tmp.c_str());
    }
    LOG(LEVEL_ERROR, "open for bin export to '%s' failed", path.c_str());
    return -1;
  }
  FilePtr f(raw);
  fchmod(fd, 0644);
  std::vector<char> iobuf(1 << 16);
  setvbuf(f.get(), iobuf.data(), _IOFBF, iobuf.size());
  auto fail = [&](const char* what) {
    LOG(LEVEL_ERROR, "writing '%s' failed: %s", path.c_str(), what);
    f.reset();
    ::unlink(tmp.c_str());
    return -1;
  };

  LOG(LEVEL_INFO, "writing binary XSND file %sto '%s'", "", path.c_str());
  std::vector<uint32_t> gains(kAudioTypeCount), ducking(kAudioTypeCount);
  for (int t = 0; t < kAudioTypeCount; ++t) {
    gains[t] = static_cast<uint32_t>(index.gainByType(t));
    ducking[t] = static_cast<uint32_t>(index.duckingByType(t));
  }
  std::vector<SampleMessage> messages;
  messages.reserve(static_cast<std::size_t>(index.samplesMap().mapSize()));
  LOG(LEVEL_DEBUG, "writing %d samples.", index.samplesMap().mapSize());

  if (writeChunkHeader(f.get(), makeChunkHeader("xSND", 2)) != 0 || !writeUint16(f.get(), kXsndVersion))
    return fail("header");

  const bool fromContainer = index.setType() == XSNDFILE;
  for (auto& node : index.samplesMap()) {
    const AudioSample* s = node.value.get();
    if (s == nullptr) {
      LOG(LEVEL_ERROR, "AudioSample was not initialized correct");
      continue;
    }
    LOG(LEVEL_DEBUG, "writing sample: %d, %d sounds", static_cast<int>(s->id), static_cast<int>(s->samples.size()));
    std::vector<CompFileChunk> chunks(s->samples.size());
    for (std::size_t i = 0; i < s->samples.size(); ++i) {
      flushLog();  // a long export shows its progress
      AudioSource src;
      if (fromContainer && i < s->filechunks.size()) {
        src.path = s->basepath;
        src.inContainer = true;
        src.chunk = s->filechunks[i];
      } else {
        src.path = s->samples[i];
      }
      if (writeChunkFrom(f.get(), src, chunks[i]) != 0 && ferror(f.get())) return fail("audio chunk");
    }
    messages.emplace_back();
    fillMessage(messages.back(), *s, chunks, stripNames);
  }

  std::vector<::AudioSample*> samplePtrs;
  samplePtrs.reserve(messages.size());
  for (auto& m : messages) samplePtrs.push_back(&m.msg);
  ::SoundSet set = SOUND_SET__INIT;
  std::string setName = "foo", setDir = ".";
  set.name = setName.data();
  set.basedir = setDir.data();
  set.n_samples = samplePtrs.size();
  set.samples = samplePtrs.data();
  set.n_gains = gains.size();
  set.gains = gains.data();
  set.n_ducking = ducking.size();
  set.ducking = ducking.data();

  const std::size_t packedSize = sound_set__get_packed_size(&set);
  if (packedSize > kMaxMetaSize) return fail("index too large");
  std::vector<unsigned char> packed(packedSize);
  sound_set__pack(&set, packed.data());
  LOG(LEVEL_DEBUG, "size of meta: %u", static_cast<unsigned>(packedSize));
  LOG(LEVEL_INFO, "writing %d byte to %s", static_cast<int>(packedSize), path.c_str());
  // Room for metadata that does not shrink (tiny sets): zlib's worst case.
  std::vector<unsigned char> compressed(static_cast<std::size_t>(getMaxCompressedLen(static_cast<int>(packedSize))));
  int clen = compressData(packed.data(), packed.size(), compressed.data(), compressed.size());
  if (clen < 0) return fail("compressing the index");

  if (writeChunkHeader(f.get(), makeChunkHeader("META", static_cast<uint32_t>(clen) + 4)) != 0 ||
      !writeUint32(f.get(), static_cast<uint32_t>(packedSize)) ||
      !writeAllStdio(f.get(), compressed.data(), static_cast<std::size_t>(clen)))
    return fail("index");
  if (fflush(f.get()) != 0 || fsync(fd) != 0) return fail("flush");
  if (fclose(f.release()) != 0) {
    ::unlink(tmp.c_str());
    LOG(LEVEL_ERROR, "writing '%s' failed: close", path.c_str());
    return -1;
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    LOG(LEVEL_ERROR, "writing '%s' failed: %s", path.c_str(), strerror(errno));
    ::unlink(tmp.c_str());
    return -1;
  }
  syncDirectoryOf(path);
  auto used = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
  LOG(LEVEL_INFO, "done. used %d ms", static_cast<int>(used.count()));
  return 0;
}

int readSamplesFromBinary(SampleIndex& index, const std::string& path) {
  FilePtr f(fopen(path.c_str(), "rb"));
  if (!f) {
    LOG(LEVEL_ERROR, "cannot open container '%s': %s", path.c_str(), strerror(errno));
    return -1;
  }
  const int fd = fileno(f.get());
  struct stat st{};
  if (fstat(fd, &st) != 0) return -1;
  const off_t fileSize = st.st_size;

  unsigned char head[kChunkHeaderSize + 2];
  ChunkHeader h;
  const bool headOk = preadAll(fd, head, sizeof head, 0) == sizeof head;
  decodeHeader(head, h);
  if (!headOk || !isChunk(h, "xSND") || h.check != chunkCheck(h.chunkName)) {
    LOG(LEVEL_ERROR, "reading %s, bad header", path.c_str());
  }
  LOG(LEVEL_INFO, "reading xSND format version %d", headOk ? getBE16(head + kChunkHeaderSize) : 0);

  // The index of a container that was only appended to since it was written sits in
  // its tail: found there with one read instead of one read per audio chunk. When the
  // tail does not show it, or what it shows does not decode, walk the chunks.
  TailView tail;
  const off_t pos = findMetaInTail(fd, fileSize, h, tail);
  if (pos >= 0 && loadMeta(index, path, fd, fileSize, pos, h, &tail, false) == 0) return 0;
  const off_t walked = findMetaByWalk(fd, fileSize, h);
  if (walked < 0) {
    LOG(LEVEL_ERROR, "no meta data found in %s", path.c_str());
    return -1;
  }
  return loadMeta(index, path, fd, fileSize, walked, h, nullptr, true);
}

namespace {

off_t findMetaByWalk(int fd, off_t fileSize, ChunkHeader& h) {
  unsigned char buf[kChunkHeaderSize];
  off_t pos = kChunkHeaderSize + 2;
  while (pos + static_cast<off_t>(kChunkHeaderSize) <= fileSize) {
    if (preadAll(fd, buf, sizeof buf, pos) != sizeof buf) break;
    decodeHeader(buf, h);
    if (h.check != chunkCheck(h.chunkName)) {
      LOG(LEVEL_ERROR, "invalid header");
      break;
    }
    if (isChunk(h, "META")) return pos;
    pos += static_cast<off_t>(kChunkHeaderSize) + static_cast<off_t>(h.len);
  }
  return -1;
}

off_t findMetaInTail(int fd, off_t fileSize, ChunkHeader& h, TailView& view) {
  // A small window holds the index of most sets; a larger one also covers a few
  // uploads appended after it.
  for (off_t window : {off_t{64 * 1024}, off_t{1024 * 1024}}) {
    const off_t start = std::max<off_t>(static_cast<off_t>(kChunkHeaderSize) + 2, fileSize - window);
    if (fileSize - start < static_cast<off_t>(kChunkHeaderSize) + 4) return -1;
    view.start = start;
    view.bytes.resize(static_cast<std::size_t>(fileSize - start));
    if (preadAll(fd, view.bytes.data(), view.bytes.size(), start) != view.bytes.size()) return -1;
    off_t found = findMetaIn(view, h);
    if (found >= 0 || start == static_cast<off_t>(kChunkHeaderSize) + 2) return found;
  }
  return -1;
}

off_t findMetaIn(const TailView& view, ChunkHeader& h) {
  const std::vector<unsigned char>& tail = view.bytes;
  const off_t start = view.start;
  static const unsigned char kMeta[6] = {'M', 'E', 'T', 'A'};
  off_t found = -1;
  const unsigned char* p = tail.data();
  const unsigned char* end = tail.data() + tail.size();
  // The last "META" header from which a chain of valid xSMP headers ends exactly at
  // the end of the file.
  while (end - p >= static_cast<std::ptrdiff_t>(kChunkHeaderSize)) {
    auto* hit = static_cast<const unsigned char*>(memmem(p, static_cast<std::size_t>(end - p), kMeta, 4));
    if (hit == nullptr || end - hit < static_cast<std::ptrdiff_t>(kChunkHeaderSize)) break;
    ChunkHeader cand;
    decodeHeader(hit, cand);
    uint64_t q = static_cast<uint64_t>(hit - tail.data()) + kChunkHeaderSize + cand.len;
    bool chain = cand.check == chunkCheck(cand.chunkName);
    while (chain && q < tail.size()) {
      if (q + kChunkHeaderSize > tail.size()) {
        chain = false;
        break;
      }
      ChunkHeader next;
      decodeHeader(tail.data() + q, next);
      chain = isChunk(next, "xSMP") && next.check == chunkCheck(next.chunkName);
      q += kChunkHeaderSize + next.len;
    }
    if (chain && q == tail.size()) {
      found = start + (hit - tail.data());
      h = cand;
    }
    p = hit + 1;
  }
  return found;
}

// Inflates and decodes the META chunk at `pos` into the index. `report`: log the
// failures (the tail attempt stays quiet; the walk that follows reports).
int loadMeta(SampleIndex& index, const std::string& path, int fd, off_t fileSize, off_t pos, const ChunkHeader& h,
             const TailView* tail, bool report) {
  unsigned char sbuf[4];
  const unsigned char* sp = tail ? tail->at(pos + static_cast<off_t>(kChunkHeaderSize), 4) : nullptr;
  if (sp != nullptr) {
    std::memcpy(sbuf, sp, 4);
  } else if (preadAll(fd, sbuf, 4, pos + static_cast<off_t>(kChunkHeaderSize)) != 4) {
    if (report) LOG(LEVEL_ERROR, "no meta data found in %s", path.c_str());
    return -1;
  }
  const uint32_t metaSize = getBE32(sbuf);
  LOG(LEVEL_DEBUG, "size of meta: %u", metaSize);
  const off_t dataPos = pos + static_cast<off_t>(kChunkHeaderSize) + 4;
  const uint64_t available = static_cast<uint64_t>(fileSize - dataPos);
  // Read as much as the stated size (the stream is shorter and ends inside it) or the
  // chunk's own length when that is larger, never past the end of the file.
  uint64_t want = std::max<uint64_t>(metaSize, h.len >= 4 ? h.len - 4u : 0u);
  want = std::min(want, available);
  if (metaSize > kMaxMetaSize || metaSize > (available + 1) * kMaxInflateRatio) {
    if (report) LOG(LEVEL_ERROR, "meta data size %u of %s is implausible", metaSize, path.c_str());
    return -1;
  }
  std::unique_ptr<unsigned char[]> readBuf;
  const unsigned char* compressed = tail ? tail->at(dataPos, want) : nullptr;
  std::size_t got = static_cast<std::size_t>(want);
  if (compressed == nullptr) {
    readBuf.reset(new unsigned char[want ? want : 1]);
    got = preadAll(fd, readBuf.get(), static_cast<std::size_t>(want), dataPos);
    compressed = readBuf.get();
  }
  LOG(LEVEL_INFO, "read %d byte from %s", static_cast<int>(got), path.c_str());

  std::unique_ptr<unsigned char[]> meta(new unsigned char[metaSize ? metaSize : 1]);
  bool ended = false;
  std::size_t produced = inflateInto(compressed, got, meta.get(), metaSize, ended);
  if (!ended) {
    // A stream that does not end (cut short, damaged, checksum wrong) is not an index
    // to trust, even when a prefix of it would decode.
    if (report) LOG(LEVEL_ERROR, "meta data of %s is truncated or corrupt", path.c_str());
    return -1;
  }
  if (produced != metaSize) {
    LOG(LEVEL_WARN, "expected uncompressed size does not match: %u != %u", static_cast<unsigned>(produced), metaSize);
  }
  ::SoundSet* set = sound_set__unpack(nullptr, produced, meta.get());
  if (set == nullptr) {
    if (report) LOG(LEVEL_ERROR, "could not decode meta data of %s", path.c_str());
    return -1;
  }
  std::vector<std::unique_ptr<AudioSample>> records;
  records.reserve(set->n_samples);
  for (std::size_t i = 0; i < set->n_samples; ++i) {
    const ::AudioSample* a = set->samples[i];
    if (a == nullptr) continue;
    LOG(LEVEL_DEBUG, "loaded sample %d -> %s", static_cast<int>(a->id), a->basepath ? a->basepath : "");
    records.push_back(recordFromMessage(*a, *set, index, path, fileSize));
  }
  sound_set__free_unpacked(set, nullptr);

  index.clearSamples();
  for (auto& r : records) index.addSample(std::move(r));
  return 0;
}

}  // namespace

}  // namespace korvo
