#include "base/stringutil.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace korvo {

namespace {
inline unsigned char lower(char c) { return static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(c))); }
}  // namespace

std::optional<std::string> save_strdup(const char* s) {
  if (!s) return std::nullopt;
  return std::string(s);
}

int readInt(std::string_view s) {
  if (s.empty()) return 0;
  std::string copy(s);
  if (copy.size() > 1 && copy[0] == '0' && (copy[1] == 'x' || copy[1] == 'X'))
    return static_cast<int>(strtoul(copy.c_str() + 2, nullptr, 16));
  return static_cast<int>(strtol(copy.c_str(), nullptr, 10));
}

int split(std::string_view s, std::string_view delims, std::vector<std::string_view>& parts, int max) {
  parts.clear();
  if (max <= 0) return 0;
  int runs = 0;
  std::size_t start = 0;
  std::size_t i = 0;
  while (i < s.size()) {
    if (delims.find(s[i]) == std::string_view::npos) {
      ++i;
      continue;
    }
    if (static_cast<int>(parts.size()) < max) parts.push_back(s.substr(start, i - start));
    while (i < s.size() && delims.find(s[i]) != std::string_view::npos) ++i;
    ++runs;
    start = i;
  }
  if (static_cast<int>(parts.size()) < max) parts.push_back(s.substr(start));
  return runs;
}

std::string_view _basename(std::string_view path) {
  if (path.size() < 2) return path;
  std::size_t pos = path.find_last_of('/', path.size() - 2);
  return pos == std::string_view::npos ? path : path.substr(pos + 1);
}

bool startsWith(std::string_view s, std::string_view prefix) {
  if (prefix.size() > s.size()) return false;
  return _strnicmp(s, prefix, prefix.size()) == 0;
}

bool endsWith(std::string_view s, std::string_view suffix) {
  if (suffix.size() > s.size()) return false;
  return _strnicmp(s.substr(s.size() - suffix.size()), suffix, suffix.size()) == 0;
}

bool startsWithMatchCase(std::string_view s, std::string_view prefix) { return s.starts_with(prefix); }

int _strnicmp(std::string_view a, std::string_view b, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    unsigned char ca = i < a.size() ? lower(a[i]) : 0;
    unsigned char cb = i < b.size() ? lower(b[i]) : 0;
    if (ca != cb) return ca - cb;
    if (ca == 0) break;
  }
  return 0;
}

std::optional<std::string> str_replace(std::string_view s, std::string_view old, std::string_view repl) {
  if (old.empty()) return std::nullopt;
  std::string out;
  out.reserve(s.size());
  std::size_t pos = 0;
  for (;;) {
    std::size_t hit = s.find(old, pos);
    if (hit == std::string_view::npos) break;
    out.append(s.substr(pos, hit - pos));
    out.append(repl);
    pos = hit + old.size();
  }
  out.append(s.substr(pos));
  return out;
}

void trim_right(std::string& s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
}

std::string_view trim_right(std::string_view s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.remove_suffix(1);
  return s;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

int hexToInt(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 0;
}

std::string urlDecode(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c == '+') {
      out.push_back(' ');
    } else if (c == '%' && i + 2 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
               std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
      out.push_back(static_cast<char>(hexToInt(s[i + 1]) * 16 + hexToInt(s[i + 2])));
      i += 2;
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string toLower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(lower(c));
  return out;
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && _strnicmp(a, b, a.size()) == 0;
}

std::string strFormat(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  int n = vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<std::size_t>(n));
    vsnprintf(out.data(), out.size() + 1, fmt, again);
  }
  va_end(again);
  return out;
}

}  // namespace korvo
