// Time to scan a 2000-sound PINSOUND set with the set loader against a bare recursive
// walk (std::filesystem) of the same tree, both measured in this run on a warm cache.
// Target: loader <= 2x the bare walk.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "base/stringutil.h"
#include "soundsets/sample_index.h"

namespace fs = std::filesystem;
using korvo::SampleIndex;

namespace {

constexpr int kSounds = 2000;

void put(const fs::path& p, const std::string& content) {
  std::ofstream(p, std::ios::binary) << content;
}

// Shaped like an owner's set: five groups, one to three files per sound, a gain or
// ducking file on some sounds, a type gain file.
void makeTree(const fs::path& base) {
  const char* groups[] = {"music", "sfx", "voice", "jingle", "single"};
  for (const char* g : groups) {
    fs::create_directories(base / g);
    put(base / g / "gain.txt", "15\n");
  }
  std::string audio(2048, 'a');
  for (int i = 0; i < kSounds; ++i) {
    const char* g = groups[i % 5];
    fs::path dir = base / g / (i % 2 ? std::to_string(i + 1) + "-sound" + std::to_string(i) : korvo::strFormat("0x%x-snd", i + 1));
    fs::create_directory(dir);
    for (int f = 0; f <= i % 3; ++f) put(dir / ("take" + std::to_string(f) + ".ogg"), audio);
    if (i % 7 == 0) put(dir / "gain.txt", "20\n");
    if (i % 11 == 0) put(dir / "ducking.txt", "40\n");
    if (i % 13 == 0) put(dir / "dontpreload", "");
  }
}

template <typename F>
double timeMs(F&& f) {
  auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/korvo-scan-bench-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  fs::path base = fs::path(tmpl) / "set";
  makeTree(base);

  korvo::Settings s;
  korvo::initSettings(&s);
  // The machine is shared: walk and loader alternate within each round, and the best
  // round of each is compared, so a load spike hits both alike.
  constexpr int kRounds = 25;
  std::size_t walked = 0;
  int loaded = 0;
  auto walk = [&] {
    walked = 0;
    for (auto it = fs::recursive_directory_iterator(base); it != fs::recursive_directory_iterator(); ++it) ++walked;
  };
  auto scan = [&] {
    SampleIndex idx(s);
    korvo::SoundSet set;
    set.basedir = base.string();
    idx.initSamples(set, 0);
    loaded = idx.samplesMap().mapSize();
  };
  // At the default level every sound is logged; the log goes nowhere here.
  korvo::FileHandle devnull(fopen("/dev/null", "w"));
  korvo::setLogDevice(devnull.get());
  double bestWalk = 1e30, bestInfo = 1e30, bestDebug = 1e30;
  for (int r = 0; r < kRounds; ++r) {
    bestWalk = std::min(bestWalk, timeMs(walk));
    korvo::setLogLevel(korvo::LEVEL_INFO);
    bestInfo = std::min(bestInfo, timeMs(scan));
    korvo::setLogLevel(korvo::LEVEL_DEBUG);
    bestDebug = std::min(bestDebug, timeMs(scan));
  }
  korvo::setLogDevice(stdout);
  double walkMs = bestWalk, scanInfo = bestInfo, scanDebug = bestDebug;

  printf("tree: %d sounds, %zu entries walked, %d sounds loaded\n", kSounds, walked, loaded);
  printf("bare recursive walk (std::filesystem): %8.2f ms\n", walkMs);
  printf("set loader (initSamples), log INFO:    %8.2f ms  ratio %.2fx (target <= 2x)\n", scanInfo, scanInfo / walkMs);
  printf("set loader (initSamples), log DEBUG:   %8.2f ms  ratio %.2fx\n", scanDebug, scanDebug / walkMs);
  std::error_code ec;
  fs::remove_all(tmpl, ec);
  return loaded == kSounds ? 0 : 1;
}
