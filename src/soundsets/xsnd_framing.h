// Framing of the xsnd container (see xsnd.h for the layout): chunk headers, big-endian
// integers on stdio streams and in buffers, and the one-shot zlib calls of the index.
//
// Stateless; every function works on the stream or buffer it is given.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace korvo {

constexpr uint16_t kXsndVersion = 1;
constexpr std::size_t kChunkHeaderSize = 10;

struct ChunkHeader {
  char chunkName[4] = {0, 0, 0, 0};
  uint32_t len = 0;
  uint16_t check = 0;
};

// A header named `name` (at most 4 characters) with the check word filled in.
ChunkHeader makeChunkHeader(const char* name, uint32_t len);
uint16_t chunkCheck(const char name[4]);
bool isChunk(const ChunkHeader& h, const char* name);
// The check word matches the name.
inline bool checkMatches(const ChunkHeader& h) { return h.check == chunkCheck(h.chunkName); }

// ---- chunk primitives on a stdio stream ----
// Writes 10 placeholder bytes; returns the position where they start (-1 on error).
long writeChunkHeaderPlaceHolder(FILE* f);
// Encodes a header; the name is copied with at most 4 bytes and stops at a zero byte.
void chunkHeaderToChar(const ChunkHeader& h, unsigned char buf[kChunkHeaderSize]);
int writeChunkHeader(FILE* f, const ChunkHeader& h);
// Writes `h` at `pos` and returns to the previous position. 0 on success.
int updateChunkHeader(FILE* f, const ChunkHeader& h, long pos);
// Reads 10 bytes into `h`. Returns `len`, or -1 with ERROR "invalid header" when the
// check word does not match the name (or the stream ends).
int64_t readChunkHeader(FILE* f, ChunkHeader& h);
bool readUint32(FILE* f, uint32_t& v);
bool readUint16(FILE* f, uint16_t& v);
bool writeUint32(FILE* f, uint32_t v);
bool writeUint16(FILE* f, uint16_t v);
// fwrite of all `len` bytes, retrying interrupted writes.
bool writeAllStdio(FILE* f, const void* data, std::size_t len);

// ---- buffers and descriptors ----
uint32_t getBE32(const unsigned char* p);
uint16_t getBE16(const unsigned char* p);
void decodeHeader(const unsigned char* buf, ChunkHeader& h);
// pread that retries short reads; the number of bytes obtained.
std::size_t preadAll(int fd, void* buf, std::size_t len, off_t pos);

// ---- zlib ----
// One-shot deflate (default level, zlib header). The compressed length, or -1 unless
// the stream ended within outCap bytes.
int compressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap);
// One-shot inflate. The decompressed length, or -1 unless the stream ended.
int uncompressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap);
// Inflates `in` into `out`; the bytes produced, and in `ended` whether the stream ended.
std::size_t inflateInto(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap,
                        bool& ended);
// n + 6 + ((n + 16383) / 16384) * 5: a safe output bound for compressData.
int getMaxCompressedLen(int n);

}  // namespace korvo
