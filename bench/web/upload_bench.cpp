// Upload throughput of a 50 MB sound set through the real web service (libmicrohttpd,
// the post processor, the upload file with its fsync and the container check) with
// libcurl as the client, against copying the same file on the same disk with an fsync.
// Rounds alternate between the two so a load change on the machine hits both alike.
// Target: upload / copy >= 0.5 for the xsnd set; the zip set is unpacked on top, so it
// is shown for information.
//
//   bench_upload_bench [megabytes] [rounds]
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "soundsets/unzip.h"
#include "soundsets/xsnd.h"
#include "web/httpservice.h"
#include "web/web_context.h"

using namespace korvo;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using CurlHandle = Handle<CURL, curl_easy_cleanup>;
using MimeHandle = Handle<curl_mime, curl_mime_free>;

// A PINSOUND set of five sounds, one WAV-headed file of noise each, `mb` MB in all.
void makePinsoundSet(const fs::path& dir, int mb) {
  std::mt19937 rng(7);
  const std::size_t each = static_cast<std::size_t>(mb) * 1024 * 1024 / 5;
  for (int i = 1; i <= 5; ++i) {
    const fs::path file = dir / "sfx" / (std::to_string(i) + "-noise") / "noise.wav";
    fs::create_directories(file.parent_path());
    std::string data(each, '\0');
    for (auto& c : data) c = static_cast<char>(rng());
    data.replace(0, 4, "RIFF");
    FileHandle f(std::fopen(file.c_str(), "wb"));
    std::fwrite(data.data(), 1, data.size(), f.get());
  }
  fs::create_directories(dir / "music");
}

// Seconds for one POST of `file` as the web UI sends it; false when it was not added.
bool upload(int port, const fs::path& file, const std::string& name, double& seconds) {
  CurlHandle curl(curl_easy_init());
  MimeHandle mime(curl_mime_init(curl.get()));
  curl_mimepart* part = curl_mime_addpart(mime.get());
  curl_mime_name(part, "file");
  curl_mime_filedata(part, file.c_str());
  curl_mime_filename(part, name.c_str());
  part = curl_mime_addpart(mime.get());
  curl_mime_name(part, "endOfUpload");
  curl_mime_data(part, "1", CURL_ZERO_TERMINATED);
  std::string answer;
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/soundsets";
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_MIMEPOST, mime.get());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, +[](char* p, size_t s, size_t n, void* u) {
    static_cast<std::string*>(u)->append(p, s * n);
    return s * n;
  });
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
  const auto t0 = Clock::now();
  const CURLcode rc = curl_easy_perform(curl.get());
  seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  if (rc != CURLE_OK || answer.find("Soundset added.") == std::string::npos) {
    std::fprintf(stderr, "upload of %s failed: %s %s\n", name.c_str(), curl_easy_strerror(rc), answer.c_str());
    return false;
  }
  return true;
}

// Seconds to copy `from` to `to` in 1 MiB blocks and fsync it: what the disk allows.
double copyFile(const fs::path& from, const fs::path& to) {
  const auto t0 = Clock::now();
  Fd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  Fd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  std::string buf(1 << 20, '\0');
  for (ssize_t n; (n = ::read(in.get(), buf.data(), buf.size())) > 0;)
    if (::write(out.get(), buf.data(), static_cast<std::size_t>(n)) != n) break;
  fsync(out.get());
  out.close();
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

void measure(const char* label, int port, const fs::path& file, const fs::path& base, int rounds) {
  const double mb = static_cast<double>(fs::file_size(file)) / (1024.0 * 1024.0);
  const std::string ext = file.extension().string();
  double up = 0, copy = 0;
  for (int r = 0; r < rounds; ++r) {
    double s = 0;
    if (!upload(port, file, "bench" + ext, s)) return;
    up += s;
    fs::remove_all(base / ("bench" + ext));
    fs::remove_all(base / "bench");
    copy += copyFile(file, base / "copy.bin");
    fs::remove(base / "copy.bin");
  }
  std::printf("  %-5s %6.1f MB: upload %7.1f MB/s   copy %7.1f MB/s   ratio %.2f%s\n", label, mb,
              mb * rounds / up, mb * rounds / copy, copy / up, ext == ".xsnd" ? " (target >= 0.5)" : "");
}

}  // namespace

int main(int argc, char** argv) {
  const int megabytes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 50;
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
  initSettings(&settings);
  FileHandle devnull(std::fopen("/dev/null", "w"));
  setLogDevice(devnull.get());
  setLogLevel(LEVEL_INFO);
  curl_global_init(CURL_GLOBAL_DEFAULT);

  char tmpl[] = "/var/tmp/korvo-upload-bench-XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  const fs::path work = tmpl, base = work / "sets", src = work / "src";
  fs::create_directories(base);
  makePinsoundSet(src / "bench", megabytes);

  SoundEngine engine;  // no audio device: uploads only rescan the catalogue
  engine.startSoundSets(base.string());
  const fs::path xsnd = work / "set.xsnd", zip = work / "set.zip";
  {
    SampleIndex index;
    SoundSet set;
    set.basedir = (src / "bench").string();
    index.initSamples(set, 0);
    if (writeSamplesToBinary(index, xsnd.string(), false) != 0) return 1;
  }
  if (pack_zip(zip.c_str(), src.c_str()) != 0) return 1;

  WebContext ctx(engine);
  ctx.baseDir = base.string();
  ctx.webRoot = "/nonexistent";
  HttpService http(ctx);
  if (http.startHttpService("/dev/null", "./korvo", 0) != 0) return 1;
  std::printf("sound set upload through the web service vs a copy on the same disk, %d rounds\n", rounds);
  measure("xsnd", http.boundPort(), xsnd, base, rounds);
  measure("zip", http.boundPort(), zip, base, rounds);
  http.stopHttpService();
  fs::remove_all(work);
  setLogDevice(stdout);
  return 0;
}
