// The Data East volume input on the sim ADC model: a turned pot moves the level the
// real mixer plays at; a resting noisy pot, a floating input or a missing converter
// never touch the volume.
#include <gtest/gtest.h>

#include "panel/dataeast_volume.h"
#include "platform/sim_gpio.h"
#include "sound/engine_fixture.h"

namespace korvo {
namespace {

// Volts at the ADC for a volume with the default offset 40 and range 400 (2 mV per
// 12-bit step at +-4.096 V).
double voltsFor(double volume) { return (40 + volume * 400 / 128) * 0.002; }

class VolumeInput : public test::EngineFixture {
 protected:
  void SetUp() override {
    EngineFixture::SetUp();
    clock::useManualClock(1000000);
    settings.enable_dataeast_volume = 1;
  }
  // The main loop's calls over `ms` milliseconds.
  void run(DataEastVolume& input, unsigned ms) {
    for (unsigned i = 0; i < ms; ++i) {
      clock::advanceMillis(1);
      input.updateDataEastVolume(static_cast<unsigned>(millis()));
    }
  }
  SimGpio gpio;
  int writes = 0;  // volume changes the input asked for (each one rewrites va.ini)
};

TEST_F(VolumeInput, TurningThePotMovesTheCapturedLevel) {
  openWithSet();
  int vaWrites = 0;
  engine->hooks().writeSettings = [&](const std::vector<std::string>&) { ++vaWrites; };
  settings.volume = 64;
  gpio.adc().setInputVoltage(0, voltsFor(64), 0.003);
  DataEastVolume input(gpio, settings, [&](int v) {
    ++writes;
    engine->setVolume(v);
  });
  ASSERT_TRUE(input.init());
  run(input, 1000);
  EXPECT_EQ(writes, 0);  // resting where it was: the stored volume stays
  engine->handleSoundByType(10);
  ASSERT_TRUE(waitIdle(10));

  gpio.adc().setInputVoltage(0, voltsFor(128) + 0.02, 0.003);  // turned fully up
  run(input, 1000);
  EXPECT_EQ(settings.volume.load(), 128);
  EXPECT_EQ(writes, 1);
  engine->handleSoundByType(10);
  ASSERT_TRUE(waitIdle(10));

  const auto starts = onsets.get(10);
  ASSERT_EQ(2u, starts.size());
  const uint64_t from = 44100 / 20, len = 44100 * 15 / 100;
  const double loud = capturedRms(starts[1] + from, len);
  const double soft = capturedRms(starts[0] + from, len);
  ASSERT_GT(soft, 100.0);
  EXPECT_NEAR(2.0, loud / soft, 0.02);
  EXPECT_EQ(vaWrites, 1);
}

TEST_F(VolumeInput, ARestingNoisyPotNeverChangesTheVolumeButAMovedOneTakesOver) {
  for (auto variant : {SimAds1x15::Variant::ADS1015, SimAds1x15::Variant::ADS1115}) {
    gpio.addI2cDevice(SimGpio::kAdcAddress, std::make_unique<SimAds1x15>(variant));
    settings.volume = 90;  // set from the web: the pot rests elsewhere
    writes = 0;
    gpio.adc().setInputVoltage(0, voltsFor(50), 0.005);  // +-2.5 steps of 12 bits
    DataEastVolume input(gpio, settings, [&](int v) {
      ++writes;
      settings.volume = v;
    });
    ASSERT_TRUE(input.init());
    EXPECT_EQ(input.isAds1115(), variant == SimAds1x15::Variant::ADS1115);
    run(input, 60000);  // a minute of noise: 1200 readings
    EXPECT_GE(gpio.adc().conversions(), 1100);
    EXPECT_EQ(writes, 0);
    EXPECT_EQ(settings.volume.load(), 90);
    // A small turn inside the hysteresis is ignored; a real one takes over.
    gpio.adc().setInputVoltage(0, voltsFor(51), 0.005);
    run(input, 1000);
    EXPECT_EQ(writes, 0);
    gpio.adc().setInputVoltage(0, voltsFor(70), 0.005);
    run(input, 1000);
    EXPECT_EQ(writes, 1);
    EXPECT_NEAR(settings.volume.load(), 70, 1);
    gpio.adc().setInputVoltage(0, 0.0);  // fully down, below the offset
    run(input, 1000);
    EXPECT_EQ(settings.volume.load(), 0);
  }
}

TEST_F(VolumeInput, APotWiredBackwardsIsToldOnceAndWorksWithANegativeRange) {
  settings.volume = 60;
  gpio.adc().setInputVoltage(0, voltsFor(100));
  DataEastVolume input(gpio, settings, [&](int v) { settings.volume = v; });
  ASSERT_TRUE(input.init());
  run(input, 1000);
  {
    test::LogCapture log;
    gpio.adc().setInputVoltage(0, 2.0);  // far beyond offset + range
    run(input, 3000);
    EXPECT_EQ(settings.volume.load(), 128);
    const std::string text = log.text();
    EXPECT_NE(text.find("pot wired backwards?"), std::string::npos);
    EXPECT_EQ(text.find("pot wired backwards?"), text.rfind("pot wired backwards?"));
  }
  // Reversed: 0.88 V is volume 0, 0.08 V is volume 128.
  settings.dataeast_volume_offset = 440;
  settings.dataeast_volume_range = -400;
  DataEastVolume reversed(gpio, settings, [&](int v) { settings.volume = v; });
  gpio.adc().setInputVoltage(0, 0.88);
  ASSERT_TRUE(reversed.init());
  run(reversed, 1000);
  gpio.adc().setInputVoltage(0, 0.08 + 0.4);  // half way
  run(reversed, 1000);
  EXPECT_NEAR(settings.volume.load(), 64, 1);
}

TEST_F(VolumeInput, FloatingInputAndMissingConverterLeaveTheVolumeAlone) {
  settings.volume = 33;
  {
    gpio.adc().setFloating(0);
    DataEastVolume input(gpio, settings, [&](int) { ++writes; });
    test::LogCapture log;
    ASSERT_TRUE(input.init());
    run(input, 5000);
    EXPECT_EQ(writes, 0);
    EXPECT_TRUE(log.contains("pot not connected"));
  }
  {
    settings.dataeast_volume_range = 0;
    DataEastVolume input(gpio, settings, [&](int) { ++writes; });
    test::LogCapture log;
    EXPECT_FALSE(input.init());
    EXPECT_TRUE(log.contains("ERROR"));
    settings.dataeast_volume_range = 400;
  }
  gpio.removeI2cDevice(SimGpio::kAdcAddress);
  DataEastVolume input(gpio, settings, [&](int) { ++writes; });
  test::LogCapture log;
  EXPECT_FALSE(input.init());
  EXPECT_TRUE(log.contains("no ADC answers at 0x48"));
  run(input, 200);  // the loop goes on calling it: nothing happens
  EXPECT_EQ(writes, 0);
  EXPECT_EQ(settings.volume.load(), 33);
}

}  // namespace
}  // namespace korvo
