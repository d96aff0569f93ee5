// A capture on the simulated board, with a CPU board driving its pins and a consumer
// that records every command it receives.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bus/pincom.h"
#include "bus/sim_board.h"
#include "base/log.h"
#include "core/settings.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"

namespace korvo::test {

struct Received {
  enum Kind { DataEast, Wpc, Whitestar } kind;
  std::array<uint8_t, 4> cmd;
  unsigned value;
  std::string thread;
};

class CommandLog {
 public:
  PincomConsumers consumers() {
    PincomConsumers c;
    c.soundHandler = [this](unsigned v) { add(Received::DataEast, nullptr, v); };
    c.soundWpcHandler = [this](const uint8_t* cmd, unsigned v) { add(Received::Wpc, cmd, v); };
    c.soundWSHandler = [this](const uint8_t* cmd, unsigned v) { add(Received::Whitestar, cmd, v); };
    return c;
  }
  std::vector<Received> all() { std::lock_guard lock(m_); return got_; }
  std::vector<unsigned> values() {
    std::vector<unsigned> v;
    for (const auto& r : all()) v.push_back(r.value);
    return v;
  }
  void clear() { std::lock_guard lock(m_); got_.clear(); }

 private:
  void add(Received::Kind k, const uint8_t* cmd, unsigned v) {
    char name[32] = {0};
    getThreadName(name, sizeof name);
    std::array<uint8_t, 4> c{};
    if (cmd) std::copy(cmd, cmd + 4, c.begin());
    std::lock_guard lock(m_);
    got_.push_back({k, c, v, name});
  }
  std::mutex m_;
  std::vector<Received> got_;
};

// Settings, the simulated board and, after start(), the capture with a CPU board on it.
struct Rig {
  Rig() {
    initSettings(&s);
    s.enableI2S = 0;
  }
  ~Rig() {
    machine.reset();
    pincom.reset();  // stops the interrupt threads before the log goes
    clock::useRealClock();
  }
  // Installs the capture for `protocol` (delivering to `log` unless `c` is given).
  void start(int protocol, PincomConsumers c = {}) {
    s.protocol = protocol;
    pincom = std::make_unique<Pincom>(gpio, s);
    pincom->setConsumers(c.soundHandler ? std::move(c) : log.consumers());
    pincom->initGpio();
    machine = std::make_unique<SimMachine>(gpio, *pincom);
  }

  Settings s;
  SimGpio gpio;
  CommandLog log;
  std::unique_ptr<Pincom> pincom;
  std::unique_ptr<SimMachine> machine;
};

class BusTest : public ::testing::Test, public Rig {};

}  // namespace korvo::test
