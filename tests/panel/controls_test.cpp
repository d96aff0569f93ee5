// The encoder, its switch and the button on sim pins with the manual clock: contact
// bounce, missed samples and the click timings.
#include <gtest/gtest.h>

#include <string>

#include "panel/controls.h"
#include "panel/front_panel.h"
#include "platform/clock.h"
#include "platform/sim_gpio.h"
#include "support/manual_clock.h"

namespace korvo {
namespace {

class Controls : public ::testing::Test {
 protected:
  // Plays a pattern on A/B: each character is one loop iteration, "0".."3" = A<<1|B.
  void turn(RotaryEncoder& e, const std::string& states) {
    for (char c : states) {
      gpio.setInput(RotaryEncoder::kPinA, (c - '0') >> 1);
      gpio.setInput(RotaryEncoder::kPinB, (c - '0') & 1);
      tick(e, 1);
    }
  }
  void tick(RotaryEncoder& e, unsigned ms) {
    for (unsigned i = 0; i < ms; ++i) {
      clock::advanceMillis(1);
      e.encode_sense(static_cast<unsigned>(millis()));
    }
  }
  void press(RotaryEncoder& e, unsigned ms, bool bounce = true) {
    if (bounce) {  // a few ms of chatter on each edge
      for (int i = 0; i < 3; ++i) {
        gpio.setInput(RotaryEncoder::kPinSwitch, LOW);
        tick(e, 2);
        gpio.setInput(RotaryEncoder::kPinSwitch, HIGH);
        tick(e, 1);
      }
    }
    gpio.setInput(RotaryEncoder::kPinSwitch, LOW);
    tick(e, ms);
    gpio.setInput(RotaryEncoder::kPinSwitch, HIGH);
  }

  test::ManualClock manual{5000000};
  SimGpio gpio;
};

TEST_F(Controls, EncoderCountsOneStepPerDetentThroughBouncesAndMissedSamples) {
  RotaryEncoder e(gpio);
  e.init();
  EXPECT_EQ(gpio.pullOf(RotaryEncoder::kPinA), PUD_UP);
  EXPECT_EQ(gpio.pullOf(RotaryEncoder::kPinSwitch), PUD_UP);
  turn(e, "3102");  // back at rest on the next sample
  turn(e, "3");
  EXPECT_EQ(e.encode_read(), 1);
  EXPECT_EQ(e.encode_read(), 0);  // reading clears
  turn(e, "31020" "31023");  // half way back before the detent, then a whole one
  EXPECT_EQ(e.encode_read(), 1);
  turn(e, "3201" "3");  // the other way
  EXPECT_EQ(e.encode_read(), -1);
  // Contact bounce on the edges still makes one detent each.
  turn(e, "3131010202" "3" "31310102" "3");
  EXPECT_EQ(e.encode_read(), 2);
  turn(e, "323201013");
  EXPECT_EQ(e.encode_read(), -1);
  // Half a turn that goes back, and jumps over two states (invalid): no step.
  turn(e, "3103" "3023" "303");
  EXPECT_EQ(e.encode_read(), 0);
  turn(e, "31023");  // decoding goes on
  EXPECT_EQ(e.encode_read(), 1);
}

TEST_F(Controls, SwitchTellsSingleFromDoubleClicks) {
  RotaryEncoder e(gpio);
  e.init();
  press(e, 80);
  tick(e, 300);
  EXPECT_EQ(e.button_clicked(), 0);  // a second press may still come
  tick(e, 200);
  EXPECT_EQ(e.button_clicked(), 1);
  EXPECT_EQ(e.button_clicked(), 0);

  press(e, 80);
  tick(e, 150);
  press(e, 80);
  tick(e, 30);
  EXPECT_TRUE(e.clickPending());
  EXPECT_EQ(e.button_clicked(), 2);
  tick(e, 1000);
  EXPECT_EQ(e.button_clicked(), 0);

  // 10 ms of chatter alone is no press.
  gpio.setInput(RotaryEncoder::kPinSwitch, LOW);
  tick(e, 10);
  gpio.setInput(RotaryEncoder::kPinSwitch, HIGH);
  tick(e, 1000);
  EXPECT_EQ(e.button_clicked(), 0);

  // A second press after 400 ms is a second single click.
  press(e, 50, false);
  tick(e, 450);
  press(e, 50, false);
  tick(e, 500);
  EXPECT_EQ(e.button_clicked(), 1);
}

TEST_F(Controls, ButtonReportsPressDurationsOnRelease) {
  PanelButton b(gpio);
  std::vector<unsigned> got;
  b.initButton([&](unsigned ms) { got.push_back(ms); });
  auto run = [&](unsigned ms) {
    for (unsigned i = 0; i < ms; ++i) {
      clock::advanceMillis(1);
      b.updateButton(static_cast<unsigned>(millis()));
    }
  };
  for (unsigned hold : {120u, 300u, 2500u}) {
    gpio.setInput(PanelButton::kPin, LOW);
    run(3);
    gpio.setInput(PanelButton::kPin, HIGH);  // bounce
    run(1);
    gpio.setInput(PanelButton::kPin, LOW);
    run(hold);
    gpio.setInput(PanelButton::kPin, HIGH);
    run(50);
  }
  gpio.setInput(PanelButton::kPin, LOW);  // shorter than the debounce time
  run(15);
  gpio.setInput(PanelButton::kPin, HIGH);
  run(50);
  EXPECT_EQ(got, (std::vector<unsigned>{120, 300, 2500}));
}

TEST_F(Controls, EncoderActionsStepTheVolumeSwitchSetsAndWalkCommandNumbers) {
  Settings s;
  s.soundSet = 3;
  s.volume = 50;
  std::vector<std::string> calls;
  PanelActions a;
  a.adjustVolume = [&](int steps) { calls.push_back("vol " + std::to_string(steps)); };
  a.nextSoundSet = [&] { calls.push_back("next set"); };
  a.soundHandler = [&](unsigned id) { calls.push_back("cmd " + std::to_string(id)); };
  FrontPanel panel(gpio, s, a);
  panel.initRotaryEncoder();
  RotaryEncoder& e = panel.encoder();
  auto loop = [&](unsigned ms) {
    for (unsigned i = 0; i < ms; ++i) {
      clock::advanceMillis(1);
      panel.encode_sense(static_cast<unsigned>(millis()));
      panel.doRotaryEncoder();
    }
  };
  turn(e, "31023102" "3");
  loop(1000);
  press(e, 60);
  loop(1000);  // single click
  for (int i = 0; i < 2; ++i) {
    press(e, 60);
    loop(100);
    press(e, 60);
    loop(1000);
  }
  EXPECT_EQ(calls, (std::vector<std::string>{"vol 2", "next set", "cmd 0", "cmd 1"}));
}

}  // namespace
}  // namespace korvo
