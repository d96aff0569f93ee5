// Strobe-to-onset latency while the web service is flooded with requests, next to the
// same measurement without the flood. The path: a command strobed on the sim pins ->
// interrupt thread -> ring -> service thread -> the mixing pass that starts the sample,
// on SDL's disk driver paced in real time. Figures are ratios to one audio buffer
// (target p99.9 <= 1.05, as without the flood).
//
//   bench_onset_under_http [commands per phase] [flooding clients] [buffer frames]
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
#include "common/onset_rig.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "sound/sdl_sound.h"
#include "support/wav.h"
#include "web/httpservice.h"
#include "web/raw_client.h"

using namespace korvo;
using namespace korvo::bench;
namespace fs = std::filesystem;

namespace {

// Strobes `count` commands at game pace and returns strobe -> onset in ms.
std::vector<double> measure(SimMachine& machine, Onsets& onsets, int count) {
  onsets.clear();
  return latencies(strobeCommands(machine, count), onsets);
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
  const int bufferFrames = argc > 3 ? std::atoi(argv[3]) : 0;  // 0: the engine's default
  OnsetBenchDir d("web");
  Onsets onsets;
  SoundEngine engine;
  if (!startBenchEngine(engine, d, onsets, bufferFrames)) return 1;
  engine.startSoundServiceThread();
  {
    SimBoardRig board(engine);
    SimMachine& machine = *board.machine;
    WebContext ctx(engine);
    ctx.baseDir = d.base.string();
    ctx.webRoot = (d.dir / "html").string();
    HttpService http(ctx);
    http.startHttpService("/dev/null", "./korvo", 0);
    const double bufferMs = 1000.0 * engine.bufferFrames() / engine.frequency();
    std::printf("strobe -> mixing pass that starts the sample (DATAEAST, buffer %d frames = %.2f ms)\n",
                engine.bufferFrames(), bufferMs);
    report("without HTTP traffic", measure(machine, onsets, commands), commands, bufferMs);

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
    const auto flooded = measure(machine, onsets, commands);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    stop = true;
    for (auto& t : flood) t.join();
    report("with HTTP flood", flooded, commands, bufferMs);
    std::printf("  (%d clients, %.0f requests/s answered during the flood)\n", clients, requests / s);
    http.stopHttpService();
  }
  engine.stopSoundServiceThread();
  engine.soundShutdown();
  return 0;
}
