// The auxiliary serial output: sample command strings and Lua's send() go out as text
// lines on a serial device (raw, 8N1).
//
// Threads: serialSend() is called from the sound service thread, HTTP and Lua; one
// mutex serialises the device. A missing or unplugged device is logged and reopened at
// the next send, at most once a second, so a bad cable never blocks the callers.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "base/handles.h"

namespace korvo {

class SerialOutput {
 public:
  static constexpr unsigned kReopenIntervalMs = 1000;

  SerialOutput(std::string device, int baud);
  ~SerialOutput();
  SerialOutput(const SerialOutput&) = delete;
  SerialOutput& operator=(const SerialOutput&) = delete;

  // Opens the device now (start-up); false with an ERROR line on failure.
  bool open();
  void close();
  bool isOpen() const;
  // Writes `text` and "\n". False when the device is not open (and could not be
  // reopened) or the write failed; both with an ERROR line.
  bool serialSend(std::string_view text);

 private:
  bool openLocked();
  void closeLocked();
  // Raw 8N1 at baud_ on a terminal; anything else (a file, a pipe) is left as it is.
  void configureLine(int fd);

  const std::string device_;
  const int baud_;
  mutable std::mutex mutex_;  // guards fd_ and lastAttempt_
  Fd fd_;
  unsigned long lastAttempt_ = 0;
  bool attempted_ = false;
};

}  // namespace korvo
