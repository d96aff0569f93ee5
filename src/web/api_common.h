// Small helpers the API handlers share.
#pragma once

#include <microhttpd.h>

#include <string>

namespace korvo {

// The query argument `key` (already percent-decoded), or null when absent.
inline const char* queryArg(struct MHD_Connection* connection, const char* key) {
  return MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, key);
}

// Items joined by a separator, for the JSON lists the handlers build.
class Joined {
 public:
  explicit Joined(const char* sep = ",") : sep_(sep) {}
  void add(const std::string& item) {
    if (!first_) text_ += sep_;
    first_ = false;
    text_ += item;
  }
  const std::string& text() const { return text_; }

 private:
  const char* sep_;
  std::string text_;
  bool first_ = true;
};

}  // namespace korvo
