// The I2C bus of the sim backend and the port extender driven through it.
#include <gtest/gtest.h>

#include "platform/mcp23017.h"
#include "platform/sim_gpio.h"
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
  EXPECT_EQ(gpio.oled().data(), (std::vector<uint8_t>{0x55}));
  EXPECT_TRUE(gpio.oled().displayOn());
  EXPECT_EQ(gpio.wiringPiI2CRead(oled), 0x00);

  // The ADC sends its 16-bit registers MSB first, so an SMBus word is byte-swapped.
  const int adc = gpio.wiringPiI2CSetup(SimGpio::kAdcAddress);
  gpio.adc().setConversion(0x1234);
  EXPECT_EQ(gpio.wiringPiI2CReadReg16(adc, 0), 0x3412);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg16(adc, 1, 0x83C1), 0);
  EXPECT_EQ(gpio.adc().config(), 0xC183);
  EXPECT_EQ(gpio.adc().configWrites(), 1);
  EXPECT_EQ(gpio.wiringPiI2CReadReg16(adc, 1), 0x83C1);  // OS bit set: conversion done

  // DSP: [address high, address low, data...].
  const int dsp = gpio.wiringPiI2CSetup(SimGpio::kDspAddress);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg16(dsp, 0x08, 0xAB1C), 0);
  EXPECT_EQ(gpio.dsp().memory(0x081C, 1), (std::vector<uint8_t>{0xAB}));
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(dsp, 0x08, 0x1C), 0);  // sets the read pointer
  EXPECT_EQ(gpio.wiringPiI2CRead(dsp), 0xAB);
  ASSERT_EQ(gpio.dsp().writes().size(), 1u);
  EXPECT_EQ(gpio.dsp().writes()[0].address, 0x081C);

  gpio.removeI2cDevice(SimGpio::kOledAddress);
  EXPECT_EQ(gpio.wiringPiI2CWriteReg8(oled, 0x00, 0xAE), -1);
  EXPECT_THROW(gpio.oled(), std::logic_error);
}

}  // namespace
}  // namespace korvo
