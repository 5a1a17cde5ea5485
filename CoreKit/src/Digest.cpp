#include "qel/core/Digest.h"

#include <openssl/evp.h>

namespace qel::core {

std::optional<Sha256Digest> sha256(std::span<const std::uint8_t> bytes) {
  Sha256Digest digest;
  unsigned int size = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1 ||
      size != digest.size()) {
    return std::nullopt;
  }
  return digest;
}

}  // namespace qel::core
