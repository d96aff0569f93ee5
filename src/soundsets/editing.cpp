#include "soundsets/editing.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"
#include "soundsets/altsound.h"
#include "soundsets/xsnd.h"

namespace korvo {

namespace {

// Drops the last file of the sound (the count decrease that follows a removal). A
// released path left at the end by the move-down is dropped as well, so no caller
// ever plays an empty name; the set's reload restores the full list from disk.
void dropLastFile(AudioSample& s) {
  if (!s.samples.empty()) s.samples.pop_back();
  while (!s.samples.empty() && s.samples.back().empty()) s.samples.pop_back();
  if (s.chunk.size() > s.samples.size()) s.chunk.resize(s.samples.size());
}

int appendToContainer(AudioSample& s, const std::string& uploadedPath, const std::string& baseName) {
  CompFileChunk chunk;
  if (appendChunkToContainer(s.basepath, uploadedPath, chunk) != 0) return -1;
  s.filechunks.resize(s.samples.size());
  s.filechunks.push_back(chunk);
  s.samples.push_back(baseName);
  s.syncChunks();
  return 0;
}

}  // namespace

const RemoveSampleFromSound vtabRemoveSampleFromSound[4] = {psRemoveSampleFromSound, xsndRemoveSampleFromSound,
                                                            nullptr, altRemoveSampleFromSound};

int addSampleToSound(SampleIndex& index, unsigned id, const std::string& uploadedPath,
                     const std::string& clientFileName) {
  AudioSample* s = index.getSampleForId(id);
  if (s == nullptr) {
    LOG(LEVEL_ERROR, "addSampleToSound: sound %u not found", id);
    return -1;
  }
  const std::string base(_basename(clientFileName));
  if (base.empty() || base == "." || base == ".." || base.find('/') != std::string::npos) {
    LOG(LEVEL_ERROR, "addSampleToSound: bad file name '%s'", clientFileName.c_str());
    return -1;
  }
  switch (index.setType()) {
    case XSNDFILE:
      return appendToContainer(*s, uploadedPath, base);
    case PINSOUND:
    case ALTSOUND: {
      std::string target = s->basepath + "/" + base;
      // A taken name gets the next free number; an existing file is never overwritten.
      for (int n = 1; n <= 100 && fileExists(target); ++n) target = strFormat("%s/%d-%s", s->basepath.c_str(), n, base.c_str());
      if (fileExists(target)) {
        LOG(LEVEL_ERROR, "addSampleToSound: no free name for %s in %s", base.c_str(), s->basepath.c_str());
        return -1;
      }
      if (copyFileAtomic(uploadedPath, target) != 0) return -1;
      if (::unlink(uploadedPath.c_str()) != 0)
        LOG(LEVEL_WARN, "cannot delete upload %s: %s", uploadedPath.c_str(), strerror(errno));
      s->samples.push_back(target);
      s->syncChunks();
      if (s->samples.size() == 1) {
        struct stat st{};
        if (::stat(target.c_str(), &st) == 0) s->size = static_cast<uint32_t>(st.st_size);
      }
      if (index.setType() == ALTSOUND) refreshCsvTable(*s);
      return 0;
    }
    default:
      LOG(LEVEL_ERROR, "addSampleToSound not supported for this soundset type");
      return -1;
  }
}

void removeSampleFromAudioSample(AudioSample& s, std::size_t index) {
  if (index >= s.samples.size()) return;
  s.syncChunks();
  s.samples[index].clear();
  s.chunk[index].reset();
  const std::size_t count = s.samples.size();
  for (std::size_t pos = index; count > 1 && count - 2 > pos; ++pos) {
    s.samples[pos] = s.samples[pos + 1];
    s.chunk[pos] = std::move(s.chunk[pos + 1]);
  }
}

int psRemoveSampleFromSound(SampleIndex&, AudioSample& s, unsigned, std::size_t fileIndex) {
  const std::string path = s.samples[fileIndex];
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    LOG(LEVEL_ERROR, "cannot delete %s: %s", path.c_str(), strerror(errno));
    return 1;
  }
  removeSampleFromAudioSample(s, fileIndex);
  dropLastFile(s);
  return 0;
}

int xsndRemoveSampleFromSound(SampleIndex&, AudioSample& s, unsigned id, std::size_t fileIndex) {
  if (fileIndex >= s.filechunks.size()) {
    LOG(LEVEL_ERROR, "sound %u has no chunk for file %zu", id, fileIndex);
    return 1;
  }
  CompFileChunk marked = s.filechunks[fileIndex];
  if (markChunkAsDeleted(s.basepath, marked) != 0) return 1;
  s.filechunks[fileIndex] = marked;
  const std::size_t count = s.samples.size();
  removeSampleFromAudioSample(s, fileIndex);
  // The chunk table moves by the same rule; its length stays.
  for (std::size_t pos = fileIndex; count > 1 && count - 2 > pos && pos + 1 < s.filechunks.size(); ++pos)
    s.filechunks[pos] = s.filechunks[pos + 1];
  dropLastFile(s);
  return 0;
}

int altRemoveSampleFromSound(SampleIndex&, AudioSample& s, unsigned, std::size_t fileIndex) {
  removeSampleFromAudioSample(s, fileIndex);
  dropLastFile(s);
  refreshCsvTable(s);
  return 0;
}

int removeSampleFromSound(SampleIndex& index, unsigned id, int fileIndex) {
  AudioSample* s = index.getSampleForId(id);
  if (s == nullptr || s->samples.empty()) return 1;
  if (fileIndex < 0 || static_cast<std::size_t>(fileIndex) >= s->samples.size()) {
    LOG(LEVEL_ERROR, "removeSampleFromSound: sound %u has no file %d", id, fileIndex);
    return 1;
  }
  LOG(LEVEL_DEBUG, "removeSampleFromSound %s", s->samples[static_cast<std::size_t>(fileIndex)].c_str());
  const int type = index.setType();
  RemoveSampleFromSound handler = (type >= 0 && type < 4) ? vtabRemoveSampleFromSound[type] : nullptr;
  if (handler == nullptr) {
    LOG(LEVEL_ERROR, "remove sample for sound not expected for soundset type");
    return 1;
  }
  return handler(index, *s, id, static_cast<std::size_t>(fileIndex));
}

}  // namespace korvo
