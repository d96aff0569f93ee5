#include "platform/sim_bus_driver.h"

#include "base/log.h"
#include "platform/clock.h"

namespace korvo {

SimBusDriver::SimBusDriver(SimGpio& gpio, const SimBusWiring& wiring)
    : gpio_(gpio), wiring_(wiring), activeLevel_(wiring.strobeEdge == INT_EDGE_RISING ? HIGH : LOW) {
  for (int pin : wiring_.dataPins) gpio_.setInput(pin, LOW);
  gpio_.setInput(wiring_.strobePin, activeLevel_ == HIGH ? LOW : HIGH);
}

bool SimBusDriver::sendByte(uint8_t byte) {
  // Several bits may share a pin (a protocol row can repeat a pin): the last bit wins,
  // as it would on a wired bus.
  for (int bit = 0; bit < 8; ++bit) gpio_.setInput(wiring_.dataPins[bit], (byte >> bit) & 1);
  const uint64_t ackFrom = wiring_.ackPin >= 0 ? gpio_.nextOutputEdgeSeq(wiring_.ackPin) : 0;

  {
    std::lock_guard lock(timesMutex_);
    strobeTimes_.push_back(micros());
  }
  gpio_.setInput(wiring_.strobePin, activeLevel_);
  gpio_.setInput(wiring_.strobePin, activeLevel_ == HIGH ? LOW : HIGH);
  ++bytesSent_;

  bool ok = true;
  if (!gpio_.waitIsrIdle(wiring_.strobePin, wiring_.timeout)) {
    ++isrTimeouts_;
    LOG(LEVEL_WARN, "sim bus: interrupt routine of pin %d did not finish for byte 0x%02x",
        wiring_.strobePin, byte);
    ok = false;
  }
  // The pulse is complete when the line has come back HIGH after the strobe.
  if (wiring_.ackPin >= 0 && !gpio_.waitOutputEdge(wiring_.ackPin, ackFrom, HIGH, wiring_.ackTimeout)) {
    ++missingAcks_;
    LOG(LEVEL_WARN, "sim bus: no acknowledge on pin %d for byte 0x%02x", wiring_.ackPin, byte);
    ok = false;
  }
  return ok;
}

bool SimBusDriver::sendCommand(std::span<const uint8_t> bytes) {
  bool ok = true;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && wiring_.gapMicros > 0) delayMicroseconds(wiring_.gapMicros);
    ok = sendByte(bytes[i]) && ok;
  }
  return ok;
}

std::vector<unsigned long> SimBusDriver::strobeTimes() const {
  std::lock_guard lock(timesMutex_);
  return strobeTimes_;
}

void SimBusDriver::clearStrobeTimes() {
  std::lock_guard lock(timesMutex_);
  strobeTimes_.clear();
}

}  // namespace korvo
