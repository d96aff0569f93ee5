#include "soundsets/dir_listing.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>

#include "base/handles.h"
#include "base/stringutil.h"

namespace korvo {

DirListing::DirListing(const std::string& dir) : dir_(dir) {
  DirHandle d(opendir(dir.c_str()));
  if (!d) return;
  ok_ = true;
  while (dirent* e = readdir(d.get())) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    entries_.push_back(DirEntry{e->d_name, e->d_type});
  }
}

std::string DirListing::find(std::string_view name) const {
  for (const auto& e : entries_)
    if (equalsIgnoreCase(e.name, name)) return dir_ + "/" + e.name;
  return {};
}

bool DirListing::isDirectory(const DirEntry& e) const {
  if (e.dtype == DT_DIR) return true;
  if (e.dtype != DT_UNKNOWN && e.dtype != DT_LNK) return false;
  struct stat st{};
  return ::stat((dir_ + "/" + e.name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool DirListing::isRegularFile(const DirEntry& e) const {
  if (e.dtype == DT_REG) return true;
  if (e.dtype != DT_UNKNOWN && e.dtype != DT_LNK) return false;
  struct stat st{};
  return ::stat((dir_ + "/" + e.name).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool readFirstInt(std::string_view text, int& out) {
  std::size_t i = 0;
  while (i < text.size() && isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  if (i >= text.size() || !isdigit(static_cast<unsigned char>(text[i]))) return false;
  long long v = 0;
  for (; i < text.size() && isdigit(static_cast<unsigned char>(text[i])); ++i) {
    v = v * 10 + (text[i] - '0');
    if (v > static_cast<long long>(INT_MAX) + 1) v = static_cast<long long>(INT_MAX) + 1;
  }
  if (negative) v = -v;
  out = v > INT_MAX ? INT_MAX : static_cast<int>(v);
  return true;
}

bool readFirstLine(const std::string& path, std::string& out) {
  FileHandle f(fopen(path.c_str(), "r"));
  if (!f) return false;
  char buf[1024];
  out.clear();
  if (fgets(buf, sizeof buf, f.get())) {
    out = buf;
    std::size_t end = out.find_first_of("\r\n");
    if (end != std::string::npos) out.resize(end);
  }
  return true;
}

}  // namespace korvo
