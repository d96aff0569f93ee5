// Checks for every path that comes from a client (URL, upload file name, zip entry,
// form value) before it touches the file system.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvo {

// One path component: not empty, not "." or "..", no '/', '\\', NUL or other control
// character (bytes below 0x20 and 0x7f).
bool isSafeName(std::string_view name);

// `relative` joined under `root`, as a canonical path (symbolic links resolved as far as
// the path exists). nullopt for an absolute name, a ".." component, a NUL or control
// byte, or anything whose canonical form leaves the canonical root. An empty relative
// path gives the root itself.
std::optional<std::string> resolveUnder(const std::string& root, std::string_view relative);

}  // namespace korvo
