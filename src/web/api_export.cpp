// GET /soundsets/<name>/altsound.zip: an installed set converted to an AltSound pack
// (altsound.csv and a copy of every sample file) and answered as a zip download.
//
// The set is read from disk into an index of its own, so the engine lock is held only
// to look the set up: playback goes on while files are copied. The pack is built in a
// hidden staging directory under the base directory, named like the daemon's other
// temporaries so a start-up after a power cut removes what was left; the staging
// directory is removed as soon as the answer is queued or refused (the open descriptor
// keeps the zip readable until libmicrohttpd has sent it).
//
// Thread: the HTTP thread.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "core/settings.h"
#include "sound/sdl_sound.h"
#include "soundsets/altsound.h"
#include "soundsets/sample_index.h"
#include "soundsets/unzip.h"
#include "web/api_handlers.h"
#include "web/responses.h"
#include "web/safe_path.h"
#include "web/web_context.h"

namespace korvo {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "/soundsets/";
constexpr std::string_view kSuffix = "/altsound.zip";

// The set's name as the list answers it: its path below the base directory.
std::string nameBelow(const std::string& path, const std::string& base) {
  if (path.size() > base.size() && path.compare(0, base.size(), base) == 0 && path[base.size()] == '/')
    return path.substr(base.size() + 1);
  return path;
}

// Every component of a name from the URL must be a plain file name.
bool isSafeSetName(std::string_view name) {
  if (name.empty()) return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t slash = name.find('/', start);
    if (slash == std::string_view::npos) slash = name.size();
    if (!isSafeName(name.substr(start, slash - start))) return false;
    start = slash + 1;
  }
  return true;
}

// A copy of the catalogue's entry for `name` (its records left out), and the engine's
// mapping directory, taken under the engine lock.
std::optional<SoundSet> findSet(const std::string& name, std::string& configsDir) {
  SoundEngine& engine = webContext().engine;
  const std::string& base = webContext().baseDir;
  auto lock = engine.lock();
  configsDir = engine.index().configsDir();
  const SoundSetCatalogue& cat = engine.catalogue();
  for (int i = 1; i <= cat.maxSoundSets; ++i) {
    const SoundSet* set = cat.get(i);
    if (!set || nameBelow(set->basedir, base) != name) continue;
    SoundSet copy = *set;
    copy.samples.clear();
    return copy;
  }
  return std::nullopt;
}

// The hidden directory the pack is built in; removed with everything in it when the
// export ends, however it ends.
class Staging {
 public:
  explicit Staging(const std::string& base) : dir_(temporaryNameFor(base + "/.altsound-export")) {
    if (!mkdtemp(dir_.data())) {
      LOG(LEVEL_ERROR, "cannot create %s: %s", dir_.c_str(), strerror(errno));
      dir_.clear();
    }
  }
  ~Staging() {
    if (dir_.empty()) return;
    std::error_code ec;
    fs::remove_all(dir_, ec);
    if (ec) LOG(LEVEL_WARN, "cannot remove %s: %s", dir_.c_str(), ec.message().c_str());
  }
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;
  bool ok() const { return !dir_.empty(); }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

// Converts `set` into staging/pack and zips that into staging/altsound.zip. The
// descriptor of the zip, or an empty Fd with `why` set.
Fd buildPack(SoundSet& set, const std::string& configsDir, const Staging& staging, std::string& why) {
  // The set's own configuration may override board settings: they land in this copy.
  Settings own;
  SampleIndex index(own);
  index.setConfigsDir(configsDir);
  if (index.initSamples(set, 0) != 0 || index.samplesMap().mapSize() == 0) {
    why = "has no sounds to export";
    return Fd();
  }
  const std::string pack = staging.dir() + "/pack";
  const std::string zip = staging.dir() + "/altsound.zip";
  if (mkdir(pack.c_str(), 0755) != 0 || writeSamplesToCsv(index, pack + "/altsound.csv", set.basedir, true) != 0) {
    why = "could not be converted (see the log)";
    return Fd();
  }
  Fd fd;
  if (pack_zip(zip.c_str(), pack.c_str()) == 0) fd.reset(open(zip.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) why = "could not be packed (see the log)";
  return fd;
}

// Letters, digits, '-', '_' and '.' of the set's name, for the download's file name.
std::string downloadName(const std::string& name) {
  std::string out;
  for (char c : name.substr(name.find_last_of('/') + 1))
    out += (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.') ? c : '_';
  return out + "-altsound.zip";
}

MHD_Result sendZip(MHD_Connection* connection, Fd fd, const std::string& name) {
  struct stat st{};
  if (fstat(fd.get(), &st) != 0) return error500(connection, "altsound.zip");
  // libmicrohttpd owns the descriptor once the response exists and closes it with it.
  MHD_Response* r = MHD_create_response_from_fd64(static_cast<uint64_t>(st.st_size), fd.get());
  if (!r) return MHD_NO;
  fd.release();
  const std::string disposition = "attachment; filename=\"" + downloadName(name) + "\"";
  MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "application/zip");
  MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_DISPOSITION, disposition.c_str());
  MHD_add_response_header(r, "Server", kServerHeader);
  MHD_Result ret = MHD_queue_response(connection, MHD_HTTP_OK, r);
  MHD_destroy_response(r);
  return ret;
}

}  // namespace

MHD_Result handleExportAltSound(MHD_Connection* connection, const char* url, char* buffer) {
  std::string_view path(url);
  const std::string name(path.substr(kPrefix.size(), path.size() - kPrefix.size() - kSuffix.size()));
  const std::string shown = escape(name.substr(0, 200));
  if (!isSafeSetName(name)) return failed(connection, buffer, "invalid sound set name '%s'", shown.c_str());
  std::string configsDir;
  std::optional<SoundSet> set = findSet(name, configsDir);
  if (!set) return failed(connection, buffer, "unknown sound set '%s'", shown.c_str());
  LOG(LEVEL_INFO, "exporting sound set %s as an AltSound pack", set->basedir.c_str());
  Staging staging(webContext().baseDir);
  if (!staging.ok()) return failed(connection, buffer, "sound set '%s' not exported: no room for the pack", shown.c_str());
  std::string why;
  Fd fd = buildPack(*set, configsDir, staging, why);
  if (!fd) return failed(connection, buffer, "sound set '%s' %s", shown.c_str(), why.c_str());
  return sendZip(connection, std::move(fd), name);
}

}  // namespace korvo
