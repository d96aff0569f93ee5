// Figures for the xsnd container with a generated set of 2000 sounds:
//   1. packing it with the xsnd writer against copying the same audio bytes into one
//      file (both synced once, as a file meant to survive a power cut);
//   2. reading its index (walk, inflate, decode, records) against reading its META
//      bytes, raw and decoded by a plain protobuf-c unpack.
// Each figure is the median of several runs; ratios come from the same run.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Audio.pb-c.h"
#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "soundsets/sample_index.h"
#include "soundsets/xsnd.h"

namespace fs = std::filesystem;

namespace {

constexpr int kSounds = 2000;
constexpr int kRuns = 15;

// Runs a and b alternately (after one warm-up each) and returns their medians, so a
// change of machine load between them does not skew the ratio.
std::pair<double, double> pairedMedianMs(const std::function<void()>& a, const std::function<void()>& b) {
  std::vector<double> ta, tb;
  a();
  b();
  auto time = [](const std::function<void()>& fn) {
    auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  };
  for (int i = 0; i < kRuns; ++i) {
    ta.push_back(time(a));
    tb.push_back(time(b));
  }
  std::sort(ta.begin(), ta.end());
  std::sort(tb.begin(), tb.end());
  return {ta[ta.size() / 2], tb[tb.size() / 2]};
}

void copyAll(const std::vector<std::string>& files, const std::string& out) {
  korvo::FileHandle o(fopen(out.c_str(), "wb"));
  char buf[4096];
  for (const auto& f : files) {
    korvo::FileHandle in(fopen(f.c_str(), "rb"));
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, in.get())) > 0) fwrite(buf, 1, n, o.get());
  }
  fflush(o.get());
  fsync(fileno(o.get()));
}

struct MetaPlace {
  off_t offset = 0;  // first compressed byte
  uint32_t compressed = 0;
  uint32_t size = 0;
};

MetaPlace findMeta(const std::string& path) {
  std::string b(fs::file_size(path), '\0');
  korvo::FileHandle f(fopen(path.c_str(), "rb"));
  if (fread(b.data(), 1, b.size(), f.get()) != b.size()) return {};
  auto be32 = [&](size_t at) {
    return (uint32_t(uint8_t(b[at])) << 24) | (uint32_t(uint8_t(b[at + 1])) << 16) | (uint32_t(uint8_t(b[at + 2])) << 8) |
           uint32_t(uint8_t(b[at + 3]));
  };
  size_t pos = 12;
  while (b.compare(pos, 4, "META") != 0) pos += 10 + be32(pos + 4);
  return {static_cast<off_t>(pos + 14), be32(pos + 4) - 4, be32(pos + 10)};
}

}  // namespace

int main(int argc, char** argv) {
  // --profile-read: only the index read, many times (for perf).
  const bool profileRead = argc > 1 && std::string(argv[1]) == "--profile-read";
  korvo::setLogLevel(korvo::LEVEL_NONE);
  fs::path dir = fs::temp_directory_path() / ("korvo-bench-xsnd-" + std::to_string(getpid()));
  fs::create_directories(dir / "set");
  korvo::Settings s;
  korvo::initSettings(&s);
  korvo::SampleIndex idx(s);
  std::mt19937 rng(42);
  std::vector<std::string> files;
  uint64_t bytes = 0;
  for (int id = 1; id <= kSounds; ++id) {
    auto rec = korvo::newAudioSampleForId(static_cast<uint32_t>(id));
    rec->type = static_cast<korvo::AudioType>(1 + id % 5);
    rec->name = "sound-" + std::to_string(id);
    rec->basepath = (dir / "set" / std::to_string(id)).string();
    rec->gain = 50;
    rec->ducking = 80;
    std::string path = (dir / "set" / (std::to_string(id) + ".ogg")).string();
    std::string content(4096 + rng() % 28672, static_cast<char>(id));
    korvo::FileHandle f(fopen(path.c_str(), "wb"));
    fwrite(content.data(), 1, content.size(), f.get());
    bytes += content.size();
    rec->samples.push_back(path);
    files.push_back(path);
    idx.addSample(std::move(rec));
  }
  const std::string xsnd = (dir / "set.xsnd").string();
  const std::string copy = (dir / "copy.bin").string();

  if (profileRead) {
    korvo::writeSamplesToBinary(idx, xsnd, false);
    for (int i = 0; i < 500; ++i) {
      korvo::SampleIndex back(s);
      korvo::readSamplesFromBinary(back, xsnd);
    }
    fs::remove_all(dir);
    return 0;
  }
  auto [pack, plain] = pairedMedianMs([&] { korvo::writeSamplesToBinary(idx, xsnd, false); },
                                      [&] { copyAll(files, copy); });
  printf("pack %d sounds, %.1f MiB of audio\n", kSounds, bytes / 1048576.0);
  printf("  xsnd writer:          %8.2f ms\n", pack);
  printf("  copy of the bytes:    %8.2f ms\n", plain);
  printf("  ratio writer / copy:  %8.3f (target <= 1.2)\n", pack / plain);

  const MetaPlace meta = findMeta(xsnd);
  auto readIndex = [&] {
    korvo::SampleIndex back(s);
    korvo::readSamplesFromBinary(back, xsnd);
  };
  // The baselines allocate their buffers per read, as any reader of the file must.
  auto readRaw = [&] {
    std::vector<unsigned char> compressed(meta.compressed);
    int fd = open(xsnd.c_str(), O_RDONLY);
    pread(fd, compressed.data(), compressed.size(), meta.offset);
    close(fd);
  };
  auto readDecoded = [&] {
    std::vector<unsigned char> compressed(meta.compressed), raw(meta.size);
    int fd = open(xsnd.c_str(), O_RDONLY);
    pread(fd, compressed.data(), compressed.size(), meta.offset);
    close(fd);
    uLongf n = raw.size();
    uncompress(raw.data(), &n, compressed.data(), compressed.size());
    ::SoundSet* set = sound_set__unpack(nullptr, n, raw.data());
    sound_set__free_unpacked(set, nullptr);
  };
  auto [index, decoded] = pairedMedianMs(readIndex, readDecoded);
  auto [index2, rawRead] = pairedMedianMs(readIndex, readRaw);
  (void)index2;
  printf("read the index of %d sounds (META %u bytes, %u inflated)\n", kSounds, meta.compressed, meta.size);
  printf("  readSamplesFromBinary:        %8.3f ms\n", index);
  printf("  META bytes read + decoded:    %8.3f ms\n", decoded);
  printf("  META bytes read only:         %8.3f ms\n", rawRead);
  printf("  ratio index / META decoded:   %8.3f (target <= 1.5)\n", index / decoded);
  printf("  ratio index / META raw read:  %8.3f\n", index / rawRead);
  fs::remove_all(dir);
  return 0;
}
