// Command-to-sound latency of the engine, measured with the frame counter on SDL's disk
// driver paced in real time: commands are posted to the request ring at random phases
// of the mixing cycle, and each sample's onset frame (the counter at the mixing pass
// that starts it) is compared with the post position on the same frame clock.
// Target: a command is never later than the next mixing pass (ratio to one buffer
// <= 1.05 at p99.9). Also prints the time to decode a sample that was not preloaded.
//
// Usage: bench_onset_bench [commands (default 10000)] [buffer frames (default 512)]
//        [SCHED_FIFO priority of the service thread (default 0: normal)]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include <unistd.h>
#include <vector>

#include "support/wav.h"
#include "base/log.h"
#include "core/settings.h"
#include "base/stringutil.h"
#include "platform/clock.h"
#include "sound/sdl_sound.h"

using namespace korvo;
namespace fs = std::filesystem;

namespace {

// Enough ids that one recurs only every ~15 buffers: each onset matches its own post.
constexpr int kIds = 64;

struct OnsetEvent {
  unsigned id;
  uint64_t frame;
};

struct Recorder {
  std::vector<OnsetEvent> events;
  std::atomic<std::size_t> count{0};
  static void observe(void* user, unsigned id, int, uint64_t frame) {
    auto* r = static_cast<Recorder*>(user);
    const std::size_t i = r->count.load(std::memory_order_relaxed);
    if (i < r->events.size()) {
      r->events[i] = {id, frame};
      r->count.store(i + 1, std::memory_order_release);
    }
  }
};

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t i = std::min(v.size() - 1, static_cast<std::size_t>(std::ceil(p / 100.0 * v.size())) - 1);
  return v[i];
}

// The frame clock at this instant: the next pass mixes from framesMixed(); between
// passes the clock runs at the device rate, and it reaches framesMixed() when that
// next pass is due (one buffer after the last one). A pass that comes late (the audio
// thread was not scheduled) holds the clock at framesMixed(): it cannot run past the
// start of a pass that has not happened yet. A command that makes the next pass thus
// measures 0..1 buffer; each pass it misses adds one buffer.
double frameClockNow(const SoundEngine& e) {
  for (;;) {
    const uint64_t pass1 = e.lastPassMicros();
    const uint64_t frames = e.framesMixed();
    const uint64_t now = micros();
    if (e.lastPassMicros() != pass1) continue;
    const double since = static_cast<double>(now - std::min(now, pass1)) * e.frequency() / 1e6;
    return static_cast<double>(frames) - e.bufferFrames() + std::min(since, static_cast<double>(e.bufferFrames()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int commands = argc > 1 ? std::atoi(argv[1]) : 10000;
  const int buffer = argc > 2 ? std::atoi(argv[2]) : 512;
  setLogLevel(LEVEL_ERROR);
  initSettings(&settings);
  settings.playBoot = 0;
  settings.sayPreload = 0;
  settings.volume = 100;
  settings.preloadThreshold = 1;  // latency without decoding: everything preloaded

  const fs::path tmp = fs::temp_directory_path() / strFormat("onset-bench-%d", static_cast<int>(getpid()));
  const fs::path base = tmp / "sets";
  fs::create_directories(base / "bench/music");
  for (int i = 1; i <= kIds; i++) test::writeSineWav(base / strFormat("bench/sfx/%d-s%d/s.wav", i, i), 0.002, 4000, 440.0 + 40 * i);

  // Real-time pacing: the disk driver sleeps one buffer's duration per pass.
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", "/dev/null", 1);
  setenv("SDL_DISKAUDIODELAY", strFormat("%d", buffer * 1000 / 44100).c_str(), 1);

  Recorder rec;
  rec.events.resize(static_cast<std::size_t>(commands) + 64);
  std::vector<double> postFrame(static_cast<std::size_t>(commands));
  std::vector<unsigned> postId(static_cast<std::size_t>(commands));
  {
    SoundEngine engine;
    engine.setBufferFrames(buffer);
    engine.setAnnounceSoundSet(false);
    if (engine.soundInit(100, base.c_str(), 2, 44100) != 0) {
      std::fprintf(stderr, "no audio device\n");
      return 1;
    }
    engine.startSoundSets(base.string());
    engine.setOnsetObserver(&Recorder::observe, &rec);
    const int prio = argc > 3 ? std::atoi(argv[3]) : 0;
    if (prio > 0) setLogLevel(LEVEL_INFO);
    engine.setServiceThreadPriority(prio);
    engine.startSoundServiceThread();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    setLogLevel(std::getenv("KORVO_BENCH_LOG") ? std::atoi(std::getenv("KORVO_BENCH_LOG")) : LEVEL_ERROR);
    const double passUs = buffer * 1e6 / engine.frequency();
    std::mt19937 rng(1);
    std::uniform_int_distribution<int> phase(static_cast<int>(passUs * 0.1), static_cast<int>(passUs * 0.3));
    for (int i = 0; i < commands; i++) {
      const unsigned id = static_cast<unsigned>(1 + i % kIds);
      SoundServiceRequest req = engine.ring().buildRequest(HANDLE_SND_CMD);
      req.id = static_cast<int32_t>(id);
      postFrame[static_cast<std::size_t>(i)] = frameClockNow(engine);
      postId[static_cast<std::size_t>(i)] = id;
      engine.ring().queuePut(req);
      std::this_thread::sleep_for(std::chrono::microseconds(phase(rng)));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    engine.stopSoundServiceThread();

    // Each post takes the first unused onset of its id at or after its post position
    // (half a buffer of slack for the clock model): a command whose play was replaced
    // before any pass mixed it then counts as without onset instead of shifting the rest.
    std::vector<std::vector<uint64_t>> onsetsById(kIds + 1);
    const std::size_t n = rec.count.load();
    for (std::size_t i = 0; i < n; i++)
      if (rec.events[i].id <= kIds) onsetsById[rec.events[i].id].push_back(rec.events[i].frame);
    const double meanGapFrames = passUs * 0.2 * engine.frequency() / 1e6;
    const double window = kIds * meanGapFrames / 2;
    std::vector<std::size_t> next(kIds + 1, 0);
    std::vector<double> lat;
    int missing = 0;
    for (int i = 0; i < commands; i++) {
      const unsigned id = postId[static_cast<std::size_t>(i)];
      const double p = postFrame[static_cast<std::size_t>(i)];
      auto& list = onsetsById[id];
      while (next[id] < list.size() && static_cast<double>(list[next[id]]) < p - buffer / 2.0) next[id]++;
      // An onset further away than half the id's recurrence belongs to a later post.
      if (next[id] >= list.size() || static_cast<double>(list[next[id]]) > p + window) {
        missing++;
        continue;
      }
      lat.push_back(static_cast<double>(list[next[id]++]) - p);
    }
    const double rate = engine.frequency();
    std::printf("onset latency, %d commands posted to the ring, buffer %d frames (%.2f ms) at %.0f Hz\n", commands,
                buffer, buffer * 1000.0 / rate, rate);
    std::printf("%d commands without an onset within %.1f buffers (dropped: no free channel, or later)\n", missing,
                window / buffer);
    std::printf("%-8s %12s %10s %16s\n", "", "frames", "ms", "ratio to buffer");
    for (double p : {50.0, 99.0, 99.9}) {
      const double f = percentile(lat, p);
      std::printf("p%-7g %12.1f %10.3f %16.3f\n", p, f, f * 1000.0 / rate, f / buffer);
    }
    const double worst = lat.empty() ? 0 : *std::max_element(lat.begin(), lat.end());
    std::printf("%-8s %12.1f %10.3f %16.3f\n", "max", worst, worst * 1000.0 / rate, worst / buffer);
    std::printf("target: p99.9 ratio <= 1.05 -> %s\n", percentile(lat, 99.9) / buffer <= 1.05 ? "met" : "MISSED");

    // Decoding a sound that was not preloaded, from the demo set's Ogg Vorbis files.
    const fs::path demo = fs::path(__FILE__).parent_path().parent_path().parent_path() / "demo";
    settings.preloadThreshold = -1;
    if (fs::exists(demo) && engine.startSoundSets(demo.string()) > 0) {
      std::printf("\ndecode time of a sample not preloaded (Ogg Vorbis, demo set), median of 5 loads:\n");
      std::vector<unsigned> ids;
      {
        auto lk = engine.lock();
        ids = engine.index().samplesMap().keys();
        std::sort(ids.begin(), ids.end());
      }
      for (unsigned id : ids) {
        std::vector<double> ms;
        unsigned long bytes = 0;
        std::string name;
        for (int round = 0; round < 5; round++) {
          engine.stopAllSamples();
          while (engine.tryToFreeSamples(0xFFFFFFFFu)) {
          }
          const auto t0 = std::chrono::steady_clock::now();
          engine.loadSample(static_cast<int>(id));
          ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
          bytes = engine.bytesUsedForLoadedSamples();
          auto lk = engine.lock();
          name = engine.getSampleForId(static_cast<int>(id))->name;
        }
        std::printf("  id %3u %-12s %9.2f ms  (%s decoded)\n", id, name.c_str(), percentile(ms, 50), readableSize(bytes).c_str());
      }
    }
  }
  fs::remove_all(tmp);
  return 0;
}
