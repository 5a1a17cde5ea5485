#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

namespace qel::core {

// The SHA-256 digest of some bytes: 32 bytes that tell whether two byte
// strings are the same without keeping either of them.
using Sha256Digest = std::array<std::uint8_t, 32>;

// None only when the digest cannot be made (memory ran out in the library).
//
// Threading: any thread.
//
//   if (sha256(data) == lastDigest) return;  // the same bytes again
std::optional<Sha256Digest> sha256(std::span<const std::uint8_t> bytes);

}  // namespace qel::core
