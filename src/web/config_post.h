// The url-encoded forms: the configuration page's save and the single-field updates of
// one sound (their callbacks are declared in ops_handlers.h).
#pragma once

#include <string_view>

namespace korvo {

// A form key and value that make exactly one "key=value" line: the key not empty and
// without '=', neither with a line break or NUL (a value could otherwise add settings
// of its own).
bool isConfigLineSafe(std::string_view key, std::string_view value);

}  // namespace korvo
