#include "bus/serial_output.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "base/log.h"
#include "platform/clock.h"

namespace korvo {

namespace {
speed_t speedFor(int baud, bool* known) {
  *known = true;
  switch (baud) {
    case 1200: return B1200;
    case 2400: return B2400;
    case 4800: return B4800;
    case 9600: return B9600;
    case 19200: return B19200;
    case 38400: return B38400;
    case 57600: return B57600;
    case 115200: return B115200;
    case 230400: return B230400;
    case 460800: return B460800;
    case 921600: return B921600;
    default:
      *known = false;
      return B115200;
  }
}
}  // namespace

SerialOutput::SerialOutput(std::string device, int baud) : device_(std::move(device)), baud_(baud) {}

SerialOutput::~SerialOutput() { close(); }

bool SerialOutput::open() {
  std::lock_guard lock(mutex_);
  return openLocked();
}

void SerialOutput::close() {
  std::lock_guard lock(mutex_);
  closeLocked();
}

bool SerialOutput::isOpen() const {
  std::lock_guard lock(mutex_);
  return static_cast<bool>(fd_);
}

bool SerialOutput::openLocked() {
  closeLocked();
  lastAttempt_ = millis();
  attempted_ = true;
  if (device_.empty()) {
    LOG(LEVEL_ERROR, "serial output enabled but no serial device configured");
    return false;
  }
  // O_NOCTTY: the device must never become our controlling terminal; O_NONBLOCK: a
  // missing carrier must not block the open.
  Fd fd(::open(device_.c_str(), O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    LOG(LEVEL_ERROR, "open serial device %s failed: %s", device_.c_str(), std::strerror(errno));
    return false;
  }
  configureLine(fd.get());
  // Writes block (bounded by the line speed) so a line is never cut in the middle.
  const int flags = fcntl(fd.get(), F_GETFL);
  if (flags >= 0) fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK);
  fd_ = std::move(fd);
  LOG(LEVEL_INFO, "serial output on %s at %d baud", device_.c_str(), baud_);
  return true;
}

void SerialOutput::configureLine(int fd) {
  termios tio{};
  if (tcgetattr(fd, &tio) == 0) {
    cfmakeraw(&tio);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CSIZE);
    tio.c_cflag |= CS8 | CLOCAL;
    bool known = true;
    const speed_t speed = speedFor(baud_, &known);
    if (!known) LOG(LEVEL_WARN, "unsupported serial baud rate %d, using 115200", baud_);
    cfsetispeed(&tio, speed);
    cfsetospeed(&tio, speed);
    if (tcsetattr(fd, TCSANOW, &tio) != 0)
      LOG(LEVEL_WARN, "setting serial parameters of %s failed: %s", device_.c_str(), std::strerror(errno));
  } else {
    // Not a terminal (a file or pipe used for tests): plain writes still work.
    LOG(LEVEL_DEBUG, "serial device %s is not a terminal", device_.c_str());
  }
}

void SerialOutput::closeLocked() { fd_.reset(); }

bool SerialOutput::serialSend(std::string_view text) {
  std::lock_guard lock(mutex_);
  if (!fd_) {
    if (attempted_ && millis() - lastAttempt_ < kReopenIntervalMs) {
      LOG(LEVEL_ERROR, "serial device %s not open, dropping '%.*s'", device_.c_str(),
          static_cast<int>(text.size()), text.data());
      return false;
    }
    if (!openLocked()) return false;
  }
  std::string line(text);
  line += '\n';
  std::size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(fd_.get(), line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      LOG(LEVEL_ERROR, "writing to serial device %s failed: %s", device_.c_str(),
          n < 0 ? std::strerror(errno) : "nothing written");
      // Unplugged adapters come back under the same name: reopen at a later send.
      closeLocked();
      lastAttempt_ = millis();
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  LOG(LEVEL_DEBUG, "serial send '%.*s'", static_cast<int>(text.size()), text.data());
  return true;
}

}  // namespace korvo
