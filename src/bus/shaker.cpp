#include "bus/shaker.h"

#include "bus/pin_tables.h"
#include "base/log.h"
#include "platform/clock.h"

namespace korvo {

std::vector<uint8_t> PortStates::getPortStates() const {
  std::vector<uint8_t> out(getNumberOfPorts());
  for (int i = 0; i < getNumberOfPorts(); ++i) out[i] = get(i);
  return out;
}

Shaker::Shaker(Gpio& gpio, const Settings& s, PortStates& states)
    : gpio_(gpio), settings_(s), states_(states) {}

int Shaker::pin() const { return physicalToWiringPi(settings_.pinShaker); }

void Shaker::setup() {
  LOG(LEVEL_INFO, "shaker enabled, using pin %d", settings_.pinShaker);
  const int p = pin();
  if (p < 0) {
    LOG(LEVEL_ERROR, "shaker pin %d is not a GPIO pin of the header", settings_.pinShaker);
    return;
  }
  gpio_.pinMode(p, OUTPUT);
  shakerOff();
}

void Shaker::write(bool on) {
  const int p = pin();
  if (p < 0) return;
  states_.set(p, on);
  LOG(LEVEL_INFO, "shaker => %s", on ? "on" : "off");
  const bool level = settings_.shakerActiveLow ? !on : on;
  gpio_.digitalWrite(p, level ? HIGH : LOW);
}

void Shaker::shakerOn() { write(true); }
void Shaker::shakerOff() { write(false); }

void Shaker::playbackShakerSequence(std::vector<int> pattern) {
  if (pattern.empty()) return;
  std::lock_guard lock(mutex_);
  shakerOn();
  shakerState_ = 1;
  // A negative duration from a broken pattern file counts as 0.
  const unsigned first = pattern[0] > 0 ? static_cast<unsigned>(pattern[0]) : 0;
  unsigned next = static_cast<unsigned>(millis()) + first;
  if (next == 0) next = 1;  // 0 means "no pattern"
  shakerIndex_ = 1;
  pattern_ = std::move(pattern);
  shakerSwitchTime_.store(next, std::memory_order_release);
}

void Shaker::update(unsigned now) {
  if (shakerSwitchTime_.load(std::memory_order_acquire) == 0) return;
  std::lock_guard lock(mutex_);
  const unsigned switchTime = shakerSwitchTime_.load(std::memory_order_relaxed);
  if (switchTime == 0 || now <= switchTime) return;
  if (shakerIndex_ >= static_cast<int>(pattern_.size())) {
    // The last phase has been waited out: the pattern always ends with the motor off.
    shakerOff();
    shakerState_ = 0;
    shakerSwitchTime_.store(0, std::memory_order_release);
    pattern_.clear();
    return;
  }
  const int d = pattern_[shakerIndex_];
  unsigned next = now + (d > 0 ? static_cast<unsigned>(d) : 0);
  if (next == 0) next = 1;
  shakerSwitchTime_.store(next, std::memory_order_release);
  ++shakerIndex_;
  if (shakerState_ == 1) {
    shakerState_ = 0;
    shakerOff();
  } else {
    shakerState_ = 1;
    shakerOn();
  }
}

}  // namespace korvo
