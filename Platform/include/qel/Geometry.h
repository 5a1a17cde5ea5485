#pragma once

namespace qel {

// The platform's geometry scalar: a 64-bit double, as on 64-bit targets.
using CGFloat = double;

struct CGSize {
  CGFloat width = 0;
  CGFloat height = 0;
  friend bool operator==(const CGSize&, const CGSize&) = default;
};

}  // namespace qel
