// The index of an xsnd container: the SoundSet message of Audio.proto (zlib-compressed
// in the META chunk) that lists every sound with its files, where their bytes lie in
// the container, and the set's gain and ducking tables. This unit maps records to
// message bytes and back; framing and file handling live elsewhere.
//
// Thread: the caller's, holding the engine mutex whenever a SampleIndex is passed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "soundsets/model.h"
#include "soundsets/sample_index.h"

namespace korvo {

// A sane ceiling for the index of one set: 2000 sounds pack into a few hundred KB.
constexpr uint32_t kMaxMetaSize = 256u * 1024u * 1024u;

// One sound as it goes into a new container: the record and where its files landed.
struct IndexEntry {
  const AudioSample* sound = nullptr;
  std::vector<CompFileChunk> chunks;  // one per entry of sound->samples
};

// A bare numeric name: "%d" for index < 0, else "%d-%d" + ext (ext may be empty).
std::string remapName(uint32_t id, int index, std::string_view ext);

// The SoundSet message bytes of `entries` (in order) with the index's gain and ducking
// tables. With stripNames each sound is named by its id and each file "id-n.ext".
// False (nothing in `out`) when the message would exceed kMaxMetaSize.
bool packIndex(const SampleIndex& index, const std::vector<IndexEntry>& entries, bool stripNames,
               std::vector<unsigned char>& out);

// Decodes SoundSet message bytes into records, in message order. Each record's
// basepath is `containerPath`; a stored ducking of 0 takes the type's ducking of the
// container (or of `index` when the container has no table). File extents outside
// `containerSize` and file/chunk count mismatches are logged (WARN) and kept. False
// when the bytes do not decode.
bool unpackIndex(const unsigned char* bytes, std::size_t len, const SampleIndex& index,
                 const std::string& containerPath, off_t containerSize, std::vector<std::unique_ptr<AudioSample>>& out);

}  // namespace korvo
