// fuzz-lib: korvo_web
// Raw HTTP requests from the LAN through the real service: libmicrohttpd on a loopback
// port, the route table, the handlers and uploads, with an engine on SDL's silent driver
// and one small sound set behind them. Each input is sent on a fresh connection whose
// sending side is then closed; the service answers and closes it, or waits for the rest
// of a cut-short request while it goes on serving other clients.
// External tools cannot run (PATH is an empty directory) and system files are looked up
// under the scratch directory, so no request changes this machine.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "base/fileutil.h"
#include "base/handles.h"
#include "core/settings.h"
#include "scratch.h"
#include "sound/sdl_sound.h"
#include "web/httpservice.h"
#include "web/web_context.h"

namespace {

// A mono 8 kHz 16-bit WAV of `frames` silent frames.
std::string silentWav(uint32_t frames) {
  auto le = [](std::string& s, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) s += static_cast<char>((v >> (8 * i)) & 0xFF);
  };
  std::string w = "RIFF";
  le(w, 36 + frames * 2, 4);
  w += "WAVEfmt ";
  le(w, 16, 4), le(w, 1, 2), le(w, 1, 2), le(w, 8000, 4), le(w, 16000, 4), le(w, 2, 2), le(w, 16, 2);
  w += "data";
  le(w, frames * 2, 4);
  w.append(frames * 2, '\0');
  return w;
}

struct Rig {
  std::string dir = korvo::fuzz::scratchDir("http");
  std::unique_ptr<korvo::SoundEngine> engine;
  std::unique_ptr<korvo::WebContext> ctx;
  korvo::Configuration config{korvo::settings};
  std::unique_ptr<korvo::HttpService> http;

  Rig() {
    namespace fs = std::filesystem;
    setenv("SDL_AUDIODRIVER", "dummy", 1);
    fs::create_directories(dir + "/bin");
    setenv("PATH", (dir + "/bin").c_str(), 1);
    const std::string base = dir + "/sets";
    for (const char* s : {"/one/sfx/10-beep", "/one/music/1-theme"}) fs::create_directories(base + s);
    korvo::writeFileAtomic(base + "/one/sfx/10-beep/beep.wav", silentWav(80));
    korvo::writeFileAtomic(base + "/one/music/1-theme/theme.wav", silentWav(800));
    fs::create_directories(dir + "/html");
    korvo::writeFileAtomic(dir + "/html/index.html", "<html>korvo</html>");
    korvo::initSettings(&korvo::settings);
    korvo::settings.playBoot = 0;
    korvo::settings.sayPreload = 0;
    engine = std::make_unique<korvo::SoundEngine>();
    engine->setTransientSettingsFile(dir + "/va.ini");
    engine->setAnnounceSoundSet(false);
    engine->soundInit(64, base.c_str(), 2, 44100);
    engine->startSoundSets(base);
    engine->startSoundServiceThread();
    ctx = std::make_unique<korvo::WebContext>(*engine);
    ctx->configuration = &config;
    ctx->getNumberOfPorts = [] { return 0; };
    ctx->getPortStates = [] { return std::vector<uint8_t>{}; };
    ctx->setPortExtenderPin = [](int, bool) {};
    ctx->stopMainLoop = [](int, int) {};
    ctx->baseDir = base;
    ctx->webRoot = dir + "/html";
    ctx->rootPrefix = dir;
    ctx->transientSettingsFile = dir + "/va.ini";
    http = std::make_unique<korvo::HttpService>(*ctx);
    if (http->startHttpService(dir + "/korvo.log", dir + "/korvo", 0) != 0) abort();
  }
};

enum class Outcome { kClosed, kWaiting, kRefused };

// Sends `data` on a new connection, closes the sending side and reads until the service
// closes (the reply goes to `reply`), or until it waits `waitMs` for more of a request.
Outcome exchange(int port, const uint8_t* data, size_t size, int waitMs, std::string* reply = nullptr) {
  korvo::Fd s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(s.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) return Outcome::kRefused;
  size_t sent = 0;
  while (sent < size) {
    const ssize_t n = send(s.get(), data + sent, size - sent, MSG_NOSIGNAL);
    if (n <= 0) break;  // the service may close early on a bad request
    sent += static_cast<size_t>(n);
  }
  shutdown(s.get(), SHUT_WR);
  char buf[4096];
  for (;;) {
    pollfd p{s.get(), POLLIN, 0};
    if (poll(&p, 1, waitMs) <= 0) return Outcome::kWaiting;
    const ssize_t n = recv(s.get(), buf, sizeof buf, 0);
    if (n <= 0) return Outcome::kClosed;
    if (reply) reply->append(buf, static_cast<size_t>(n));
  }
}

// A status line "HTTP/1.x 200 ...".
bool isOk(const std::string& reply) {
  return reply.size() > 12 && reply.compare(0, 7, "HTTP/1.") == 0 && reply.compare(8, 5, " 200 ") == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* rig = new Rig;  // lives to the end: the service threads are not joined at exit
  const int port = rig->http->boundPort();
  // A request cut short may leave the service waiting for the rest until its connection
  // time-out; that is allowed, as long as it goes on answering everybody else.
  if (exchange(port, data, size, 2000) == Outcome::kClosed) return 0;
  // Earlier inputs may still hold connections up to the per-address limit until their idle
  // time-out, and the service then closes new ones at once: only a service that answers
  // nobody for a whole minute has stopped.
  // libmicrohttpd answers an HTTP/1.0 request with an HTTP/1.1 status line, so only the
  // code is checked.
  static const std::string probe = "GET /version HTTP/1.0\r\n\r\n";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::string reply;
  while (std::chrono::steady_clock::now() < deadline) {
    reply.clear();
    if (exchange(port, reinterpret_cast<const uint8_t*>(probe.data()), probe.size(), 45000, &reply) ==
            Outcome::kClosed &&
        isOk(reply))
      return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  fprintf(stderr, "the service stopped answering /version; last reply (%zu bytes): '%.200s'\n", reply.size(),
          reply.c_str());
  abort();
}
