// Bus capture figures on the simulated board:
//  1. strobe-to-consumer latency: sim pins -> interrupt thread -> consumer, over 10k
//     Data East commands (p50 / p99 / p99.9 in ms);
//  2. bursts per protocol at the pace the protocol's own handshake allows (the CPU
//     board waits for the capture as it does for a real sound board): commands lost;
//  3. the same bursts with a board that does not wait (new byte on the lines right after
//     each strobe): what is lost then, and why.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include "bus/pincom.h"
#include "bus/sim_board.h"
#include "base/log.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"

using namespace korvo;

namespace {

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t i = std::min(v.size() - 1, static_cast<std::size_t>(p / 100.0 * static_cast<double>(v.size())));
  return v[i];
}

struct Sink {
  std::mutex m;
  std::vector<unsigned> values;
  std::vector<unsigned long> times;
  void add(unsigned v) {
    const unsigned long t = micros();
    std::lock_guard lock(m);
    values.push_back(v);
    times.push_back(t);
  }
  PincomConsumers consumers() {
    PincomConsumers c;
    c.soundHandler = [this](unsigned v) { add(v); };
    c.soundWpcHandler = [this](const uint8_t*, unsigned v) { add(v); };
    c.soundWSHandler = [this](const uint8_t*, unsigned v) { add(v); };
    return c;
  }
};

// Settings, sim pins, capture and the simulated CPU board for one protocol, with every
// delivered command recorded in `sink`.
struct Rig {
  explicit Rig(int protocol) {
    initSettings(&s);
    s.protocol = protocol;
    pincom.setConsumers(sink.consumers());
    pincom.initGpio();
    // The board is wired after initGpio, which settles the pin rows (I2S remap).
    machine = std::make_unique<SimMachine>(gpio, pincom);
  }
  Settings s;
  SimGpio gpio;
  Sink sink;
  Pincom pincom{gpio, s};
  std::unique_ptr<SimMachine> machine;
};

void latency() {
  Rig rig(DATAEAST);
  Sink& sink = rig.sink;
  SimMachine& machine = *rig.machine;
  constexpr int kCommands = 10000;
  sink.values.reserve(kCommands);
  sink.times.reserve(kCommands);
  for (int i = 0; i < kCommands; ++i) machine.sendByte(static_cast<uint8_t>(i % 255));  // never 0xFF
  const auto strobes = machine.driver().strobeTimes();
  std::vector<double> ms;
  for (std::size_t i = 0; i < sink.times.size() && i < strobes.size(); ++i)
    ms.push_back(static_cast<double>(sink.times[i] - strobes[i]) / 1000.0);
  std::printf("strobe -> consumer (DATAEAST, %d commands, %zu delivered)\n", kCommands, sink.values.size());
  std::printf("  p50 %.3f ms   p99 %.3f ms   p99.9 %.3f ms   max %.3f ms\n", percentile(ms, 50), percentile(ms, 99),
              percentile(ms, 99.9), percentile(ms, 100));
}

struct Protocol {
  int protocol;
  std::vector<std::vector<uint8_t>> commands;  // each one command, as bytes
  std::vector<unsigned> expected;
};

Protocol commandsFor(int p, int n) {
  Protocol out{p, {}, {}};
  for (int i = 0; i < n; ++i) {
    switch (p) {
      case DATAEAST: {
        const uint8_t b = static_cast<uint8_t>(1 + i % 250);
        out.commands.push_back({b});
        out.expected.push_back(b);
        break;
      }
      case WHITESTAR: {
        const uint8_t b = static_cast<uint8_t>(1 + i % 250);
        out.commands.push_back({0x01, b});
        out.expected.push_back(0x0100u + b);
        break;
      }
      case WPC: {
        const uint8_t b = static_cast<uint8_t>(i % 256);
        out.commands.push_back({0x7A, b});
        out.expected.push_back(0x7A00u + b);
        break;
      }
      case WPCDCS: {
        const uint8_t b = static_cast<uint8_t>(1 + i % 250);
        out.commands.push_back({0x02, b});
        out.expected.push_back(0x0200u + b);
        break;
      }
    }
  }
  return out;
}

// Sends every command; with `handshake` through the driver (waits for the interrupt
// routine and the acknowledge), else raw strobes back to back.
void burst(int protocol, bool handshake) {
  constexpr int kCommands = 5000;
  Rig rig(protocol);
  Sink& sink = rig.sink;
  SimGpio& gpio = rig.gpio;
  Pincom& pincom = rig.pincom;
  SimMachine& machine = *rig.machine;
  const SimBusWiring w = simBusWiring(pincom);
  const int active = w.strobeEdge == INT_EDGE_RISING ? HIGH : LOW;
  const Protocol cmds = commandsFor(protocol, kCommands);
  std::size_t bytes = 0;
  const auto t0 = std::chrono::steady_clock::now();
  for (const auto& c : cmds.commands) {
    if (handshake) {
      machine.sendCommand(c);
    } else {
      for (uint8_t b : c) {
        for (int bit = 0; bit < 8; ++bit) gpio.setInput(w.dataPins[bit], (b >> bit) & 1);
        gpio.setInput(w.strobePin, active);
        gpio.setInput(w.strobePin, active == HIGH ? LOW : HIGH);
      }
    }
    bytes += c.size();
  }
  gpio.waitIsrIdle(w.strobePin, std::chrono::seconds(30));
  const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::size_t correct = 0;
  {
    std::lock_guard lock(sink.m);
    // In order: a command counts when it arrives in its place among the ones before it.
    std::size_t j = 0;
    for (unsigned v : sink.values) {
      while (j < cmds.expected.size() && cmds.expected[j] != v) ++j;
      if (j < cmds.expected.size()) {
        ++correct;
        ++j;
      }
    }
  }
  std::printf("  %-10s %-9s %5d commands (%5zu bytes) in %6.3f s = %8.0f cmd/s: delivered %5zu, correct %5zu, lost %5zu\n",
              protocolName(protocol), handshake ? "handshake" : "no-wait", kCommands, bytes, secs,
              kCommands / secs, sink.values.size(), correct, kCommands - correct);
}

}  // namespace

int main() {
  setLogLevel(LEVEL_WARN);
  latency();
  std::printf("bursts (each protocol as fast as its handshake allows, then without waiting):\n");
  for (int p : {DATAEAST, WHITESTAR, WPC, WPCDCS}) burst(p, true);
  for (int p : {DATAEAST, WHITESTAR, WPC, WPCDCS}) burst(p, false);
  std::printf(
      "  no-wait losses: the next byte is already on the data lines when the interrupt thread\n"
      "  reads them, so commands arrive with wrong bytes (and multi-byte commands break apart);\n"
      "  a real CPU board holds each byte until the sound board has taken it.\n");
  return 0;
}
