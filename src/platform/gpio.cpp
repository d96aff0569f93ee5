// createGpio: picks the backend at start-up and logs the choice.
#include "platform/gpio.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "base/log.h"
#include "platform/gpiod_gpio.h"
#include "platform/sim_gpio.h"
#include "platform/wiringpi_gpio.h"

namespace korvo {

namespace {

bool isRaspberryPi() {
  std::ifstream in("/proc/device-tree/model", std::ios::binary);
  const std::string model((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return model.find("Raspberry Pi") != std::string::npos;
}

std::unique_ptr<Gpio> createAuto() {
  // A failed attempt is part of the normal choice, not an ERROR: a Pi 5 has no wiringPi
  // (INFO); a chip that exists but cannot be opened deserves a WARN.
  if (isRaspberryPi())
    if (auto gpio = createWiringPiGpio(kWiringPiLibrary, LEVEL_INFO)) return gpio;
  if (access("/dev/gpiochip0", F_OK) == 0)
    if (auto gpio = createGpiodGpio(LEVEL_WARN)) return gpio;
  return std::make_unique<SimGpio>();
}

}  // namespace

int Gpio::i2cWriteBlock(int fd, std::span<const uint8_t> bytes) {
  if (fd < 0) return -1;
  const ssize_t n = ::write(fd, bytes.data(), bytes.size());
  return n == static_cast<ssize_t>(bytes.size()) ? 0 : -1;
}

int Gpio::i2cReadBlock(int fd, std::span<uint8_t> out) {
  if (fd < 0) return -1;
  const ssize_t n = ::read(fd, out.data(), out.size());
  return n == static_cast<ssize_t>(out.size()) ? 0 : -1;
}

std::unique_ptr<Gpio> createGpio(const std::string& choice) {
  std::string name = choice;
  if (name.empty()) {
    const char* env = getenv("KORVO_GPIO");
    name = env && *env ? env : "auto";
  }
  std::unique_ptr<Gpio> gpio;
  if (name == "auto") {
    gpio = createAuto();
  } else if (name == "sim") {
    gpio = std::make_unique<SimGpio>();
  } else if (name == "gpiod") {
    gpio = createGpiodGpio(LEVEL_ERROR);
  } else if (name == "wiringpi") {
    gpio = createWiringPiGpio(kWiringPiLibrary, LEVEL_ERROR);
  } else {
    LOG(LEVEL_ERROR, "unknown gpio backend '%s' (auto, sim, gpiod, wiringpi)", name.c_str());
    return nullptr;
  }
  if (!gpio) {
    LOG(LEVEL_ERROR, "gpio backend %s is not available", name.c_str());
    return nullptr;
  }
  LOG(LEVEL_INFO, "gpio backend: %s", gpio->name());
  return gpio;
}

}  // namespace korvo
