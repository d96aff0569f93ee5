// The front panel as the main loop drives it: the display, the Data East volume input,
// the rotary encoder with its switch, and the button, each optional. The actions reach
// the engine only through the callbacks the owner wires (volume, set and device
// changes go through the engine's public surface).
//
// Threads: everything here runs on the main loop, except the display's own thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "core/settings.h"
#include "panel/controls.h"
#include "panel/dataeast_volume.h"
#include "panel/minidisplay.h"
#include "platform/gpio.h"

namespace korvo {

// The encoder shares its pins with the I2S interface and the volume input: only the
// Data East protocols without either may use it.
bool rotarySupport(const Settings* s);

struct PanelActions {
  // Called on the main loop: each must return at once (post to the engine's ring).
  std::function<void(int steps)> adjustVolume;  // encoder steps, 5 volume units each
  std::function<void(int volume)> setVolume;    // the pot
  std::function<void()> nextSoundSet;           // wraps from the last set to 1
  std::function<void(unsigned id)> soundHandler;
  // The name of sound set n, for the display (called on the display thread).
  std::function<std::string(int set)> soundSetName;
};

class FrontPanel {
 public:
  // Loop iterations between two looks at the encoder (it is sampled every iteration).
  static constexpr int kEncoderEvery = 800;

  FrontPanel(Gpio& gpio, Settings& s, PanelActions actions);
  ~FrontPanel();

  // Probes and starts the display. False when there is none.
  bool initMiniDisplay();
  MiniDisplay* display() { return display_.get(); }
  // A line of text; nothing without a display.
  void showDisplayLine(int x, int y, const std::string& text);
  // The encoder and the Data East volume input, at start-up.
  void initRotaryEncoder();
  bool initDataEastVolume();
  // The button, at start-up.
  void initButton(PanelButton::Callback cb);

  // Called from the main loop: sensing, the button and volume updates, encoder actions.
  void encode_sense(unsigned now);
  void updateButton(unsigned now) { button_.updateButton(now); }
  void updateDataEastVolume(unsigned now);
  void doRotaryEncoder();

  RotaryEncoder& encoder() { return encoder_; }
  DataEastVolume& volumeInput() { return volume_; }

 private:
  // On the display thread: the mode / volume line and the set's name when they change.
  void refreshStatus(MiniDisplay& d);

  Gpio& gpio_;
  Settings& settings_;
  PanelActions actions_;
  std::unique_ptr<MiniDisplay> display_;
  RotaryEncoder encoder_;
  DataEastVolume volume_;
  PanelButton button_;
  bool encoderOn_ = false;
  int calls_ = 0;           // doRotaryEncoder's throttle
  unsigned nextCommand_ = 0;  // walked by double clicks
  int shownSet_ = -1;       // display thread only
};

}  // namespace korvo
