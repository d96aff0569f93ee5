// fuzz-lib: korvo_web
// Text the web service takes from outside: URLs and response heads from an update
// server (and whatever answers in its place), tool output of iwlist and nmcli, and the
// names and paths clients send.
#include <cstdint>
#include <string>
#include <string_view>

#include "base/log.h"
#include "web/http_client.h"
#include "web/netinfo.h"
#include "web/safe_path.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    korvo::setLogLevel(korvo::LEVEL_NONE);
    return true;
  }();
  (void)quiet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto url = korvo::parseUrl(text)) {
    (void)url->hostName();
    (void)url->port();
  }
  std::string_view head = text;
  while (korvo::getNextHeader(head)) {
  }
  (void)korvo::parseIwlistScan(text);
  (void)korvo::parseNmcliSsids(text);
  if (korvo::isSafeName(text) && (text.find('/') != std::string_view::npos || text == ".." || text == "."))
    __builtin_trap();  // a name that passes must be one plain component
  if (auto p = korvo::resolveUnder("/tmp", text))
    if (p->rfind("/tmp", 0) != 0) __builtin_trap();  // never outside the root
  return 0;
}
