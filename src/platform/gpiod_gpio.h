// The libgpiod 1.6 backend: board pins through the GPIO character device, I2C through
// /dev/i2c-N. Boards without wiringPi (Pi 5) run on it.
#pragma once

#include <memory>

#include "platform/gpio.h"

namespace korvo {

// The BCM line of a wiringPi pin number, or -1 for a pin without one.
int wiringPiPinToBcm(int pin);

// Opens the board's GPIO chip: the first chip labelled "pinctrl-*", else
// /dev/gpiochip0. Without one, logs at `failureLevel` and returns null.
std::unique_ptr<Gpio> createGpiodGpio(int failureLevel);

}  // namespace korvo
