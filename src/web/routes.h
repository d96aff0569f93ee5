// The route table: one ordered list of URL patterns (POSIX extended regular
// expressions over the request path); the first row whose pattern matches and whose
// kind fits the method takes the request. The order is part of the behaviour: rows 39
// and 40 carry no end anchor, and "/sounds/play/stop" reaches row 29 only because rows
// 25 and 27 want digits.
#pragma once

#include <cstddef>
#include <span>

#include "base/handles.h"
#include "web/connection_info.h"

namespace korvo {

enum HandlerType : int { SIMPLE = 0, SENDFILE = 1, POSTCB = 2, EXT = 3 };

struct RequestHandlerMapping {
  const char* urlPattern;
  HandlerType type;
  ConnType connType;
  SimpleHandler simple;              // SIMPLE rows (GET)
  PostCallbackHandler postCallback;  // POSTCB rows (POST)
};

constexpr std::size_t kRouteCount = 60;
// The table, in match order.
std::span<const RequestHandlerMapping> reqMappings();

// The table with its patterns compiled (REG_EXTENDED). Compiled on first use by the
// HTTP thread; a row whose pattern does not compile stays and never matches.
class RouteTable {
 public:
  // Logs INFO "init req mappings" and each compile result.
  void initRequestHandlerMappings();
  bool inited() const { return inited_; }
  // The first row matching `path` whose kind fits `method` ("GET" for SIMPLE, "POST" for
  // POSTCB); null when none does.
  const RequestHandlerMapping* find(const char* path, const char* method) const;

 private:
  RegexHandle matcher_[kRouteCount];
  bool inited_ = false;
};

}  // namespace korvo
