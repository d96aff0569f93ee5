// The simulated CPU board wired to the capture's own pin tables: the data pins (with the
// I2S remap in force), strobe pin and edge, and sound acknowledge line all come from
// pin_tables.h / the Pincom, so a corrected table row changes both sides at once.
#pragma once

#include <memory>
#include <span>

#include "bus/pincom.h"
#include "platform/sim_bus_driver.h"
#include "platform/sim_gpio.h"

namespace korvo {

// The wiring for `protocol`, with the I2S remap when `enableI2S`.
SimBusWiring simBusWiring(int protocol, bool enableI2S);
// The wiring of the table the capture actually uses (after initGpio).
SimBusWiring simBusWiring(const Pincom& pincom);

// A machine's CPU board on the sim pins, driving the protocol `pincom` captures.
class SimMachine {
 public:
  SimMachine(SimGpio& gpio, const Pincom& pincom, unsigned gapMicros = 0);

  bool sendByte(uint8_t b) { return driver_.sendByte(b); }
  bool sendCommand(std::span<const uint8_t> bytes) { return driver_.sendCommand(bytes); }
  bool sendCommand(std::initializer_list<uint8_t> bytes) { return driver_.sendCommand(bytes); }
  SimBusDriver& driver() { return driver_; }

 private:
  SimBusDriver driver_;
};

}  // namespace korvo
