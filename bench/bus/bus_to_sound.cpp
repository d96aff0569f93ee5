// The whole path: a command strobed on the sim pins -> interrupt thread -> handlers ->
// request ring -> service thread -> the mixing pass that starts the sample. SDL's disk
// driver paces the mixer in real time with the default 512-frame buffer; the figure is
// strobe -> first mixing pass of the sample (add one buffer, 11.6 ms, for the DAC).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/wav.h"
#include "bus/pincom.h"
#include "bus/sim_board.h"
#include "base/log.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "sound/protocol_handlers.h"
#include "sound/sdl_sound.h"

using namespace korvo;
namespace fs = std::filesystem;

namespace {

struct Onsets {
  std::mutex m;
  std::map<unsigned, std::vector<unsigned long>> at;  // id -> micros() at onset
  static void observe(void* user, unsigned id, int, uint64_t) {
    auto* self = static_cast<Onsets*>(user);
    const unsigned long t = micros();
    std::lock_guard lock(self->m);
    self->at[id].push_back(t);
  }
};

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<std::size_t>(p / 100.0 * static_cast<double>(v.size())))];
}

constexpr int kIds = 8;
using Sent = std::vector<std::pair<unsigned, unsigned long>>;  // id, strobe micros

// A PINSOUND set (recognised by its music folder) with kIds short effects from id 10.
void makeBenchSet(const fs::path& base) {
  test::writeSineWav(base / "demo" / "music" / "1-m" / "m.wav", 0.5, 8000, 220.0);
  for (int i = 0; i < kIds; ++i)
    test::writeSineWav(base / "demo" / "sfx" / (std::to_string(10 + i) + "-s") / "s.wav", 0.05, 8000, 440.0 + 50 * i);
}

// Strobes `count` commands at 30-50 a second, as a busy game sends them.
Sent strobeCommands(SoundEngine& engine, int count) {
  SimGpio gpio;
  Pincom pincom(gpio, settings);
  PincomConsumers c;
  c.soundHandler = [&](unsigned v) { engine.soundHandler(v); };
  pincom.setConsumers(std::move(c));
  pincom.initGpio();
  SimMachine machine(gpio, pincom);
  Sent sent;
  for (int i = 0; i < count; ++i) {
    const unsigned id = 10 + i % kIds;
    machine.driver().clearStrobeTimes();
    machine.sendByte(static_cast<uint8_t>(id));
    sent.emplace_back(id, machine.driver().strobeTimes().at(0));
    // Spread the strobes over the mixing period so every phase of a pass is measured.
    std::this_thread::sleep_for(std::chrono::microseconds(20000 + (i * 997) % 11000));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  return sent;
}

// Strobe -> onset of each command heard, in ms.
std::vector<double> latencies(const Sent& sent, Onsets& onsets) {
  std::vector<double> ms;
  std::lock_guard lock(onsets.m);
  std::map<unsigned, std::size_t> next;
  for (const auto& [id, t] : sent) {
    auto& v = onsets.at[id];
    std::size_t& k = next[id];
    while (k < v.size() && v[k] < t) ++k;
    if (k < v.size()) ms.push_back(static_cast<double>(v[k++] - t) / 1000.0);
  }
  return ms;
}

void printFigures(const std::vector<double>& ms, int commands, const SoundEngine& engine) {
  std::printf("strobe -> mixing pass that starts the sample (DATAEAST, %d commands, %zu heard, buffer %d frames)\n",
              commands, ms.size(), engine.bufferFrames());
  std::printf("  p50 %.2f ms   p99 %.2f ms   p99.9 %.2f ms   max %.2f ms\n", percentile(ms, 50),
              percentile(ms, 99), percentile(ms, 99.9), percentile(ms, 100));
  const double bufferMs = 1000.0 * engine.bufferFrames() / engine.frequency();
  std::printf("  as a ratio to one buffer (%.2f ms): p50 %.3f  p99 %.3f  p99.9 %.3f (target <= 1.05)\n", bufferMs,
              percentile(ms, 50) / bufferMs, percentile(ms, 99) / bufferMs, percentile(ms, 99.9) / bufferMs);
}

}  // namespace

int main(int argc, char** argv) {
  setLogLevel(LEVEL_WARN);
  const fs::path dir = fs::temp_directory_path() / ("korvo-bench-bus-" + std::to_string(getpid()));
  const fs::path base = dir / "sets";
  makeBenchSet(base);
  const std::string raw = (dir / "out.raw").string();
  setenv("SDL_AUDIODRIVER", "disk", 1);
  setenv("SDL_DISKAUDIOFILE", raw.c_str(), 1);

  initSettings(&settings);
  settings.playBoot = 0;
  settings.sayPreload = 0;
  settings.enableI2S = 0;
  settings.protocol = DATAEAST;
  Onsets onsets;
  int rc = 0;
  {
    SoundEngine engine;
    engine.setAnnounceSoundSet(false);
    engine.setTransientSettingsFile((dir / "va.ini").string());
    engine.setOnsetObserver(&Onsets::observe, &onsets);
    if (engine.soundInit(100, base.c_str(), 2, 44100) != 0 || engine.startSoundSets(base.string()) <= 0) {
      std::fprintf(stderr, "audio engine did not start\n");
      rc = 1;
    } else {
      // KORVO_SERVICE_PRIO=<1..99> runs the service thread at SCHED_FIFO, as on a board.
      if (const char* prio = std::getenv("KORVO_SERVICE_PRIO")) engine.setServiceThreadPriority(std::atoi(prio));
      engine.startSoundServiceThread();
      // 10k commands by default: about four minutes.
      const int commands = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
      const Sent sent = strobeCommands(engine, commands);
      printFigures(latencies(sent, onsets), commands, engine);
      engine.stopSoundServiceThread();
    }
    engine.soundShutdown();
  }
  std::error_code ec;
  fs::remove_all(dir, ec);
  return rc;
}
