// A tiny HTTP server on the loopback interface for the client and firmware tests: one
// thread accepts connections one at a time, reads the request head and answers with
// the raw bytes its handler returns for the path, then hangs up.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "base/thread.h"

namespace korvo::test {

class LoopbackServer {
 public:
  // Raw response bytes for a request path.
  using Handler = std::function<std::string(const std::string& path)>;

  explicit LoopbackServer(Handler handler) : handler_(std::move(handler)) {
    listen_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listen_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listen_.get(), 8) != 0 ||
        getsockname(listen_.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      return;
    port_ = ntohs(addr.sin_port);
    thread_ = startThread("loopback", [this] { serve(); });
  }
  ~LoopbackServer() {
    stopping_ = true;
    shutdown(listen_.get(), SHUT_RDWR);  // wakes accept
    if (thread_.joinable()) thread_.join();
  }

  int port() const { return port_; }
  std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
  // The request heads received so far, in order.
  std::vector<std::string> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  // A whole response with a Content-Length.
  static std::string reply(int status, const std::string& body, const std::string& extraHeaders = "") {
    return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           extraHeaders + "\r\n" + body;
  }
  static std::string redirect(int status, const std::string& location) {
    return reply(status, "moved", "Location: " + location + "\r\n");
  }

 private:
  void serve() {
    while (!stopping_) {
      Fd conn(accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!conn) continue;
      std::string head;
      char buf[4096];
      while (head.find("\r\n\r\n") == std::string::npos) {
        ssize_t n = recv(conn.get(), buf, sizeof buf, 0);
        if (n <= 0) break;
        head.append(buf, static_cast<std::size_t>(n));
      }
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(head);
      }
      const auto start = head.find(' ') + 1;
      const std::string answer = handler_(head.substr(start, head.find(' ', start) - start));
      std::size_t sent = 0;
      while (sent < answer.size()) {
        ssize_t n = send(conn.get(), answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<std::size_t>(n);
      }
    }
  }

  Handler handler_;
  Fd listen_;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

}  // namespace korvo::test
