// Helpers of the soundsets tests: sets laid out on disk the way owners make them, a
// fresh index with sounds whose files live in a temporary directory, audio bytes, and
// running Debian's protoc on index bytes.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "base/handles.h"
#include "core/settings.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd.h"
#include "support/testutil.h"
#include "support/wav.h"

extern char** environ;

namespace korvo::test {

// A short Ogg Vorbis tone made by tests/soundsets/data/make_tone.sh.
inline std::string toneOgg() { return readFile(sourceDir() / "tests/soundsets/data/tone.ogg"); }

// The bytes of a short sine WAV (written to `p` on the way).
inline std::string wavBytes(const std::filesystem::path& p) {
  writeSineWav(p, 0.1, 8000, 440.0, 22050);
  return readFile(p);
}

struct StorageFixture {
  TempDir tmp;
  Settings s;
  SampleIndex idx{s};

  StorageFixture() { initSettings(&s); }

  // Adds sound `id` with one file per entry of `files`, written below tmp/<dir>/.
  AudioSample* addSound(uint32_t id, AudioType type, const std::string& dir,
                        const std::vector<std::pair<std::string, std::string>>& files) {
    auto rec = newAudioSampleForId(id);
    rec->type = type;
    rec->basepath = (tmp / dir).string();
    rec->name = "sound" + std::to_string(id);
    rec->gain = 50;
    rec->ducking = static_cast<uint32_t>(idx.duckingByType(type));
    for (const auto& [name, bytes] : files) {
      writeFile(tmp / dir / name, bytes);
      rec->samples.push_back((tmp / dir / name).string());
    }
    if (!files.empty()) rec->size = static_cast<uint32_t>(files.front().second.size());
    rec->syncChunks();
    return idx.addSample(std::move(rec));
  }
  // Writes the index as container tmp/<name>; its path.
  std::string pack(const std::string& name, bool strip = false) {
    std::string path = (tmp / name).string();
    EXPECT_EQ(writeSamplesToBinary(idx, path, strip), 0);
    return path;
  }
  // A fresh index read from a container.
  std::unique_ptr<SampleIndex> unpack(const std::string& path) {
    auto back = std::make_unique<SampleIndex>(s);
    EXPECT_EQ(readSamplesFromBinary(*back, path), 0);
    return back;
  }
};

// What most checks of a record look at, in one comparable value.
struct Traits {
  AudioType type;
  uint32_t gain, ducking;
  std::string name;
  bool operator==(const Traits&) const = default;
};
inline Traits traits(const AudioSample* s) { return {s->type, s->gain, s->ducking, s->name}; }
inline void PrintTo(const Traits& t, std::ostream* os) {
  *os << audioTypeName(t.type) << " gain " << t.gain << " ducking " << t.ducking << " '" << t.name << "'";
}

// A base directory with one PINSOUND set "set" in it; "configs" for shared mappings
// lives beside the set.
struct SetFixture : StorageFixture {
  SoundSet set;

  SetFixture() {
    set.name = "set";
    set.basedir = (tmp / "set").string();
    set.type = PINSOUND;
    std::filesystem::create_directories(set.basedir + "/music");
    idx.setConfigsDir((tmp / "configs").string());
  }

  std::filesystem::path dir(const std::string& rel) const { return std::filesystem::path(set.basedir) / rel; }
  // A sound directory with audio files of `bytes` bytes each.
  void sound(const std::string& rel, std::vector<std::string> files = {"a.ogg"}, std::size_t bytes = 100) {
    std::filesystem::create_directories(dir(rel));
    for (const auto& f : files) writeFile(dir(rel) / f, std::string(bytes, 'x'));
  }
  void file(const std::string& rel, const std::string& content) { writeFile(dir(rel), content); }
  int load(int copyMapping = 0) { return idx.initSamples(set, copyMapping); }
};

inline void writeGzip(const std::filesystem::path& p, const std::string& content) {
  std::filesystem::create_directories(p.parent_path());
  GzHandle gz(gzopen(p.c_str(), "wb"));
  ASSERT_TRUE(gz);
  gzwrite(gz.get(), content.data(), static_cast<unsigned>(content.size()));
}

// Runs argv with stdin from `inPath` and stdout to `outPath`; the exit status.
inline int runTool(const std::vector<std::string>& argv, const std::string& inPath, const std::string& outPath) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, inPath.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  if (rc != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace korvo::test
