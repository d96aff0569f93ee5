// Adding and removing audio files of one sound, per storage type of the loaded set:
// files in a PINSOUND sound directory, chunks appended to (or marked deleted in) an
// xsnd container, rows of an AltSound table.
//
// Thread: the HTTP thread, holding the engine mutex (the records belong to the
// SampleIndex). The caller should reload the set after a removal: the removal keeps
// the historical way of moving entries down (see removeSampleFromAudioSample).
#pragma once

#include <cstddef>
#include <string>

#include "soundsets/model.h"
#include "soundsets/sample_index.h"

namespace korvo {

// Adds the uploaded file to sound `id`. XSNDFILE: appended as a new xSMP chunk after
// the index (appendChunkToContainer: the container is replaced, never changed in
// place; the chunk is known to the record in memory until the container is written anew).
// PINSOUND and ALTSOUND: copied into the sound's directory under the client's base
// name, renumbered "n-name" while that name is taken; the upload is then deleted and
// an AltSound table gets a row for it. 0 on success, -1 otherwise.
int addSampleToSound(SampleIndex& index, unsigned id, const std::string& uploadedPath,
                     const std::string& clientFileName);

// Removes file `fileIndex` of sound `id` through the handler of the set's type. 1 when
// the sound is unknown, has no files, the index is out of range or the type has no
// handler; otherwise the handler's result (0 done, 1 failed and nothing changed).
int removeSampleFromSound(SampleIndex& index, unsigned id, int fileIndex);

// Takes path `index` out of sample.samples and the parallel chunk array; the caller
// then drops the last entry. Of the entries after `index` all but the last move down
// one place and position count-2 keeps its value, so removing file 0 of (a, b, c)
// leaves (b, b); removing the last file is exact.
void removeSampleFromAudioSample(AudioSample& sample, std::size_t index);

using RemoveSampleFromSound = int (*)(SampleIndex& index, AudioSample& sample, unsigned id, std::size_t fileIndex);
int psRemoveSampleFromSound(SampleIndex& index, AudioSample& sample, unsigned id, std::size_t fileIndex);
int xsndRemoveSampleFromSound(SampleIndex& index, AudioSample& sample, unsigned id, std::size_t fileIndex);
int altRemoveSampleFromSound(SampleIndex& index, AudioSample& sample, unsigned id, std::size_t fileIndex);
// Indexed by SoundSet__SoundSetType: PINSOUND, XSNDFILE, ZIPFILE (none), ALTSOUND.
extern const RemoveSampleFromSound vtabRemoveSampleFromSound[4];

}  // namespace korvo
