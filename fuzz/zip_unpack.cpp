// fuzz-lib: korvo_soundsets
// Unpacks arbitrary bytes as a zip archive and checks that nothing at all is written
// outside the target directory: the target sits four levels deep in the scratch
// directory, so an entry climbing out with "../" lands in the scratch tree, which must
// hold nothing but the archive and the target's parents afterwards; an entry naming an
// absolute or climbing path must not have created that path anywhere.
#include <zip.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "base/handles.h"
#include "scratch.h"
#include "soundsets/unzip.h"

namespace fs = std::filesystem;

namespace {

// Where each entry name would land if it were not confined, for names that leave the
// target, with whether that path existed before the unpack.
std::vector<std::pair<fs::path, bool>> escapingPaths(const std::string& archive, const fs::path& target) {
  std::vector<std::pair<fs::path, bool>> out;
  int err = 0;
  korvo::ZipHandle za(zip_open(archive.c_str(), ZIP_RDONLY, &err));
  if (!za) return out;
  const zip_int64_t n = zip_get_num_entries(za.get(), 0);
  for (zip_int64_t i = 0; i < n && i < 256; ++i) {
    const char* name = zip_get_name(za.get(), static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW);
    if (!name || !*name) continue;
    const fs::path landed = (target / name).lexically_normal();
    const fs::path rel = landed.lexically_relative(target);
    // ".." as the first component climbs out; a directory named "..x" does not.
    if (rel.empty() || *rel.begin() == ".." || fs::path(name).is_absolute()) {
      std::error_code ec;
      out.emplace_back(fs::path(name).is_absolute() ? fs::path(name) : landed, fs::exists(landed, ec));
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = korvo::fuzz::scratchDir("zip");
  const std::string archive = dir + "/in.zip";
  const fs::path nest = fs::path(dir) / "a/b/c";
  const fs::path target = nest / "target";
  std::error_code ec;
  fs::remove_all(dir + "/a", ec);
  fs::create_directories(target, ec);
  {
    korvo::FileHandle f(fopen(archive.c_str(), "wb"));
    if (!f) return 0;
    fwrite(data, 1, size, f.get());
  }
  const auto escapes = escapingPaths(archive, target);
  korvo::unzip(archive.c_str(), target.c_str());

  // The scratch tree outside the target: exactly the archive and the target's parents.
  const std::set<fs::path> allowed = {fs::path(archive), fs::path(dir) / "a", fs::path(dir) / "a/b", nest};
  for (auto it = fs::recursive_directory_iterator(dir, ec); it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) break;
    if (it->path() == target) {
      it.disable_recursion_pending();
      continue;
    }
    if (!allowed.count(it->path())) abort();
  }
  for (const auto& [path, existed] : escapes)
    if (!existed && fs::exists(fs::symlink_status(path, ec))) abort();
  return 0;
}
