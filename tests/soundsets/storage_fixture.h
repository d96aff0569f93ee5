// Helpers of the storage-format tests: audio bytes, a fresh index with sounds whose
// files live in a temporary directory, and running Debian's protoc on index bytes.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/settings.h"
#include "soundsets/sample_index.h"
#include "support/testutil.h"

extern char** environ;

namespace korvo::test {

// A short Ogg Vorbis tone made by tests/soundsets/data/make_tone.sh.
inline std::string toneOgg() { return readFile(sourceDir() / "tests/soundsets/data/tone.ogg"); }

// A mono 16-bit PCM WAV of `frames` frames of a ramp.
inline std::string makeWav(uint32_t frames, uint32_t rate = 22050) {
  auto le = [](std::string& s, uint32_t v, int n) {
    for (int i = 0; i < n; ++i) s += static_cast<char>((v >> (8 * i)) & 0xFF);
  };
  std::string w = "RIFF";
  le(w, 36 + frames * 2, 4);
  w += "WAVEfmt ";
  le(w, 16, 4);
  le(w, 1, 2);
  le(w, 1, 2);
  le(w, rate, 4);
  le(w, rate * 2, 4);
  le(w, 2, 2);
  le(w, 16, 2);
  w += "data";
  le(w, frames * 2, 4);
  for (uint32_t i = 0; i < frames; ++i) le(w, (i * 97) & 0xFFFF, 2);
  return w;
}

struct StorageFixture {
  TempDir tmp;
  Settings s;
  SampleIndex idx{s};

  StorageFixture() { initSettings(&s); }

  // Adds sound `id` with one file per entry of `contents`, written below
  // tmp/<dir>/ as the given names.
  AudioSample* addSound(uint32_t id, AudioType type, const std::string& dir,
                        const std::vector<std::pair<std::string, std::string>>& files) {
    auto rec = newAudioSampleForId(id);
    rec->type = type;
    rec->basepath = (tmp / dir).string();
    rec->name = "sound" + std::to_string(id);
    rec->gain = 50;
    rec->ducking = static_cast<uint32_t>(idx.duckingByType[type]);
    for (const auto& [name, bytes] : files) {
      writeFile(tmp / dir / name, bytes);
      rec->samples.push_back((tmp / dir / name).string());
    }
    if (!files.empty()) rec->size = static_cast<uint32_t>(files.front().second.size());
    rec->syncChunks();
    return idx.addSample(std::move(rec));
  }
};

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
