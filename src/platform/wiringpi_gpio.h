// The wiringPi backend: the board library's own calls, loaded at run time with dlopen so
// one binary builds and runs everywhere and uses the library where it is installed.
#pragma once

#include <memory>
#include <string>

#include "platform/gpio.h"

namespace korvo {

constexpr const char* kWiringPiLibrary = "libwiringPi.so";

// Loads `library` and resolves the calls the daemon uses. When the library is missing
// or lacks a call, logs at `failureLevel` and returns null.
std::unique_ptr<Gpio> createWiringPiGpio(const std::string& library, int failureLevel);

}  // namespace korvo
