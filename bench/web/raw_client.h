// A minimal HTTP/1.1 client over one kept-alive TCP connection, so both servers of a
// comparison are measured with exactly the same client code and no library between.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/handles.h"
#include "base/stringutil.h"

namespace korvo::bench {

class RawClient {
 public:
  explicit RawClient(int port) : port_(port) {}

  // The status of GET `path` (the body into *body when given); -1 on a broken connection.
  int get(const char* path, std::string* body = nullptr) {
    if (!fd_ && !connectNow()) return -1;
    const std::string req = std::string("GET ") + path + " HTTP/1.1\r\nHost: bench\r\n\r\n";
    if (::send(fd_.get(), req.data(), req.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(req.size())) return fail();
    std::size_t headEnd;
    while ((headEnd = buf_.find("\r\n\r\n")) == std::string::npos)
      if (!fill()) return fail();
    const std::string head = buf_.substr(0, headEnd);
    const int status = std::atoi(head.c_str() + head.find(' ') + 1);
    std::size_t length = 0;
    for (std::size_t p = 0; (p = head.find("\r\n", p)) != std::string::npos; p += 2)
      if (startsWith(std::string_view(head).substr(p + 2), "Content-Length:"))
        length = std::strtoul(head.c_str() + p + 2 + 15, nullptr, 10);
    while (buf_.size() < headEnd + 4 + length)
      if (!fill()) return fail();
    if (body) body->assign(buf_, headEnd + 4, length);
    buf_.erase(0, headEnd + 4 + length);
    if (head.find("Connection: close") != std::string::npos || head.find("Connection: Close") != std::string::npos)
      fd_.reset();
    return status;
  }

 private:
  bool connectNow() {
    buf_.clear();
    fd_.reset(::socket(AF_INET, SOCK_STREAM, 0));
    int one = 1;
    setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port_));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fd_.reset();
    return static_cast<bool>(fd_);
  }
  bool fill() {
    char tmp[4096];
    const ssize_t n = ::recv(fd_.get(), tmp, sizeof tmp, 0);
    if (n <= 0) return false;
    buf_.append(tmp, static_cast<std::size_t>(n));
    return true;
  }
  int fail() {
    fd_.reset();
    return -1;
  }

  int port_;
  Fd fd_;
  std::string buf_;
};

}  // namespace korvo::bench
