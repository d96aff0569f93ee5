// Loopback sockets for the tests of the network parts: a UDP socket on an ephemeral
// port and a raw TCP connection.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "base/handles.h"

namespace korvo::test {

inline sockaddr_in loopbackAddress(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

// A UDP socket bound to an ephemeral loopback port.
class UdpSocket {
 public:
  UdpSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in a = loopbackAddress(0);
    socklen_t len = sizeof a;
    if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&a), &len) == 0)
      port_ = ntohs(a.sin_port);
  }
  int fd() const { return fd_.get(); }
  int port() const { return port_; }
  void sendTo(int port, const std::string& data) const {
    const sockaddr_in a = loopbackAddress(port);
    sendto(fd_.get(), data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&a), sizeof a);
  }
  // The next datagram, or "(nothing)" when none came within `ms` milliseconds.
  std::string receive(int ms = 10000) const {
    char buf[1500];
    pollfd p{fd_.get(), POLLIN, 0};
    const ssize_t n = poll(&p, 1, ms) > 0 ? recv(fd_.get(), buf, sizeof buf, 0) : -1;
    return n >= 0 ? std::string(buf, static_cast<std::size_t>(n)) : "(nothing)";
  }

 private:
  Fd fd_;
  int port_ = 0;
};

// A TCP connection to `port` on loopback; empty when it is refused.
inline Fd connectTcp(int port) {
  Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in a = loopbackAddress(port);
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) fd.reset();
  return fd;
}

}  // namespace korvo::test
