// Detached Ed25519 signatures of firmware archives (libsodium). A key file holds the
// 32-byte public key and a signature file the 64-byte signature, each either as raw
// bytes or as hexadecimal text (white space around it ignored).
//
// Thread: any; no shared state once sodium_init has run (it runs on first use).
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace korvo {

using PublicKey = std::array<unsigned char, 32>;
using Signature = std::array<unsigned char, 64>;

// The key in `path`; nothing when the file is missing or holds no key (ERROR line
// when it exists but is not a key).
std::optional<PublicKey> readPublicKey(const std::string& path);
// The signature in `bytes` (raw or hexadecimal); nothing when it is neither.
std::optional<Signature> parseSignature(std::string_view bytes);
// True when `signature` signs the whole content of the file at `path` for `key`.
bool verifyFileSignature(const std::string& path, const Signature& signature, const PublicKey& key);

}  // namespace korvo
