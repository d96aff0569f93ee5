// Firmware updates: an archive downloaded from the update server (/firmware/auto) or
// uploaded (/firmware) becomes "update/update.zip" in the directory that holds the
// base directory, where the installer picks it up at the next start. It is put there
// atomically and only when libzip opens it and, once a public key is installed
// ("/etc/korvo/update.pub" under the root prefix), its detached Ed25519 signature
// verifies. A refused update leaves the one in place untouched.
//
// Thread: the HTTP thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvo {

class UploadFile;

constexpr char kUpdateKeyFile[] = "/etc/korvo/update.pub";

// "<directory holding baseDir>/update/update.zip" (baseDir made absolute first).
std::string updateArchivePath(const std::string& baseDir);
// Versions name a file on the server: letters, digits, '.', '_' and '-' only.
bool isVersionValid(std::string_view version);
// "<server>/files/update-<version>.zip" (one '/' between server and path).
std::string firmwareUrl(const std::string& updateServer, std::string_view version);

// Why the finished archive in `file` may not be installed, empty when it may. The
// signature (raw or hex bytes; nothing = none sent) is needed once a key is installed.
std::string checkUpdate(const UploadFile& file, const std::optional<std::string>& signature,
                        const std::string& rootPrefix);
// checkUpdate, then the archive replaces `target` (update.zip). Empty on success, else
// why not (ERROR line); `file` is consumed either way.
std::string installUpdate(UploadFile& file, const std::optional<std::string>& signature,
                          const std::string& rootPrefix, const std::string& target);

}  // namespace korvo
