#include "bus/i2c_output.h"

#include <string>
#include <vector>

#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

int I2cOutput::handleFor(int address) {
  std::lock_guard lock(mutex_);
  if (auto it = handles_.find(address); it != handles_.end()) return it->second;
  // 7-bit addresses only; anything else cannot be on the bus.
  const int fd = address >= 0 && address < 0x80 ? gpio_.wiringPiI2CSetup(address) : -1;
  if (fd < 0) {
    LOG(LEVEL_ERROR, "open i2c device 0x%x failed", address);
    return -1;
  }
  handles_[address] = fd;
  return fd;
}

int I2cOutput::sendI2CCmd(std::string_view cmd) {
  const std::string text(cmd);
  std::vector<std::string_view> words;
  std::size_t pos = 0;
  while (pos < text.size() && words.size() < 10) {
    pos = text.find_first_not_of(' ', pos);
    if (pos == std::string::npos) break;
    std::size_t end = text.find(' ', pos);
    if (end == std::string::npos) end = text.size();
    words.push_back(std::string_view(text).substr(pos, end - pos));
    pos = end;
  }
  if (words.size() < 2 || !equalsIgnoreCase(words[0], "I2CWRITE")) {
    LOG(LEVEL_ERROR, "I2C command not recognized: %s", text.c_str());
    return -1;
  }
  const int address = readInt(words[1]);
  const int fd = handleFor(address);
  if (fd < 0) return -1;
  int rc = 0;
  for (std::size_t i = 2; i < words.size(); ++i) {
    const int value = readInt(words[i]) & 0xFF;
    if (gpio_.wiringPiI2CWrite(fd, value) < 0) {
      LOG(LEVEL_ERROR, "writing to i2c device 0x%x failed", address);
      rc = -1;
    } else {
      LOG(LEVEL_DEBUG, "writing 0x%02x to i2c dev 0x%02x", value, address);
    }
  }
  return rc;
}

int I2cOutput::sendI2C(int address, int reg, std::optional<int> value) {
  const int fd = handleFor(address);
  if (fd < 0) return -1;
  int rc;
  if (value) {
    LOG(LEVEL_DEBUG, "writing 0x%02x = 0x%02x to i2c dev 0x%02x", reg & 0xFF, *value & 0xFF, address);
    rc = gpio_.wiringPiI2CWriteReg8(fd, reg & 0xFF, *value & 0xFF);
  } else {
    LOG(LEVEL_DEBUG, "writing 0x%02x to i2c dev 0x%02x", reg & 0xFF, address);
    rc = gpio_.wiringPiI2CWrite(fd, reg & 0xFF);
  }
  if (rc < 0) {
    LOG(LEVEL_ERROR, "writing to i2c device 0x%x failed", address);
    return -1;
  }
  return 0;
}

int I2cOutput::sendI2CW(int address, int reg, int value) {
  const int fd = handleFor(address);
  if (fd < 0) return -1;
  LOG(LEVEL_DEBUG, "writing 0x%02x = 0x%02x to i2c dev 0x%02x", reg & 0xFF, value & 0xFFFF, address);
  if (gpio_.wiringPiI2CWriteReg16(fd, reg & 0xFF, value & 0xFFFF) < 0) {
    LOG(LEVEL_ERROR, "writing to i2c device 0x%x failed", address);
    return -1;
  }
  return 0;
}

}  // namespace korvo
