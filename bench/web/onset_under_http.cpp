// Strobe-to-onset latency while the web service is flooded with requests, next to the
// same measurement without the flood. The path: a command strobed on the sim pins ->
// interrupt thread -> ring -> service thread -> the mixing pass that starts the sample,
// on SDL's disk driver paced in real time. Figures are ratios to one audio buffer
// (target p99.9 <= 1.05, as without the flood).
//
//   bench_onset_under_http [commands per phase] [flooding clients]
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "bus/pincom.h"
#include "bus/sim_board.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "sound/sdl_sound.h"
#include "support/wav.h"
#include "web/httpservice.h"
#include "web/raw_client.h"

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

// Strobes `count` commands at game pace and returns strobe -> onset in ms.
std::vector<double> measure(SimMachine& machine, Onsets& onsets, int count, int ids) {
  {
    std::lock_guard lock(onsets.m);
    onsets.at.clear();
  }
  std::vector<std::pair<unsigned, unsigned long>> sent;  // id, strobe micros
  for (int i = 0; i < count; ++i) {
    const unsigned id = 10 + static_cast<unsigned>(i % ids);
    machine.driver().clearStrobeTimes();
    machine.sendByte(static_cast<uint8_t>(id));
    sent.emplace_back(id, machine.driver().strobeTimes().at(0));
    // Spread the strobes over the mixing period so every phase of a pass is measured.
    std::this_thread::sleep_for(std::chrono::microseconds(20000 + (i * 997) % 11000));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
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

void report(const char* label, const std::vector<double>& ms, int sent, double bufferMs) {
  std::printf("  %-22s %4zu of %d heard   p50 %.3f  p99 %.3f  p99.9 %.3f  max %.3f (x buffer; target p99.9 <= 1.05)\n",
              label, ms.size(), sent, percentile(ms, 50) / bufferMs, percentile(ms, 99) / bufferMs,
              percentile(ms, 99.9) / bufferMs, percentile(ms, 100) / bufferMs);
}

}  // namespace

int main(int argc, char** argv) {
  const int commands = argc > 1 ? std::max(10, std::atoi(argv[1])) : 1500;
  const int clients = argc > 2 ? std::max(1, std::atoi(argv[2])) : 4;
  setLogLevel(LEVEL_WARN);
  const fs::path dir = fs::temp_directory_path() / ("korvo-bench-web-" + std::to_string(getpid()));
  const fs::path base = dir / "sets";
  constexpr int kIds = 8;
  test::writeSineWav(base / "demo" / "music" / "1-m" / "m.wav", 0.5, 8000, 220.0);
  for (int i = 0; i < kIds; ++i)
    test::writeSineWav(base / "demo" / "sfx" / (std::to_string(10 + i) + "-s") / "s.wav", 0.05, 8000, 440.0 + 50 * i);
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
      engine.startSoundServiceThread();
      SimGpio gpio;
      Pincom pincom(gpio, settings);
      PincomConsumers c;
      c.soundHandler = [&](unsigned v) { engine.soundHandler(v); };
      pincom.setConsumers(std::move(c));
      pincom.initGpio();
      SimMachine machine(gpio, pincom);
      WebContext ctx(engine);
      ctx.baseDir = base.string();
      ctx.webRoot = (dir / "html").string();
      HttpService http(ctx);
      http.startHttpService("/dev/null", "./korvo", 0);
      const double bufferMs = 1000.0 * engine.bufferFrames() / engine.frequency();
      std::printf("strobe -> mixing pass that starts the sample (DATAEAST, buffer %d frames = %.2f ms)\n",
                  engine.bufferFrames(), bufferMs);
      report("without HTTP traffic", measure(machine, onsets, commands, kIds), commands, bufferMs);

      // The web page's own traffic, as fast as the clients can send it.
      std::atomic<bool> stop{false};
      std::atomic<long> requests{0};
      const char* paths[] = {"/version", "/sounds/category/sfx", "/soundsets", "/volume", "/sounds/12", "/ports",
                             "/livelog?i=0", "/gainByType/2"};
      std::vector<std::thread> flood;
      for (int t = 0; t < clients; ++t)
        flood.emplace_back([&, t] {
          // The browsers are other machines: here they must not take the CPU the
          // board's own threads would have.
          setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 19);
          bench::RawClient client(http.boundPort());
          for (std::size_t i = static_cast<std::size_t>(t); !stop; ++i)
            if (client.get(paths[i % std::size(paths)]) == 200) requests++;
        });
      const auto t0 = std::chrono::steady_clock::now();
      const auto flooded = measure(machine, onsets, commands, kIds);
      const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      stop = true;
      for (auto& t : flood) t.join();
      report("with HTTP flood", flooded, commands, bufferMs);
      std::printf("  (%d clients, %.0f requests/s answered during the flood)\n", clients, requests / s);
      http.stopHttpService();
      engine.stopSoundServiceThread();
    }
    engine.soundShutdown();
  }
  std::error_code ec;
  fs::remove_all(dir, ec);
  return rc;
}
