// The xsnd container: a whole sound set in one file. Every audio file is stored
// uncompressed in its own "xSMP" chunk so the player streams straight from the
// container; the index (the SoundSet / AudioSample / CompFileChunk messages of
// Audio.proto, xsnd_index.h) follows in one zlib-compressed "META" chunk. Framing
// integers are big-endian (xsnd_framing.h):
//
//   "xSND" len=2 | u16 version 1 | "xSMP" len=2+n | u16 state (1 used, 0 deleted) | n bytes
//   ... | "META" len=4+c | u32 uncompressed size | c bytes zlib | appended "xSMP" chunks
//
// A chunk header is the 4-character name, the u32 body length and a u16 check word
// (the sum of the name bytes): it catches a misaligned read, not a damaged length.
//
// The names an index lists are labels, never paths: audio of a container set is only
// ever read through the chunk the index gives for it.
//
// Thread: the caller's (start-up conversion, HTTP edits, the set loader), holding the
// engine mutex whenever a SampleIndex is passed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "soundsets/model.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd_framing.h"
#include "soundsets/xsnd_index.h"

namespace korvo {

// Audio offsets and sizes in the index are 32 bits: no audio byte may lie past this.
constexpr uint64_t kMaxContainerSize = UINT32_MAX;

// ---- container operations ----
// Copies `sourcePath` to the end of `dest` in 4096-byte blocks. 0, or -1 with an
// ERROR line.
int appendFile(FILE* dest, const std::string& sourcePath);
// Appends one xSMP chunk holding the file at `sourcePath` at the current position of
// `f` and records its offset and size in sample.filechunks[index] (grown if needed).
// 0, or -1 when the source cannot be copied (the chunk is then still framed) or the
// container would grow past kMaxContainerSize.
int writeFileChunk(FILE* f, const std::string& sourcePath, AudioSample& sample, std::size_t index);
// Appends one xSMP chunk holding the file at `sourcePath` to `container` without ever
// changing the container in place: a copy beside it gets the new chunk at its end and is
// renamed over it (temporary file, fsync, rename), so a power cut leaves the old or the
// new container. The bytes already there keep their offsets, so records in memory stay
// valid. The chunk's offset and size go to `out`. 0, or -1 with an ERROR line (the
// container is then untouched and no temporary is left).
int appendChunkToContainer(const std::string& container, const std::string& sourcePath, CompFileChunk& out);
// Marks one audio file of `container` deleted: state word 0 on disk, DELETED in
// memory. The index is not rewritten. 0, or -1 with "failed to open '%s'".
int markChunkAsDeleted(const std::string& container, CompFileChunk& chunk);

// Copies the audio bytes of `chunk` out of `container` to `dest` (atomically).
// 0, or -1 with an ERROR line.
int extractContainerFile(const std::string& container, const CompFileChunk& chunk, const std::string& dest);

// For an XSNDFILE set: true when every file of every sound has its chunk. Each file
// without one is refused with an ERROR naming the sound and the entry, since an
// export would otherwise take the index's name for a path. True for other sets.
bool containerFilesHaveChunks(const SampleIndex& index);

// Writes the loaded set (samplesMap in its iteration order, the gain and ducking
// tables) to `path` as a new container, atomically (temporary file, fsync, rename).
// With stripNames the index names each sound by its id and each file "id-n.ext"; the
// records in memory are not changed. Audio of an XSNDFILE set is copied from its own
// container. A source file that cannot be read is logged and stored empty. 0 on
// success, -1 on failure (ERROR line; no partial output, the target is untouched):
// also when audio would lie past `sizeLimit` or a container file has no chunk.
int writeSamplesToBinary(SampleIndex& index, const std::string& path, bool stripNames,
                         uint64_t sizeLimit = kMaxContainerSize);

// Replaces index.samplesMap with the sounds of the container at `path`. Lenient about
// the first header and the stated index size; a missing or undecodable index is an
// error that leaves the previous map in place. Each record's basepath becomes the
// container path; a stored ducking of 0 takes the type's ducking of the container.
// 0 on success, -1 on error.
int readSamplesFromBinary(SampleIndex& index, const std::string& path);

}  // namespace korvo
