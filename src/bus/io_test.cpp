#include "bus/io_test.h"

#include <chrono>
#include <thread>

#include "bus/pincom.h"
#include "base/log.h"

namespace korvo {

int pincom_main(Gpio& gpio, Settings& s, const std::atomic<bool>* keepRunning) {
  Pincom pincom(gpio, s);
  if (pincom.preInitGpio() != 0) {
    LOG(LEVEL_ERROR, "io test: GPIO library could not be initialised");
    return 1;
  }
  PincomConsumers log;
  log.soundHandler = [](unsigned command) { LOG(LEVEL_INFO, "io test: sound command %u (0x%02x)", command, command); };
  log.soundWpcHandler = [](const uint8_t* c, unsigned value) {
    LOG(LEVEL_INFO, "io test: wpc command 0x%04x (0x%02x 0x%02x 0x%02x 0x%02x)", value, c[0], c[1], c[2], c[3]);
  };
  log.soundWSHandler = [](const uint8_t* c, unsigned value) {
    LOG(LEVEL_INFO, "io test: whitestar command 0x%04x (0x%02x 0x%02x 0x%02x 0x%02x)", value, c[0], c[1], c[2],
        c[3]);
  };
  pincom.setConsumers(std::move(log));
  pincom.initGpio();
  LOG(LEVEL_INFO, "io test mode: capturing %s commands, no sound", protocolName(pincom.protocol()));
  // The daemon sleeps here for good; tests end it through keepRunning.
  while (!keepRunning || keepRunning->load()) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return 0;
}

}  // namespace korvo
