#include "bus/socket_output.h"

#include <cerrno>
#include <cstring>

#include <netdb.h>
#include <unistd.h>

#include "base/log.h"

namespace korvo {

namespace {
// A dead media server must not flood the log: the first errors are logged, then every
// thousandth.
bool shouldLog(std::atomic<unsigned>& counter) {
  const unsigned n = counter.fetch_add(1, std::memory_order_relaxed);
  return n < 10 || n % 1000 == 0;
}
}  // namespace

SocketOutput::SocketOutput(std::string host, int port) : host_(std::move(host)), port_(port) {}

SocketOutput::~SocketOutput() { close(); }

bool SocketOutput::open() {
  close();
  if (host_.empty() || port_ <= 0 || port_ > 65535) {
    LOG(LEVEL_ERROR, "socket output: invalid address '%s:%d'", host_.c_str(), port_);
    return false;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(port_);
  const int rc = getaddrinfo(host_.c_str(), port.c_str(), &hints, &found);
  AddrInfoHandle res(found);
  if (rc != 0 || !res) {
    LOG(LEVEL_ERROR, "socket output: cannot resolve '%s': %s", host_.c_str(), gai_strerror(rc));
    return false;
  }
  Fd fd(::socket(res->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    LOG(LEVEL_ERROR, "socket output: socket() failed: %s", std::strerror(errno));
    return false;
  }
  std::memcpy(&addr_, res->ai_addr, res->ai_addrlen);
  addrLen_ = static_cast<socklen_t>(res->ai_addrlen);
  fd_ = std::move(fd);
  LOG(LEVEL_INFO, "socket output to %s:%d", host_.c_str(), port_);
  return true;
}

void SocketOutput::close() { fd_.reset(); }

bool SocketOutput::sendSocketCmd(std::string_view text) {
  if (!fd_) {
    if (shouldLog(errorsLogged_))
      LOG(LEVEL_ERROR, "socket output to '%s' not open, dropping '%.*s'", host_.c_str(),
          static_cast<int>(text.size()), text.data());
    return false;
  }
  const ssize_t n = ::sendto(fd_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&addr_), addrLen_);
  if (n < 0) {
    if (shouldLog(errorsLogged_))
      LOG(LEVEL_ERROR, "sending to %s:%d failed: %s", host_.c_str(), port_, std::strerror(errno));
    return false;
  }
  LOG(LEVEL_DEBUG, "socket send '%.*s'", static_cast<int>(text.size()), text.data());
  return true;
}

}  // namespace korvo
