// The UDP event service: every datagram received is one event text, handed to each
// registered handler in order of registration (Lua's eventHandler among them).
//
// Threads: one receiving thread named "EventSrv" runs the handlers; addEventHandler()
// may be called from any thread at any time. stop() (also run by the destructor) wakes
// and joins the thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"

namespace korvo {

class EventService {
 public:
  static constexpr std::size_t kMaxDatagram = 1500;
  using Handler = std::function<void(const std::string& event)>;

  EventService() = default;
  ~EventService();
  EventService(const EventService&) = delete;
  EventService& operator=(const EventService&) = delete;

  // Binds `bindAddress`:`port` (the daemon: "0.0.0.0" and the HTTP port + 1; tests:
  // "127.0.0.1" and 0 for an ephemeral port) and starts the thread. False with an
  // ERROR line when the socket cannot be bound.
  bool start(int port, const std::string& bindAddress = "0.0.0.0");
  void stop();
  bool running() const { return thread_.joinable(); }
  // The port actually bound (the ephemeral one when started with 0).
  int port() const { return port_; }

  void addEventHandler(Handler fn);

  uint64_t eventsDelivered() const { return delivered_.load(); }
  uint64_t datagramsDropped() const { return dropped_.load(); }

 private:
  void run();
  void handleDatagram(const char* data, std::size_t len, bool truncated);

  Fd fd_;
  Fd wakeFd_;  // eventfd: stop() writes it to end the poll
  int port_ = 0;
  std::thread thread_;
  std::mutex handlersMutex_;  // guards handlers_
  std::vector<Handler> handlers_;
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> dropped_{0};
};

}  // namespace korvo
