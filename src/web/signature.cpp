#include "web/signature.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/fileutil.h"
#include "base/handles.h"
#include "base/log.h"
#include "base/stringutil.h"

namespace korvo {

namespace {

bool sodiumReady() {
  static const bool ready = sodium_init() >= 0;
  return ready;
}

// Raw bytes of exactly N, or N bytes as hexadecimal text.
template <std::size_t N>
std::optional<std::array<unsigned char, N>> decodeFixed(std::string_view bytes) {
  std::array<unsigned char, N> out{};
  if (bytes.size() == N) {
    std::memcpy(out.data(), bytes.data(), N);
    return out;
  }
  std::string_view hex = trim(bytes);
  std::size_t len = 0;
  const char* end = nullptr;
  if (hex.size() != 2 * N ||
      sodium_hex2bin(out.data(), N, hex.data(), hex.size(), nullptr, &len, &end) != 0 || len != N)
    return std::nullopt;
  return out;
}

}  // namespace

std::optional<PublicKey> readPublicKey(const std::string& path) {
  std::string content;
  if (!fileExists(path) || !readWholeFile(path, content)) return std::nullopt;
  auto key = decodeFixed<PublicKey{}.size()>(content);
  if (!key) LOG(LEVEL_ERROR, "%s holds no Ed25519 public key", path.c_str());
  return key;
}

std::optional<Signature> parseSignature(std::string_view bytes) { return decodeFixed<Signature{}.size()>(bytes); }

bool verifyFileSignature(const std::string& path, const Signature& signature, const PublicKey& key) {
  if (!sodiumReady()) {
    LOG(LEVEL_ERROR, "libsodium did not initialise");
    return false;
  }
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st{};
  if (!fd || fstat(fd.get(), &st) != 0) {
    LOG(LEVEL_ERROR, "cannot read %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  const auto size = static_cast<std::size_t>(st.st_size);
  if (size == 0) return crypto_sign_verify_detached(signature.data(), nullptr, 0, key.data()) == 0;
  // Mapped, not read: an update archive can be larger than the memory we want to hold.
  void* data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (data == MAP_FAILED) {
    LOG(LEVEL_ERROR, "cannot map %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  const bool ok = crypto_sign_verify_detached(signature.data(), static_cast<const unsigned char*>(data), size,
                                              key.data()) == 0;
  munmap(data, size);
  return ok;
}

}  // namespace korvo
