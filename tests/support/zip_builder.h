// Zip archives made in code with libzip, for the unpack, upload and firmware tests.
#pragma once

#include <zip.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "base/handles.h"

namespace korvo::test {

// A zip with these entries, names taken as they are (hostile ones included).
inline std::string makeZip(const std::filesystem::path& path,
                           const std::vector<std::pair<std::string, std::string>>& entries) {
  int err = 0;
  ZipHandle za(zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &err));
  if (!za) return {};
  for (const auto& [name, content] : entries) {
    if (name.ends_with("/")) {
      zip_dir_add(za.get(), name.c_str(), ZIP_FL_ENC_RAW);
      continue;
    }
    zip_source_t* src = zip_source_buffer(za.get(), content.data(), content.size(), 0);
    if (zip_file_add(za.get(), name.c_str(), src, ZIP_FL_ENC_RAW) < 0) zip_source_free(src);
  }
  zip_close(za.release());  // writes the archive; the buffers are read here
  std::string bytes;
  FileHandle f(fopen(path.c_str(), "rb"));
  char buf[65536];
  for (std::size_t n; f && (n = fread(buf, 1, sizeof buf, f.get())) > 0;) bytes.append(buf, n);
  return bytes;
}

}  // namespace korvo::test
