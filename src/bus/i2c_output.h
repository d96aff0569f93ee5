// Writes to I2C devices from sample command strings ("I2CWRITE <addr> <byte> ...") and
// from Lua (sendI2C / sendI2CW).
//
// Threads: called from the sound service thread, HTTP and Lua. Device handles are
// opened once per address and kept (a board opens a file descriptor per handle); the
// table is guarded by a mutex, the transfers themselves by the Gpio backend's bus lock.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string_view>

#include "platform/gpio.h"

namespace korvo {

class I2cOutput {
 public:
  explicit I2cOutput(Gpio& gpio) : gpio_(gpio) {}

  // "I2CWRITE <address> <byte> <byte> ...": numbers decimal or 0x-hex, at most 10
  // words. 0 when every byte was written, -1 otherwise (each failure logged).
  int sendI2CCmd(std::string_view cmd);
  // Writes `value` to 8-bit register `reg`; without a value `reg` itself is written as
  // the data byte. 0 on success, -1 with an ERROR line.
  int sendI2C(int address, int reg, std::optional<int> value);
  // Writes a 16-bit value to `reg`, low byte first (an SMBus word).
  int sendI2CW(int address, int reg, int value);

 private:
  // The handle for `address`, opening it the first time; -1 with an ERROR line.
  int handleFor(int address);

  Gpio& gpio_;
  std::mutex mutex_;  // guards handles_
  std::map<int, int> handles_;
};

}  // namespace korvo
