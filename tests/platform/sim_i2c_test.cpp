// The I2C bus of the sim backend and the port extender driven through it.
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/mcp23017.h"
#include "platform/sim_gpio.h"
#include "support/manual_clock.h"
#include "support/testutil.h"

namespace korvo {
namespace {

using namespace mcp23017;

TEST(SimI2c, PortExtenderPinsMapOntoItsRegisters) {
  SimGpio gpio;
  {
    test::LogCapture log;
    EXPECT_EQ(gpio.mcp23017Setup(kPortExtenderPinBase, 0x21), 0);  // nothing at 0x21
    EXPECT_TRUE(log.contains("ERROR"));
  }
  ASSERT_EQ(gpio.mcp23017Setup(kPortExtenderPinBase, kPortExtenderAddress), 1);
  SimMcp23017& chip = gpio.portExtender();
  EXPECT_EQ(chip.reg(IOCON), IOCON_SEQOP);

  for (int pin = 100; pin < 116; ++pin) gpio.pinMode(pin, OUTPUT);
  EXPECT_EQ(chip.reg(IODIRA), 0x00);
  EXPECT_EQ(chip.reg(IODIRB), 0x00);

  gpio.digitalWrite(100, HIGH);  // A0
  gpio.digitalWrite(107, HIGH);  // A7
  gpio.digitalWrite(108, HIGH);  // B0
  gpio.digitalWrite(115, HIGH);  // B7
  gpio.digitalWrite(107, LOW);
  EXPECT_EQ(chip.reg(OLATA), 0x01);
  EXPECT_EQ(chip.reg(OLATB), 0x81);
  EXPECT_EQ(gpio.digitalRead(108), HIGH);  // an output reads back its latch
  EXPECT_EQ(gpio.digitalRead(107), LOW);
  const auto writes = chip.writes();
  ASSERT_FALSE(writes.empty());
  EXPECT_EQ(writes.back().reg, OLATA);
  EXPECT_EQ(writes.back().value, 0x01);

  gpio.pinMode(110, INPUT);  // B2
  gpio.pullUpDnControl(110, PUD_UP);
  EXPECT_EQ(chip.reg(IODIRB), 0x04);
  EXPECT_EQ(chip.reg(GPPUB), 0x04);
  EXPECT_EQ(gpio.digitalRead(110), HIGH);
  chip.setInput(10, LOW);
  EXPECT_EQ(gpio.digitalRead(110), LOW);
  gpio.pullUpDnControl(110, PUD_OFF);
  EXPECT_EQ(chip.reg(GPPUB), 0x00);

  // Board pins with the same low numbers are untouched.
  EXPECT_EQ(gpio.pinModeOf(0), INPUT);
  EXPECT_EQ(gpio.outputLevel(7), LOW);

  test::LogCapture log;
  EXPECT_EQ(gpio.mcp23017Setup(108, kPortExtenderAddress), 0);  // overlaps 100..115
  EXPECT_EQ(gpio.mcp23017Setup(40, kPortExtenderAddress), 0);   // board pin range
  EXPECT_TRUE(log.contains("overlap"));
}

TEST(SimI2c, DeviceModelsAnswerTheirWireProtocol) {
  SimGpio gpio;
  EXPECT_EQ(gpio.wiringPiI2CSetup(0x50), -1);
  EXPECT_EQ(gpio.wiringPiI2CReadReg8(99, 0), -1);  // a handle never given out

  const int oled = gpio.wiringPiI2CSetup(SimGpio::kOledAddress);
  ASSERT_GE(oled, 0);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(oled, 0x00, 0xAE), 0);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(oled, 0x00, 0xAF), 0);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(oled, 0x40, 0x55), 0);
  EXPECT_EQ(gpio.oled().commands(), (std::vector<uint8_t>{0xAE, 0xAF}));
  EXPECT_EQ(gpio.oled().frameBuffer()[0], 0x55);  // page mode, page 0, column 0
  EXPECT_TRUE(gpio.oled().displayOn());
  EXPECT_EQ(gpio.wiringPiI2CRead(oled), 0x00);

  // The ADC sends its 16-bit registers MSB first, so an SMBus word is byte-swapped.
  const int adc = gpio.wiringPiI2CSetup(SimGpio::kAdcAddress);
  gpio.adc().setConversion(0x1234);
  EXPECT_EQ(gpio.wiringPiI2CReadReg16(adc, 0), 0x3412);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg16(adc, 1, 0x0103), 0);  // config 0x0301: OS not set
  EXPECT_EQ(gpio.adc().config(), 0x0301);
  EXPECT_EQ(gpio.adc().configWrites(), 1);
  EXPECT_EQ(gpio.wiringPiI2CReadReg16(adc, 1), 0x0183);  // OS reads 1: no conversion running

  // DSP: [address high, address low, data...], two bytes a control register.
  const int dsp = gpio.wiringPiI2CSetup(SimGpio::kDspAddress);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg16(dsp, 0x08, 0xAB1C), 0);
  EXPECT_EQ(gpio.dsp().word(0x081C), (std::vector<uint8_t>{0xAB, 0x00}));
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(dsp, 0x08, 0x1C), 0);  // sets the read pointer
  EXPECT_EQ(gpio.wiringPiI2CRead(dsp), 0xAB);
  ASSERT_EQ(gpio.dsp().writes().size(), 1u);
  EXPECT_EQ(gpio.dsp().writes()[0].address, 0x081C);

  gpio.removeI2cDevice(SimGpio::kOledAddress);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(oled, 0x00, 0xAE), -1);
  EXPECT_THROW(gpio.oled(), std::logic_error);
}

TEST(SimI2c, DisplayDecodesHorizontalWindowsIntoItsFrameBuffer) {
  SimGpio gpio;
  const int fd = gpio.wiringPiI2CSetup(SimGpio::kOledAddress);
  // Horizontal mode, columns 126..127 of pages 2..3: four bytes wrap into the window.
  const uint8_t setup[] = {0x00, 0x20, 0x00, 0x21, 126, 127, 0x22, 2, 3};
  ASSERT_EQ(gpio.i2cWriteBlock(fd, setup), 0);
  const uint8_t data[] = {0x40, 1, 2, 3, 4};
  ASSERT_EQ(gpio.i2cWriteBlock(fd, data), 0);
  const auto fb = gpio.oled().frameBuffer();
  EXPECT_EQ(fb[2 * 128 + 126], 1);
  EXPECT_EQ(fb[2 * 128 + 127], 2);
  EXPECT_EQ(fb[3 * 128 + 126], 3);
  EXPECT_EQ(fb[3 * 128 + 127], 4);
  EXPECT_EQ(gpio.oled().dataBytes(), 4u);
  EXPECT_EQ(gpio.oled().bytesReceived(), sizeof setup + sizeof data);
}

TEST(SimI2c, AdcConvertsTheInputVoltageAfterOneSamplePeriod) {
  test::ManualClock manual(1000);
  for (auto variant : {SimAds1x15::Variant::ADS1015, SimAds1x15::Variant::ADS1115}) {
    SimGpio gpio;
    gpio.addI2cDevice(SimGpio::kAdcAddress, std::make_unique<SimAds1x15>(variant));
    const int fd = gpio.wiringPiI2CSetup(SimGpio::kAdcAddress);
    gpio.adc().setInputVoltage(0, 1.024);
    // OS | AIN0 single-ended | +-4.096 V | single shot | 128 SPS (ADS1115) / 1600 SPS.
    const uint16_t config = 0x8000 | 0x4000 | 0x0200 | 0x0100 | 0x80;
    const uint8_t start[] = {1, static_cast<uint8_t>(config >> 8), static_cast<uint8_t>(config & 0xFF)};
    ASSERT_EQ(gpio.i2cWriteBlock(fd, start), 0);
    EXPECT_EQ(gpio.wiringPiI2CReadReg16(fd, 1) & 0x80, 0);  // OS low byte-swapped: busy
    clock::advanceMillis(10);
    EXPECT_EQ(gpio.wiringPiI2CReadReg16(fd, 1) & 0x80, 0x80);
    const uint8_t pointer = 0;
    uint8_t raw[2] = {};
    ASSERT_EQ(gpio.i2cWriteBlock(fd, {&pointer, 1}), 0);
    ASSERT_EQ(gpio.i2cReadBlock(fd, raw), 0);
    const int value = raw[0] << 8 | raw[1];  // big-endian on the wire
    EXPECT_EQ(value, 0x2000) << (variant == SimAds1x15::Variant::ADS1115 ? "ADS1115" : "ADS1015");
    EXPECT_EQ(gpio.adc().conversions(), 1);
  }
}

TEST(SimI2c, DspSafeloadCopiesStagedWordsOnTheInitiateBit) {
  SimGpio gpio;
  const int fd = gpio.wiringPiI2CSetup(SimGpio::kDspAddress);
  const uint8_t data[] = {0x08, 0x10, 0x00, 0x00, 0x80, 0x00, 0x00};  // 1.0 in 5.23
  const uint8_t address[] = {0x08, 0x15, 0x00, 0x12};
  ASSERT_EQ(gpio.i2cWriteBlock(fd, data), 0);
  ASSERT_EQ(gpio.i2cWriteBlock(fd, address), 0);
  EXPECT_EQ(gpio.dsp().parameter(0x0012), 0);  // staged only
  const uint8_t initiate[] = {0x08, 0x1C, 0x00, 0x3C};
  ASSERT_EQ(gpio.i2cWriteBlock(fd, initiate), 0);
  EXPECT_EQ(gpio.dsp().parameter(0x0012), 1 << 23);
  EXPECT_EQ(gpio.dsp().safeloads(), 1);
  EXPECT_EQ(gpio.dsp().word(SimDsp::kCoreControl), (std::vector<uint8_t>{0x00, 0x1C}));  // IST cleared
  // A negative 28-bit word sign-extends.
  const uint8_t negative[] = {0x00, 0x13, 0x0F, 0x80, 0x00, 0x00};
  ASSERT_EQ(gpio.i2cWriteBlock(fd, negative), 0);
  EXPECT_EQ(gpio.dsp().parameter(0x0013), -(1 << 23));
}

}  // namespace
}  // namespace korvo
