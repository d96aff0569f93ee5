// fuzz-lib: korvo_bus
// Datagrams from anyone on the LAN to the UDP event service, sent over a real loopback
// socket. Each input is one datagram followed by a marker event, so the target knows
// when the service has dealt with it; an event handed to the handlers is never empty,
// never longer than a datagram and holds no control bytes other than tabs.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "bus/event_service.h"

namespace {

constexpr const char* kMarker = "fuzz-marker";

struct Rig {
  korvo::EventService service;
  korvo::Fd sock;
  sockaddr_in to{};
  std::atomic<uint64_t> markers{0};

  Rig() {
    korvo::setLogLevel(korvo::LEVEL_NONE);
    service.addEventHandler([this](const std::string& e) {
      if (e == kMarker) {
        markers.fetch_add(1);
        return;
      }
      if (e.empty() || e.size() > korvo::EventService::kMaxDatagram) abort();
      for (unsigned char c : e)
        if ((c < 0x20 && c != '\t') || c == 0x7F) abort();
    });
    if (!service.start(0, "127.0.0.1")) abort();
    sock = korvo::Fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(service.port()));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }

  void send(const void* data, std::size_t size) {
    sendto(sock.get(), data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* rig = new Rig;  // lives to the end: its thread must not be joined at exit
  if (size > 65000) return 0;
  const uint64_t before = rig->markers.load();
  rig->send(data, size);
  rig->send(kMarker, std::char_traits<char>::length(kMarker));
  // Loopback datagrams arrive in order: the marker's arrival means the input was handled.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (rig->markers.load() == before) {
    if (std::chrono::steady_clock::now() > deadline) abort();  // the service stopped answering
    sched_yield();
  }
  return 0;
}
