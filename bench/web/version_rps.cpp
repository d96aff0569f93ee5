// /version requests per second of the web service against a minimal libmicrohttpd
// server in the same threading mode (one internal polling thread) that answers the
// same bytes with the same headers. Both run in this process and are measured in
// alternating batches with the same client; the figure is the ratio of the rates
// (target >= 0.8).
//
//   bench_version_rps [requests per server and setting] [client threads]
#include <microhttpd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "web/httpservice.h"
#include "web/responses.h"
#include "web/raw_client.h"

using namespace korvo;

namespace {

std::string versionBody;  // what the web service answers, found before measuring

// The shortest handler that keeps connections alive: libmicrohttpd closes a connection
// whose answer was queued on the first call of a request.
MHD_Result minimalHandler(void*, MHD_Connection* c, const char*, const char*, const char*, const char*, size_t*,
                          void** ctx) {
  static char next;
  // The same scheduling as the web service's thread, which lowers its own priority.
  thread_local const int lowered = setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), HttpService::kHttpThreadNice);
  (void)lowered;
  if (*ctx != &next) {
    *ctx = &next;
    return MHD_YES;
  }
  MHD_Response* r = MHD_create_response_from_buffer(versionBody.size(), versionBody.data(), MHD_RESPMEM_MUST_COPY);
  MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
  MHD_add_response_header(r, "Server", kServerHeader);
  MHD_Result ret = MHD_queue_response(c, MHD_HTTP_OK, r);
  MHD_destroy_response(r);
  return ret;
}

// Seconds that `threads` clients take for `requests` GETs in all.
double timeBatch(int port, int requests, int threads) {
  std::atomic<int> failures{0};
  const auto t0 = std::chrono::steady_clock::now();
  std::vector<std::thread> clients;
  for (int t = 0; t < threads; ++t)
    clients.emplace_back([&] {
      bench::RawClient c(port);
      for (int i = 0; i < requests / threads; ++i)
        if (c.get("/version") != 200) failures++;
    });
  for (auto& t : clients) t.join();
  if (failures) std::fprintf(stderr, "  %d requests failed\n", failures.load());
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The two servers take turns in small batches, so a load change on the machine hits
// both alike; each figure is its requests over its summed time.
void compare(const char* label, int ours, int minimal, int requests, int threads) {
  constexpr int kBatch = 200;
  double a = 0, b = 0;
  for (int done = 0; done < requests; done += kBatch) {
    a += timeBatch(ours, kBatch, threads);
    b += timeBatch(minimal, kBatch, threads);
  }
  const double ra = requests / a, rb = requests / b;
  std::printf("  %-26s web service %8.0f req/s   minimal %8.0f req/s   ratio %.3f (target >= 0.8)\n", label, ra, rb,
              ra / rb);
}

}  // namespace

int main(int argc, char** argv) {
  const int requests = argc > 1 ? std::max(100, std::atoi(argv[1])) : 5000;
  const int threads = argc > 2 ? std::max(1, std::atoi(argv[2])) : 4;
  initSettings(&settings);
  FileHandle devnull(std::fopen("/dev/null", "w"));
  setLogDevice(devnull.get());

  SoundEngine engine;  // /version reads only the process's memory figure
  WebContext ctx(engine);
  ctx.webRoot = "/nonexistent";
  HttpService http(ctx);
  if (http.startHttpService("/dev/null", "./korvo", 0) != 0) return 1;
  DaemonHandle minimal(MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD, 0, nullptr, nullptr, &minimalHandler, nullptr,
                                        MHD_OPTION_END));
  const MHD_DaemonInfo* info = minimal ? MHD_get_daemon_info(minimal.get(), MHD_DAEMON_INFO_BIND_PORT) : nullptr;
  if (!info) return 1;
  const int minimalPort = info->port;
  bench::RawClient probe(http.boundPort());
  if (probe.get("/version", &versionBody) != 200) return 1;

  std::printf("/version, %d requests per server in alternating batches of 200, keep-alive connections\n", requests);
  for (int level : {LEVEL_DEBUG, LEVEL_INFO}) {
    setLogLevel(level);
    for (int t : {1, threads}) {
      const std::string label = std::string("log level ") + std::to_string(level) + ", " + std::to_string(t) +
                                (t == 1 ? " client:" : " clients:");
      compare(label.c_str(), http.boundPort(), minimalPort, requests, t);
    }
  }
  http.stopHttpService();
  setLogDevice(stdout);
  return 0;
}
