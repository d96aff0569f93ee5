// The hardware IO test mode (-I): the bus capture runs exactly as in normal operation and
// every command is logged, but no sound system is started.
#pragma once

#include <atomic>

#include "core/settings.h"
#include "platform/gpio.h"

namespace korvo {

// preInitGpio, initGpio for settings.protocol, then waits while `keepRunning` is true
// (forever when null, as the daemon runs it). Returns 0, or 1 when the GPIO library
// cannot be initialised.
int pincom_main(Gpio& gpio, Settings& s, const std::atomic<bool>* keepRunning = nullptr);

}  // namespace korvo
