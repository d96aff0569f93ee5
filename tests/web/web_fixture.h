// The web service on a loopback port with real parts behind it: an engine on SDL's
// dummy driver with two PINSOUND sets, a bus on the simulated board (port states,
// recorder), the configuration catalogue, a main loop to stop, a static web root in a
// temporary directory, and libcurl as the client.
#pragma once

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "bus/bus.h"
#include "core/mainloop.h"
#include "core/settings.h"
#include "platform/sim_gpio.h"
#include "sound/sdl_sound.h"
#include "support/engine_setup.h"
#include "support/testutil.h"
#include "support/wav.h"
#include "web/httpservice.h"
#include "web/web_context.h"

namespace korvo::test {

using CurlHandle = Handle<CURL, curl_easy_cleanup>;
using CurlList = Handle<curl_slist, curl_slist_free_all>;

struct Reply {
  CURLcode code = CURLE_OK;
  long status = 0;
  long newConnections = 0;  // connections curl opened for this request
  std::string body;
  std::string headers;  // the raw header lines
  bool hasHeader(const std::string& line) const { return headers.find(line + "\r\n") != std::string::npos; }
};

struct Request {
  Request(std::string m, std::string p, std::string b = "", std::vector<std::string> h = {})
      : method(std::move(m)), path(std::move(p)), body(std::move(b)), headers(std::move(h)) {}
  std::string method;
  std::string path;
  std::string body;                  // sent for POST / PUT
  std::vector<std::string> headers;  // extra request headers
  std::string userpwd;               // HTTP Basic "user:password"
  bool chunked = false;              // POST body without Content-Length
};

// One client connection (kept alive between requests), for one thread.
class Client {
 public:
  explicit Client(int port) : port_(port), curl_(curl_easy_init()) {}

  Reply get(const std::string& path) { return send(Request{"GET", path}); }
  Reply send(const Request& r) {
    Reply out;
    CURL* c = curl_.get();
    curl_easy_reset(c);
    const std::string url = "http://127.0.0.1:" + std::to_string(port_) + r.path;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PATH_AS_IS, 1L);  // send "/../" as written
    curl_easy_setopt(c, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &Client::collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &out.body);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, &Client::collect);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &out.headers);
    CurlList headers;
    for (const std::string& h : r.headers) headers.reset(curl_slist_append(headers.release(), h.c_str()));
    if (r.chunked) headers.reset(curl_slist_append(headers.release(), "Transfer-Encoding: chunked"));
    if (headers) curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    if (!r.userpwd.empty()) curl_easy_setopt(c, CURLOPT_USERPWD, r.userpwd.c_str());
    BodySource src{r.body, 0};
    if (r.method == "POST") {
      curl_easy_setopt(c, CURLOPT_POST, 1L);
      if (r.chunked) {
        curl_easy_setopt(c, CURLOPT_READFUNCTION, &Client::supply);
        curl_easy_setopt(c, CURLOPT_READDATA, &src);
      } else {
        curl_easy_setopt(c, CURLOPT_POSTFIELDS, r.body.c_str());
        curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(r.body.size()));
      }
    } else if (r.method != "GET") {
      curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, r.method.c_str());
    }
    out.code = curl_easy_perform(c);
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &out.status);
    curl_easy_getinfo(c, CURLINFO_NUM_CONNECTS, &out.newConnections);
    return out;
  }

 private:
  struct BodySource {
    const std::string& data;
    std::size_t pos;
  };
  static size_t collect(char* p, size_t size, size_t n, void* user) {
    static_cast<std::string*>(user)->append(p, size * n);
    return size * n;
  }
  static size_t supply(char* p, size_t size, size_t n, void* user) {
    auto* s = static_cast<BodySource*>(user);
    const std::size_t k = std::min(size * n, s->data.size() - s->pos);
    s->data.copy(p, k, s->pos);
    s->pos += k;
    return k;
  }
  int port_;
  CurlHandle curl_;
};

// {  "result": "success", "message": "<m>" } as the GET handlers answer.
inline std::string ok(const std::string& m) { return "{  \"result\": \"success\", \"message\": \"" + m + "\" }"; }
inline std::string err(const std::string& m) { return "{  \"result\": \"error\", \"message\": \"" + m + "\" }"; }

class WebFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }

  void SetUp() override {
    setLogLevel(LEVEL_WARN);  // a flood at DEBUG would bury the test output
    initQuietSettings();
    settings.enableI2S = 0;
    base = dir.path() / "sets";
    makeSet("one");
    makeSet("two");
    makeWebRoot();
    engine = newTestEngine(dir.path());
    ASSERT_EQ(0, engine->soundInit(settings.volume, base.c_str(), 2, 44100));
    ASSERT_EQ(2, engine->startSoundSets(base.string()));
    engine->startSoundServiceThread();
    bus = std::make_unique<Bus>(gpio, settings);
    wire();
  }

  void TearDown() override {
    http.reset();
    bus->shutdown();
    engine->soundShutdown();
  }

  // The context as the owner object wires it, then the service on a free port.
  void wire() {
    ctx = std::make_unique<WebContext>(*engine);
    ctx->recorder = &bus->recorder();
    ctx->configuration = &config;
    ctx->getNumberOfPorts = [] { return PortStates::getNumberOfPorts(); };
    ctx->getPortStates = [this] { return bus->pincom().portStates().getPortStates(); };
    ctx->setPortExtenderPin = [this](int pin, bool on) { bus->setPortExtenderPin(pin, on ? 1 : 0); };
    ctx->baseDir = base.string();
    ctx->webRoot = (dir.path() / "html").string();
    ctx->transientSettingsFile = engine->transientSettingsFile();
    ctx->stopMainLoop = [this](int delayMs, int code) { loop.stopMainLoop(delayMs, code); };
  }

  void start() {
    http = std::make_unique<HttpService>(*ctx);
    ASSERT_EQ(0, http->startHttpService((dir.path() / "korvo.log").string(), "/opt/korvo/korvo", 0));
    ASSERT_GT(http->boundPort(), 0);
    client = std::make_unique<Client>(http->boundPort());
  }

  Reply get(const std::string& path) { return client->get(path); }
  // The body of a GET that must answer 200.
  std::string body(const std::string& path) {
    Reply r = get(path);
    EXPECT_EQ(r.code, CURLE_OK) << path;
    EXPECT_EQ(r.status, 200) << path;
    return r.body;
  }

  // Music 1, sfx 10, sfx 11 (two files), voice 20.
  void makeSet(const std::string& name) {
    const auto s = base / name;
    writeSineWav(s / "music/1-theme/theme.wav", 0.5, 8000, 220);
    writeSineWav(s / "sfx/10-beep/beep.wav", 0.05, 8000, 880);
    writeSineWav(s / "sfx/11-twin/a.wav", 0.05, 8000, 660);
    writeSineWav(s / "sfx/11-twin/b.wav", 0.05, 8000, 770);
    writeSineWav(s / "voice/20-talk/talk.wav", 0.05, 8000, 330);
  }

  void makeWebRoot() {
    const auto html = dir.path() / "html";
    writeFile(html / "index.html", "<html>korvo</html>");
    writeFile(html / "app.js.gz", std::string("\x1f\x8b\x08\x00gzipped", 12));
    writeFile(html / "style.css", "body{}");
    writeFile(html / "sub/index.html", "<html>sub</html>");
    writeFile(dir.path() / "secret.txt", "outside the web root");
  }

  TempDir dir;
  std::filesystem::path base;
  SimGpio gpio;
  std::unique_ptr<SoundEngine> engine;
  std::unique_ptr<Bus> bus;
  Configuration config{settings};
  MainLoop loop;
  std::unique_ptr<WebContext> ctx;
  std::unique_ptr<HttpService> http;
  std::unique_ptr<Client> client;
};

}  // namespace korvo::test
