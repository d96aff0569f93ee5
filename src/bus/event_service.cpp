#include "bus/event_service.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/log.h"
#include "base/thread.h"

namespace korvo {

EventService::~EventService() { stop(); }

bool EventService::start(int port, const std::string& bindAddress) {
  stop();
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (port < 0 || port > 65535 || inet_pton(AF_INET, bindAddress.c_str(), &addr.sin_addr) != 1) {
    LOG(LEVEL_ERROR, "event service: invalid address %s:%d", bindAddress.c_str(), port);
    return false;
  }
  Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) {
    LOG(LEVEL_ERROR, "event service: socket() failed: %s", std::strerror(errno));
    return false;
  }
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    LOG(LEVEL_ERROR, "event service: cannot bind %s:%d: %s", bindAddress.c_str(), port, std::strerror(errno));
    return false;
  }
  socklen_t len = sizeof addr;
  getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len);
  Fd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake) {
    LOG(LEVEL_ERROR, "event service: eventfd() failed: %s", std::strerror(errno));
    return false;
  }
  fd_ = std::move(fd);
  wakeFd_ = std::move(wake);
  port_ = ntohs(addr.sin_port);
  LOG(LEVEL_INFO, "event service listening on udp %s:%d", bindAddress.c_str(), port_);
  thread_ = startThread("EventSrv", [this] { run(); });
  return true;
}

void EventService::stop() {
  if (thread_.joinable()) {
    const uint64_t one = 1;
    if (::write(wakeFd_.get(), &one, sizeof one) < 0) LOG(LEVEL_ERROR, "event service: wake-up failed");
    thread_.join();
  }
  fd_.reset();
  wakeFd_.reset();
}

void EventService::addEventHandler(Handler fn) {
  if (!fn) return;
  std::lock_guard lock(handlersMutex_);
  handlers_.push_back(std::move(fn));
}

void EventService::run() {
  // One byte more than the limit: recv reports the full length with MSG_TRUNC.
  char buf[kMaxDatagram + 1];
  for (;;) {
    pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {wakeFd_.get(), POLLIN, 0}};
    const int n = ::poll(fds, 2, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      LOG(LEVEL_ERROR, "event service: poll failed: %s", std::strerror(errno));
      return;
    }
    if (fds[1].revents) return;
    if (!(fds[0].revents & POLLIN)) continue;
    const ssize_t len = ::recv(fd_.get(), buf, sizeof buf, MSG_TRUNC | MSG_DONTWAIT);
    if (len < 0) {
      if (errno != EAGAIN && errno != EINTR) LOG(LEVEL_ERROR, "event service: recv failed: %s", std::strerror(errno));
      continue;
    }
    const bool truncated = static_cast<std::size_t>(len) > kMaxDatagram;
    handleDatagram(buf, truncated ? kMaxDatagram : static_cast<std::size_t>(len), truncated);
  }
}

void EventService::handleDatagram(const char* data, std::size_t len, bool truncated) {
  if (truncated) {
    LOG(LEVEL_WARN, "event datagram longer than %zu bytes dropped", kMaxDatagram);
    ++dropped_;
    return;
  }
  while (len > 0 && (data[len - 1] == '\n' || data[len - 1] == '\r')) --len;
  if (len == 0) return;
  // Events are text: a datagram with NUL or other control bytes (tabs aside) is noise.
  for (std::size_t i = 0; i < len; ++i) {
    const unsigned char c = static_cast<unsigned char>(data[i]);
    if ((c < 0x20 && c != '\t') || c == 0x7F) {
      LOG(LEVEL_WARN, "binary event datagram of %zu bytes dropped", len);
      ++dropped_;
      return;
    }
  }
  const std::string event(data, len);
  LOG(LEVEL_DEBUG, "event received: '%s'", event.c_str());
  std::vector<Handler> handlers;
  {
    std::lock_guard lock(handlersMutex_);
    handlers = handlers_;
  }
  for (auto& h : handlers) {
    try {
      h(event);
    } catch (const std::exception& e) {
      LOG(LEVEL_ERROR, "event handler failed: %s", e.what());
    } catch (...) {
      LOG(LEVEL_ERROR, "event handler failed");
    }
  }
  ++delivered_;
}

}  // namespace korvo
