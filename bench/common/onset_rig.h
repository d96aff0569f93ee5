// What the strobe-to-onset benchmarks share: a small PINSOUND set of short effects, the
// engine's onset observer, commands strobed at game pace on the simulated board, and the
// pairing of each strobe with the onset that answered it. Header only; benchmark code.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "base/log.h"
#include "bus/pincom.h"
#include "bus/sim_board.h"
#include "core/settings.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "sound/sdl_sound.h"
#include "support/wav.h"

namespace korvo::bench {

constexpr int kIds = 8;  // effects 10 .. 17

// A PINSOUND set (recognised by its music folder) with kIds short effects from id 10.
inline void makeBenchSet(const std::filesystem::path& base) {
  test::writeSineWav(base / "demo" / "music" / "1-m" / "m.wav", 0.5, 8000, 220.0);
  for (int i = 0; i < kIds; ++i)
    test::writeSineWav(base / "demo" / "sfx" / (std::to_string(10 + i) + "-s") / "s.wav", 0.05, 8000, 440.0 + 50 * i);
}

// A scratch directory holding the bench set (`base`) and SDL's disk driver output, with
// the settings every onset benchmark runs with (DATAEAST, no boot sound or prompts).
// Removed again when the benchmark ends.
struct OnsetBenchDir {
  std::filesystem::path dir, base;
  explicit OnsetBenchDir(const char* tag)
      : dir(std::filesystem::temp_directory_path() / (std::string("korvo-bench-") + tag + "-" + std::to_string(getpid()))),
        base(dir / "sets") {
    setLogLevel(LEVEL_WARN);
    makeBenchSet(base);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", (dir / "out.raw").c_str(), 1);
    initSettings(&settings);
    settings.playBoot = 0;
    settings.sayPreload = 0;
    settings.enableI2S = 0;
    settings.protocol = DATAEAST;
  }
  ~OnsetBenchDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  OnsetBenchDir(const OnsetBenchDir&) = delete;
  OnsetBenchDir& operator=(const OnsetBenchDir&) = delete;
};

// The sim board wired to `engine`: pins, the bus driver feeding soundHandler, and the
// machine that strobes commands on them.
struct SimBoardRig {
  SimGpio gpio;
  Pincom pincom{gpio, settings};
  std::unique_ptr<SimMachine> machine;
  explicit SimBoardRig(SoundEngine& engine) {
    PincomConsumers c;
    c.soundHandler = [&engine](unsigned v) { engine.soundHandler(v); };
    pincom.setConsumers(std::move(c));
    pincom.initGpio();
    machine = std::make_unique<SimMachine>(gpio, pincom);
  }
};

// The engine's onset observer: micros() of each sample's first mixing pass, by id.
struct Onsets {
  std::mutex m;
  std::map<unsigned, std::vector<unsigned long>> at;
  static void observe(void* user, unsigned id, int, uint64_t) {
    auto* self = static_cast<Onsets*>(user);
    const unsigned long t = micros();
    std::lock_guard lock(self->m);
    self->at[id].push_back(t);
  }
  void clear() {
    std::lock_guard lock(m);
    at.clear();
  }
};

using Sent = std::vector<std::pair<unsigned, unsigned long>>;  // id, strobe micros

inline double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<std::size_t>(p / 100.0 * static_cast<double>(v.size())))];
}

// Strobes `count` commands at 30-50 a second, as a busy game sends them.
inline Sent strobeCommands(SimMachine& machine, int count) {
  Sent sent;
  for (int i = 0; i < count; ++i) {
    const unsigned id = 10 + static_cast<unsigned>(i % kIds);
    machine.driver().clearStrobeTimes();
    machine.sendByte(static_cast<uint8_t>(id));
    sent.emplace_back(id, machine.driver().strobeTimes().at(0));
    // Spread the strobes over the mixing period so every phase of a pass is measured.
    std::this_thread::sleep_for(std::chrono::microseconds(20000 + (i * 997) % 11000));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  return sent;
}

// Starts `engine` on the bench set with `onsets` observing it (bufferFrames 0: the
// engine's default). False, with a message, when audio did not start.
inline bool startBenchEngine(SoundEngine& engine, const OnsetBenchDir& d, Onsets& onsets, int bufferFrames = 0) {
  engine.setAnnounceSoundSet(false);
  engine.setTransientSettingsFile((d.dir / "va.ini").string());
  engine.setOnsetObserver(&Onsets::observe, &onsets);
  if (bufferFrames > 0) engine.setBufferFrames(bufferFrames);
  if (engine.soundInit(100, d.base.c_str(), 2, 44100) != 0 || engine.startSoundSets(d.base.string()) <= 0) {
    std::fprintf(stderr, "audio engine did not start\n");
    return false;
  }
  return true;
}

// Strobe -> onset of each command heard, in ms.
inline std::vector<double> latencies(const Sent& sent, Onsets& onsets) {
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

}  // namespace korvo::bench
