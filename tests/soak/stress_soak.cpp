// The long stress soak (label "soak", built with -DKORVO_SOAK=ON, run under TSan and
// ASan by scripts/soak.sh): for KORVO_SOAK_SECONDS (default 300) at once a bus flood
// cycling through every wire protocol, an HTTP flood, sample uploads and removals, set
// switching from the web page and the button, UDP events, and the Lua-event and
// front-panel loads (see soak_hooks.h). Prints the process's RSS, open files and
// threads at start and end, and for every load what was sent and what was answered or
// dropped, by reason. Nothing may go unaccounted.
#include <SDL2/SDL_thread.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bus/event_service.h"
#include "bus/sim_board.h"
#include "soak_hooks.h"
#include "web/tools/upload_client.h"
#include "web/web_fixture.h"

namespace korvo {
namespace {

struct ProcessFigures {
  long rssKiB = 0;
  int openFiles = 0;
  int threads = 0;
};

ProcessFigures processFigures() {
  ProcessFigures f;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) f.rssKiB = atol(line.c_str() + 6);
    if (line.rfind("Threads:", 0) == 0) f.threads = atoi(line.c_str() + 8);
  }
  if (DirHandle d{opendir("/proc/self/fd")})
    while (dirent* e = readdir(d.get())) f.openFiles += e->d_name[0] != '.';
  return f;
}

int soakSeconds() {
  const char* env = getenv("KORVO_SOAK_SECONDS");
  return env && atoi(env) > 0 ? atoi(env) : 300;
}

class Soak : public test::WebFixture {
 protected:
  // Sent / answered / dropped, by reason, for each load; any thread may count.
  void count(const std::string& load, const std::string& outcome, uint64_t n = 1) {
    std::lock_guard lock(countsMutex_);
    counts_[load][outcome] += n;
  }
  void printCounts() {
    std::lock_guard lock(countsMutex_);
    for (const auto& [load, outcomes] : counts_) {
      printf("  %-14s", load.c_str());
      for (const auto& [outcome, n] : outcomes) printf("  %s %llu", outcome.c_str(), static_cast<unsigned long long>(n));
      printf("\n");
    }
  }
  uint64_t counted(const std::string& load, const std::string& outcome) {
    std::lock_guard lock(countsMutex_);
    return counts_[load][outcome];
  }

  void busFlood(const std::atomic<bool>& stop);
  void httpFlood(const std::atomic<bool>& stop, int slice);
  void uploads(const std::atomic<bool>& stop);
  void setSwitching(const std::atomic<bool>& stop);
  void udpEvents(const std::atomic<bool>& stop, EventService& events);

  std::mutex countsMutex_;
  std::map<std::string, std::map<std::string, uint64_t>> counts_;
};

// One protocol at a time on a fresh simulated board, a second each, round and round.
// Every strobed byte is read by the capture or counted as a time-out of its routine.
void Soak::busFlood(const std::atomic<bool>& stop) {
  const uint8_t bytes[] = {10, 11, 20, 1, 99, 0x7F, 0x00, 0xFF};
  for (int round = 0; !stop; ++round) {
    const int protocol = round % kProtocolCount;
    if (protocol == SYS11) continue;  // no capture of its own: its pin table has no strobe
    SimGpio gpio;
    settings.protocol = protocol;
    Bus bus(gpio, settings);
    SoundEngine* e = engine.get();
    bus.initGpio({[e](unsigned v) { e->soundHandler(v); }, [e](const uint8_t*, unsigned v) { e->soundHandler(v & 0xFF); },
                  [e](const uint8_t*, unsigned v) { e->soundHandler(v & 0xFF); }});
    SimMachine machine(gpio, bus.pincom());
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    uint64_t sent = 0;
    while (!stop && std::chrono::steady_clock::now() < end) machine.sendByte(bytes[sent++ % std::size(bytes)]);
    const std::string load = std::string("bus ") + protocolName(protocol);
    count(load, "sent", sent);
    count(load, "read", bus.pincom().bytesRead());
    count(load, "isr-timeout", machine.driver().isrTimeouts());
    count(load, "commands", bus.pincom().commandsDelivered());
    bus.shutdown();
  }
}

void Soak::httpFlood(const std::atomic<bool>& stop, int slice) {
  const char* paths[] = {"/version", "/sounds/play/10", "/sounds/category/sfx", "/soundsets", "/sounds/11",
                         "/volume/90", "/gainByType/2/60", "/ports", "/livelog?i=0", "/sounds/play/stop",
                         "/config", "/sounds/play/1", "/duckByType/1", "/soundset", "/nothing", "/index.html"};
  test::Client c(http->boundPort());
  for (std::size_t i = static_cast<std::size_t>(slice); !stop; i += 2) {
    test::Reply r = c.get(paths[i % std::size(paths)]);
    count("http", "sent");
    count("http", r.code == CURLE_OK ? "answered " + std::to_string(r.status) : std::string("failed ") + curl_easy_strerror(r.code));
  }
}

void Soak::uploads(const std::atomic<bool>& stop) {
  test::writeSineWav(dir.path() / "up.wav", 0.05, 8000, 500);
  const std::string wav = test::readFile(dir.path() / "up.wav");
  test::Client c(http->boundPort());
  for (int i = 0; !stop; ++i) {
    const std::string name = "up" + std::to_string(i) + ".wav";
    test::FormReply r = test::postForm(http->boundPort(), "/sounds/10/sample/add", test::fileForm(wav, name));
    count("upload", "sent");
    count("upload", r.code != CURLE_OK ? "failed"
                    : r.body.find("success") != std::string::npos ? "added"
                                                                  : "refused (" + r.body.substr(r.body.find("message")) + ")");
    // Keep the sound's size bounded: its second file goes again.
    test::Reply rm = c.get("/sounds/10/sample/1/remove");
    count("sample-remove", rm.code == CURLE_OK ? "answered" : "failed");
  }
}

void Soak::setSwitching(const std::atomic<bool>& stop) {
  test::Client c(http->boundPort());
  for (int i = 0; !stop; ++i) {
    test::Reply r = c.get(i % 2 ? "/soundsets/1" : "/soundsets/2");
    count("set-switch", r.code == CURLE_OK && r.status == 200 ? "web answered" : "web failed");
    engine->cycleSoundSet(1);  // the front-panel button's way
    count("set-switch", "button");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a person's pace, not a test wait
  }
  SDL_TLSCleanup();  // the set switch ran SDL calls on this thread
}

void Soak::udpEvents(const std::atomic<bool>& stop, EventService& events) {
  Fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(events.port()));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const char* texts[] = {"game start", "ball 1", "\x01binary", "jackpot", "tilt"};
  uint64_t sent = 0;
  for (uint64_t i = 0; !stop; ++i) {
    const char* t = texts[i % std::size(texts)];
    if (sendto(sock.get(), t, strlen(t), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) > 0) {
      count("udp", "sent");
      ++sent;
    }
    // At most 64 datagrams ahead of the service, so the socket buffer never overflows: the
    // kernel would drop a datagram where nobody can count it. (Flow control, not a wait.)
    while (!stop && sent > events.eventsDelivered() + events.datagramsDropped() + 64) std::this_thread::yield();
  }
}

TEST_F(Soak, EveryLoadAtOnceForMinutes) {
  start();
  EventService events;
  ASSERT_TRUE(events.start(0, "127.0.0.1"));
  events.addEventHandler([this](const std::string&) { count("udp", "handled"); });
  const ProcessFigures before = processFigures();
  printf("soak: %d s; start: RSS %ld KiB, open files %d, threads %d\n", soakSeconds(), before.rssKiB,
         before.openFiles, before.threads);

  std::atomic<bool> stop{false};
  std::vector<std::thread> loads;
  loads.emplace_back([&] { busFlood(stop); });
  loads.emplace_back([&] { httpFlood(stop, 0); });
  loads.emplace_back([&] { httpFlood(stop, 1); });
  loads.emplace_back([&] { uploads(stop); });
  loads.emplace_back([&] { setSwitching(stop); });
  loads.emplace_back([&] { udpEvents(stop, events); });
  SoakParts parts{*engine, events, settings};
  for (const SoakLoad& hook : {soak::luaEventLoad, soak::panelInputLoad}) {
    if (!hook.run) {
      printf("soak: %s not wired yet\n", hook.name.c_str());
      continue;
    }
    loads.emplace_back([&, hook] { hook.run(parts, stop, [&](const std::string& outcome) { count(hook.name, outcome); }); });
  }
  std::this_thread::sleep_for(std::chrono::seconds(soakSeconds()));  // the soak's length, not a wait
  stop = true;
  for (auto& t : loads) t.join();
  EXPECT_TRUE(test::waitFor([&] { return events.eventsDelivered() + events.datagramsDropped() == counted("udp", "sent"); }));
  count("udp", "dropped (binary)", events.datagramsDropped());

  // The service closes the flood's connections once it sees their ends: let it.
  test::waitFor([&] { return processFigures().openFiles <= before.openFiles + 2; });
  const ProcessFigures after = processFigures();
  printf("soak: end: RSS %ld KiB, open files %d, threads %d\n", after.rssKiB, after.openFiles, after.threads);
  printCounts();
  for (int p = 0; p < kProtocolCount; ++p) {
    if (p == SYS11) continue;
    const std::string load = std::string("bus ") + protocolName(p);
    EXPECT_EQ(counted(load, "sent"), counted(load, "read") + counted(load, "isr-timeout")) << load;
  }
  EXPECT_EQ(counted("http", "sent"), [&] {
    std::lock_guard lock(countsMutex_);
    uint64_t n = 0;
    for (const auto& [outcome, k] : counts_["http"]) n += outcome == "sent" ? 0 : k;
    return n;
  }());
  // The hooks' loads: every command sent was answered or dropped with a reason.
  for (const SoakLoad& hook : {soak::luaEventLoad, soak::panelInputLoad}) {
    std::lock_guard lock(countsMutex_);
    uint64_t sent = 0, settled = 0;
    for (const auto& [outcome, n] : counts_[hook.name])
      (outcome.rfind("sent", 0) == 0 ? sent : settled) += n;
    EXPECT_EQ(sent, settled) << hook.name;
  }
  EXPECT_LE(after.openFiles, before.openFiles + 2);
  EXPECT_LE(after.threads, before.threads + 2);
  // Samples are cached up to the pool's size; anything above it is a leak.
  const long poolKiB = static_cast<long>(settings.samplePoolSizeInByte >> 10);
  EXPECT_LE(after.rssKiB - before.rssKiB, poolKiB + 64 * 1024) << "pool " << poolKiB << " KiB";
}

}  // namespace
}  // namespace korvo
