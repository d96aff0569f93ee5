#include "web/signature.h"

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>
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
  // Ed25519 signs the whole message at once: the archive is read in one piece, sized
  // up front so it is held only once.
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st{};
  std::string data;
  if (fd && fstat(fd.get(), &st) == 0) data.resize(static_cast<std::size_t>(st.st_size));
  std::size_t got = 0;
  while (fd && got < data.size()) {
    ssize_t n = ::read(fd.get(), data.data() + got, data.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  if (!fd || got != data.size()) {
    LOG(LEVEL_ERROR, "cannot read %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  return crypto_sign_verify_detached(signature.data(), reinterpret_cast<const unsigned char*>(data.data()),
                                     data.size(), key.data()) == 0;
}

}  // namespace korvo
