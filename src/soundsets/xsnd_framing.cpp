#include "soundsets/xsnd_framing.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "base/log.h"

namespace korvo {

namespace {

void putBE32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

}  // namespace

uint32_t getBE32(const unsigned char* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
uint16_t getBE16(const unsigned char* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

void decodeHeader(const unsigned char* buf, ChunkHeader& h) {
  std::memcpy(h.chunkName, buf, 4);
  h.len = getBE32(buf + 4);
  h.check = getBE16(buf + 8);
}

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

bool isChunk(const ChunkHeader& h, const char* name) { return std::strncmp(h.chunkName, name, 4) == 0; }

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
  if (!checkMatches(h)) {
    LOG(LEVEL_ERROR, "invalid header");
    return -1;
  }
  return h.len;
}

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

int uncompressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap) {
  bool ended = false;
  std::size_t n = inflateInto(in, inLen, out, outCap, ended);
  return ended ? static_cast<int>(n) : -1;
}

int getMaxCompressedLen(int n) { return n + 6 + ((n + 16383) / 16384) * 5; }

}  // namespace korvo
