#include "web/safe_path.h"

#include <filesystem>
#include <system_error>

namespace korvo {

namespace fs = std::filesystem;

namespace {

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

// True when `p` is `root` or lies below it (component-wise, both canonical).
bool isWithin(const fs::path& root, const fs::path& p) {
  auto r = root.begin(), q = p.begin();
  for (; r != root.end(); ++r, ++q) {
    if (r->empty() && std::next(r) == root.end()) break;  // trailing separator of root
    if (q == p.end() || *r != *q) return false;
  }
  return true;
}

}  // namespace

bool isSafeName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (unsigned char c : name)
    if (c == '/' || c == '\\' || isControl(c)) return false;
  return true;
}

std::optional<std::string> resolveUnder(const std::string& root, std::string_view relative) {
  if (root.empty() || (!relative.empty() && relative.front() == '/')) return std::nullopt;
  for (unsigned char c : relative)
    if (isControl(c) || c == '\\') return std::nullopt;
  fs::path rel(relative);
  for (const fs::path& part : rel)
    if (part == "..") return std::nullopt;
  std::error_code ec;
  const fs::path base = fs::weakly_canonical(fs::path(root), ec);
  if (ec) return std::nullopt;
  // A symbolic link inside the root may still point out of it: judge the resolved path.
  const fs::path full = fs::weakly_canonical(base / rel, ec);
  if (ec || !isWithin(base, full)) return std::nullopt;
  return full.string();
}

}  // namespace korvo
