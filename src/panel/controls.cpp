#include "panel/controls.h"

namespace korvo {

bool DebouncedPin::sample(int level, unsigned now) {
  if (level != raw_) {
    raw_ = level;
    rawSince_ = now;
  }
  if (raw_ == stable_ || now - rawSince_ < kDebounceMs) return false;
  stable_ = raw_;
  since_ = rawSince_;
  return true;
}

void RotaryEncoder::init() {
  for (int pin : {kPinA, kPinB, kPinSwitch}) {
    gpio_.pinMode(pin, INPUT);
    gpio_.pullUpDnControl(pin, PUD_UP);
  }
  state_ = (gpio_.digitalRead(kPinA) ? 2 : 0) | (gpio_.digitalRead(kPinB) ? 1 : 0);
}

void RotaryEncoder::encode_sense(unsigned now) {
  // Quadrature: +1 for each step of 00 -> 01 -> 11 -> 10 -> 00 (indexed by old << 2 |
  // new), -1 backwards; no change and the invalid double changes (a missed sample)
  // count 0.
  static constexpr int kTable[16] = {0, -1, 1, 0, 1, 0, 0, -1, -1, 0, 0, 1, 0, 1, -1, 0};
  const int s = (gpio_.digitalRead(kPinA) ? 2 : 0) | (gpio_.digitalRead(kPinB) ? 1 : 0);
  if (s != state_) {
    transitions_ += kTable[state_ << 2 | s];
    state_ = s;
    // A detent is four transitions; count it on arriving at rest, so a bounce that goes
    // back and forth before the detent cancels itself.
    if (s == 3) {
      if (transitions_ >= 3) ++steps_;
      if (transitions_ <= -3) --steps_;
      transitions_ = 0;
    }
  }
  if (switch_.sample(gpio_.digitalRead(kPinSwitch), now)) {
    if (switch_.stable() == LOW) {
      secondPress_ = firstClick_ && switch_.since() - releasedAt_ <= kDoubleClickMs;
    } else if (secondPress_) {
      clicked_ = 2;
      firstClick_ = secondPress_ = false;
    } else {
      firstClick_ = true;
      releasedAt_ = switch_.since();
    }
  }
  if (firstClick_ && !secondPress_ && switch_.stable() == HIGH && now - releasedAt_ > kDoubleClickMs + DebouncedPin::kDebounceMs) {
    clicked_ = 1;
    firstClick_ = false;
  }
}

int RotaryEncoder::encode_read() {
  const int steps = steps_;
  steps_ = 0;
  return steps;
}

int RotaryEncoder::button_clicked() {
  const int c = clicked_;
  clicked_ = 0;
  return c;
}

void PanelButton::initButton(Callback cb) {
  gpio_.pinMode(kPin, INPUT);
  gpio_.pullUpDnControl(kPin, PUD_UP);
  callback_ = std::move(cb);
  ready_ = true;
}

void PanelButton::updateButton(unsigned now) {
  if (!ready_) return;
  const unsigned pressedAt = pin_.since();
  if (!pin_.sample(gpio_.digitalRead(kPin), now)) return;
  if (pin_.stable() == HIGH && callback_) callback_(pin_.since() - pressedAt);
}

}  // namespace korvo
