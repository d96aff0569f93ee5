// The rotary encoder with its push switch, and the front-panel button. Inputs with
// pull-ups, pressed = low. Pin numbers are wiringPi numbers: encoder A/B on 28 and 29,
// its switch on 24 (they share the I2S pins), the button on 27.
//
// Thread: the main loop only (sampled every iteration).
#pragma once

#include <functional>

#include "platform/gpio.h"

namespace korvo {

// A debounced input: a level counts once it has held for kDebounceMs.
class DebouncedPin {
 public:
  static constexpr unsigned kDebounceMs = 20;
  // True when the stable level changed on this sample; `since` is when the new level
  // first appeared.
  bool sample(int level, unsigned now);
  int stable() const { return stable_; }
  unsigned since() const { return since_; }

 private:
  int stable_ = HIGH;
  int raw_ = HIGH;
  unsigned rawSince_ = 0;
  unsigned since_ = 0;
};

class RotaryEncoder {
 public:
  static constexpr int kPinA = 28;
  static constexpr int kPinB = 29;
  static constexpr int kPinSwitch = 24;
  static constexpr unsigned kDoubleClickMs = 400;

  explicit RotaryEncoder(Gpio& gpio) : gpio_(gpio) {}
  void init();
  // Samples A/B and the switch (every loop iteration).
  void encode_sense(unsigned now);
  // Signed detent steps since the last read; clears them.
  int encode_read();
  // 1 after a single click, 2 after a double click (second press within 400 ms of the
  // first release), else 0; reading clears it.
  int button_clicked();
  bool clickPending() const { return clicked_ != 0; }

 private:
  Gpio& gpio_;
  int state_ = 3;  // A<<1 | B; at rest on a detent both read high
  int transitions_ = 0;
  int steps_ = 0;
  DebouncedPin switch_;
  bool firstClick_ = false;  // a release waits to see whether a second press follows
  bool secondPress_ = false;
  unsigned releasedAt_ = 0;
  int clicked_ = 0;
};

class PanelButton {
 public:
  static constexpr int kPin = 27;
  using Callback = std::function<void(unsigned durationMs)>;

  explicit PanelButton(Gpio& gpio) : gpio_(gpio) {}
  void initButton(Callback cb);
  // Debounces the pin and, on release, calls the callback with the press duration.
  void updateButton(unsigned now);

 private:
  Gpio& gpio_;
  Callback callback_;
  DebouncedPin pin_;
  bool ready_ = false;
};

}  // namespace korvo
