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
#include "common/onset_rig.h"
#include "bus/sim_board.h"
#include "base/log.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "sound/protocol_handlers.h"
#include "sound/sdl_sound.h"

using namespace korvo;
using namespace korvo::bench;
namespace fs = std::filesystem;

namespace {

// Strobes `count` commands at 30-50 a second, as a busy game sends them.
Sent strobeOnSimBoard(SoundEngine& engine, int count) {
  SimGpio gpio;
  Pincom pincom(gpio, settings);
  PincomConsumers c;
  c.soundHandler = [&](unsigned v) { engine.soundHandler(v); };
  pincom.setConsumers(std::move(c));
  pincom.initGpio();
  SimMachine machine(gpio, pincom);
  return bench::strobeCommands(machine, count);
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
      const Sent sent = strobeOnSimBoard(engine, commands);
      printFigures(latencies(sent, onsets), commands, engine);
      engine.stopSoundServiceThread();
    }
    engine.soundShutdown();
  }
  std::error_code ec;
  fs::remove_all(dir, ec);
  return rc;
}
