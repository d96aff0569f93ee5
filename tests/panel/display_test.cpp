// The mini display on the sim SSD1306 model: what the panel shows is read back from the
// model's RAM through the font; only changed pages travel; a display that goes away is
// one ERROR line.
#include <gtest/gtest.h>

#include <span>

#include "panel/font.h"
#include "panel/front_panel.h"
#include "panel/minidisplay.h"
#include "platform/sim_gpio.h"
#include "support/testutil.h"

namespace korvo {
namespace {

// The text on the panel's line at pixel row y, read from the model's RAM.
std::string panelLine(SimGpio& gpio, int y) {
  const auto fb = gpio.oled().frameBuffer();
  return readText(std::span<const uint8_t, kDisplayColumns>(fb.data() + (y / 8) * kDisplayColumns, kDisplayColumns));
}

TEST(MiniDisplayTest, TheFrameBufferReadsBackThroughTheFont) {
  SimGpio gpio;
  MiniDisplay d(gpio);
  ASSERT_TRUE(d.minidisplay_available());
  ASSERT_TRUE(d.init());
  EXPECT_TRUE(gpio.oled().displayOn());
  d.showLine(0, 8, "VERSION: 1.30rc24");
  d.showLine(0, 48, "SERIAL: 4022250974");
  d.showLine(0, 16, "IP: 192.168.4.1 and a line too long for the panel");
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 8) == "VERSION: 1.30rc24"; })) << panelLine(gpio, 8);
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 48) == "SERIAL: 4022250974"; }));
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 16) == "IP: 192.168.4.1 and a"; }));
  EXPECT_EQ(d.frameBuffer(), gpio.oled().frameBuffer());
  // A shorter text clears the rest of its line.
  d.showLine(0, 8, "V");
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 8) == "V"; }));
}

TEST(MiniDisplayTest, OnlyChangedPagesAreSent) {
  SimGpio gpio;
  MiniDisplay d(gpio);
  ASSERT_TRUE(d.init());
  d.showLine(0, 24, "SOUNDSETS: 3");
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 24) == "SOUNDSETS: 3"; }));
  const uint64_t before = gpio.oled().dataBytes();
  d.showLine(0, 24, "SOUNDSETS: 3");  // unchanged: nothing to send
  d.showLine(0, 56, "x");
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 56) == "x"; }));
  EXPECT_EQ(gpio.oled().dataBytes() - before, 128u);  // one page
}

TEST(MiniDisplayTest, StatusLinesFollowTheSettings) {
  SimGpio gpio;
  Settings s;
  s.volume = 77;
  s.soundSet = 2;
  PanelActions a;
  a.soundSetName = [](int n) { return "SET " + std::to_string(n); };
  FrontPanel panel(gpio, s, a);
  ASSERT_TRUE(panel.initMiniDisplay());
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 40) == "M: DATAEAST    V: 77"; })) << panelLine(gpio, 40);
  ASSERT_TRUE(test::waitFor([&] { return panelLine(gpio, 32) == "SET 2"; }));
  s.volume = 5;
  s.soundSet = 1;
  s.protocol = WPC;
  EXPECT_TRUE(test::waitFor([&] { return panelLine(gpio, 40) == "M: WPC         V: 5"; })) << panelLine(gpio, 40);
  EXPECT_TRUE(test::waitFor([&] { return panelLine(gpio, 32) == "SET 1"; }));
}

TEST(MiniDisplayTest, AMissingOrVanishingDisplayIsOneErrorLine) {
  SimGpio gpio;
  {
    gpio.removeI2cDevice(SimGpio::kOledAddress);
    MiniDisplay d(gpio);
    test::LogCapture log;
    EXPECT_FALSE(d.init());
    EXPECT_TRUE(log.contains("no mini display answers"));
  }
  gpio.addI2cDevice(MiniDisplay::kAlternateAddress, std::make_unique<SimSsd1306>());
  MiniDisplay d(gpio);
  ASSERT_TRUE(d.init());
  EXPECT_EQ(d.address(), 0x3D);
  test::LogCapture log;
  gpio.removeI2cDevice(MiniDisplay::kAlternateAddress);
  d.showLine(0, 0, "gone");
  ASSERT_TRUE(test::waitFor([&] { return log.contains("stopped answering"); }));
  EXPECT_TRUE(test::waitFor([&] { return !d.running(); }));
  d.showLine(0, 8, "still fine");  // the rest of the daemon goes on calling it
  const auto fb = d.frameBuffer();
  EXPECT_EQ(readText(std::span<const uint8_t, kDisplayColumns>(fb.data() + kDisplayColumns, kDisplayColumns)),
            "still fine");
}

}  // namespace
}  // namespace korvo
