#include "soundsets/xsnd_index.h"

#include "Audio.pb-c.h"
#include "base/log.h"

namespace korvo {

namespace {

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

void fillNames(SampleMessage& m, const AudioSample& s, bool stripNames) {
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
}

void fillChunks(SampleMessage& m, const std::vector<CompFileChunk>& chunks) {
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
}

void fillFields(SampleMessage& m, const AudioSample& s) {
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

std::vector<CompFileChunk> chunksFromMessage(const ::AudioSample& a, const AudioSample& rec, const std::string& path,
                                             off_t fileSize) {
  std::vector<CompFileChunk> out;
  for (std::size_t i = 0; i < a.n_filechunks; ++i) {
    CompFileChunk c;
    if (a.filechunks[i]) {
      c.offset = a.filechunks[i]->offset;
      c.size = a.filechunks[i]->size;
      c.state = a.filechunks[i]->state == COMP_FILE_CHUNK__STATE__DELETED ? CompFileChunk::DELETED
                                                                          : CompFileChunk::REGULAR;
    }
    if (static_cast<off_t>(c.offset) + static_cast<off_t>(c.size) > fileSize)
      LOG(LEVEL_WARN, "file %zu of sound %u lies outside %s", i, rec.id, path.c_str());
    out.push_back(c);
  }
  return out;
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
  for (std::size_t i = 0; i < a.n_samples; ++i) rec->samples.emplace_back(a.samples[i] ? a.samples[i] : "");
  rec->isplayingonchannel = AudioSample::kNotPlaying;
  rec->size = a.size;
  if (a.serialcmd) rec->serialcmd = a.serialcmd;
  rec->filechunks = chunksFromMessage(a, *rec, path, fileSize);
  if (rec->filechunks.size() != rec->samples.size()) {
    LOG(LEVEL_WARN, "sound %u of %s has %zu files but %zu chunks", rec->id, path.c_str(), rec->samples.size(),
        rec->filechunks.size());
  }
  rec->ducking = a.ducking;
  if (rec->ducking == 0) {
    rec->ducking = static_cast<std::size_t>(rec->type) < set.n_ducking
                       ? set.ducking[rec->type]
                       : static_cast<uint32_t>(index.duckingByType(rec->type));
  }
  rec->gaindefault = a.gaindefault;
  rec->duckingdefault = a.duckingdefault;
  rec->syncChunks();
  return rec;
}

}  // namespace

std::string remapName(uint32_t id, int index, std::string_view ext) {
  if (index < 0) return std::to_string(id);
  std::string out = std::to_string(id) + "-" + std::to_string(index);
  out.append(ext);
  return out;
}

bool packIndex(const SampleIndex& index, const std::vector<IndexEntry>& entries, bool stripNames,
               std::vector<unsigned char>& out) {
  std::vector<uint32_t> gains(kAudioTypeCount), ducking(kAudioTypeCount);
  for (int t = 0; t < kAudioTypeCount; ++t) {
    gains[t] = static_cast<uint32_t>(index.gainByType(t));
    ducking[t] = static_cast<uint32_t>(index.duckingByType(t));
  }
  std::vector<SampleMessage> messages(entries.size());
  std::vector<::AudioSample*> samplePtrs;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    fillNames(messages[i], *entries[i].sound, stripNames);
    fillChunks(messages[i], entries[i].chunks);
    fillFields(messages[i], *entries[i].sound);
    samplePtrs.push_back(&messages[i].msg);
  }
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
  out.clear();
  if (packedSize > kMaxMetaSize) return false;
  out.resize(packedSize);
  sound_set__pack(&set, out.data());
  return true;
}

bool unpackIndex(const unsigned char* bytes, std::size_t len, const SampleIndex& index,
                 const std::string& containerPath, off_t containerSize, std::vector<std::unique_ptr<AudioSample>>& out) {
  ::SoundSet* set = sound_set__unpack(nullptr, len, bytes);
  if (set == nullptr) return false;
  out.clear();
  out.reserve(set->n_samples);
  for (std::size_t i = 0; i < set->n_samples; ++i) {
    const ::AudioSample* a = set->samples[i];
    if (a == nullptr) continue;
    LOG(LEVEL_DEBUG, "loaded sample %d -> %s", static_cast<int>(a->id), a->basepath ? a->basepath : "");
    out.push_back(recordFromMessage(*a, *set, index, containerPath, containerSize));
  }
  sound_set__free_unpacked(set, nullptr);
  return true;
}

}  // namespace korvo
