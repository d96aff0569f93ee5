// The xsnd container: a whole sound set in one file. Every audio file is stored
// uncompressed in its own "xSMP" chunk so the player streams straight from the
// container; the index (the SoundSet / AudioSample / CompFileChunk messages of
// Audio.proto) follows in one zlib-compressed "META" chunk. Framing integers are
// big-endian:
//
//   "xSND" len=2 | u16 version 1 | "xSMP" len=2+n | u16 state (1 used, 0 deleted) | n bytes
//   ... | "META" len=4+c | u32 uncompressed size | c bytes zlib | appended "xSMP" chunks
//
// A chunk header is the 4-character name, the u32 body length and a u16 check word
// (the sum of the name bytes): it catches a misaligned read, not a damaged length.
//
// Thread: the caller's (start-up conversion, HTTP edits, the set loader), holding the
// engine mutex whenever a SampleIndex is passed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "soundsets/model.h"
#include "soundsets/sample_index.h"

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
bool isChunk(const ChunkHeader& h, const char* name);
bool readUint32(FILE* f, uint32_t& v);
bool readUint16(FILE* f, uint16_t& v);
bool writeUint32(FILE* f, uint32_t v);
bool writeUint16(FILE* f, uint16_t v);

// One-shot deflate (default level, zlib header). The compressed length, or -1 unless
// the stream ended within outCap bytes.
int compressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap);
// One-shot inflate. The decompressed length, or -1 unless the stream ended.
int uncompressData(const unsigned char* in, std::size_t inLen, unsigned char* out, std::size_t outCap);
// n + 6 + ((n + 16383) / 16384) * 5: a safe output bound for compressData.
int getMaxCompressedLen(int n);

// ---- container operations ----
// Copies `sourcePath` to the end of `dest` in 4096-byte blocks. 0, or -1 with an
// ERROR line.
int appendFile(FILE* dest, const std::string& sourcePath);
// Appends one xSMP chunk holding the file at `sourcePath` at the current position of
// `f` and records its offset and size in sample.filechunks[index] (grown if needed).
// 0, or -1 when the source cannot be copied (the chunk is then still framed).
int writeFileChunk(FILE* f, const std::string& sourcePath, AudioSample& sample, std::size_t index);
// A bare numeric name: "%d" for index < 0, else "%d-%d" + ext (ext may be empty).
std::string remapName(uint32_t id, int index, std::string_view ext);
// Marks one audio file of `container` deleted: state word 0 on disk, DELETED in
// memory. The index is not rewritten. 0, or -1 with "failed to open '%s'".
int markChunkAsDeleted(const std::string& container, CompFileChunk& chunk);

// Copies the audio bytes of `chunk` out of `container` to `dest` (atomically).
// 0, or -1 with an ERROR line.
int extractContainerFile(const std::string& container, const CompFileChunk& chunk, const std::string& dest);

// Writes the loaded set (samplesMap in its iteration order, the gain and ducking
// tables) to `path` as a new container, atomically (temporary file, fsync, rename).
// With stripNames the index names each sound by its id and each file "id-n.ext"; the
// records in memory are not changed. Audio of an XSNDFILE set is copied from its own
// container. 0 on success, -1 on failure (the target is then untouched).
int writeSamplesToBinary(SampleIndex& index, const std::string& path, bool stripNames);

// Replaces index.samplesMap with the sounds of the container at `path`. Lenient about
// the first header and the stated index size; a missing or undecodable index is an
// error that leaves the previous map in place. Each record's basepath becomes the
// container path; a stored ducking of 0 takes the type's ducking of the container.
// 0 on success, -1 on error.
int readSamplesFromBinary(SampleIndex& index, const std::string& path);

}  // namespace korvo
