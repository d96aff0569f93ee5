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
  OnsetBenchDir d("bus");
  Onsets onsets;
  SoundEngine engine;
  if (!startBenchEngine(engine, d, onsets)) return 1;
  // KORVO_SERVICE_PRIO=<1..99> runs the service thread at SCHED_FIFO, as on a board.
  if (const char* prio = std::getenv("KORVO_SERVICE_PRIO")) engine.setServiceThreadPriority(std::atoi(prio));
  engine.startSoundServiceThread();
  // 10k commands by default: about four minutes.
  const int commands = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
  {
    SimBoardRig board(engine);
    const Sent sent = strobeCommands(*board.machine, commands);
    printFigures(latencies(sent, onsets), commands, engine);
  }
  engine.stopSoundServiceThread();
  engine.soundShutdown();
  return 0;
}
