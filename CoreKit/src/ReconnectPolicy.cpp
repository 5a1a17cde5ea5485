#include "qel/core/ReconnectPolicy.h"

#include <algorithm>
#include <cmath>

namespace qel::core {

bool Backoff::valid() const {
  return initial.count() > 0 && std::isfinite(multiplier) && multiplier >= 1.0 && maximum >= initial &&
         jitter >= 0.0 && jitter <= 1.0;
}

std::chrono::milliseconds Backoff::bound(int step) const {
  // In floating point and capped at each step: a large step or multiplier
  // reaches the cap instead of overflowing.
  double bound = static_cast<double>(initial.count());
  const double cap = static_cast<double>(maximum.count());
  for (int i = 0; i < step && bound < cap; ++i) bound *= multiplier;
  return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(std::min(bound, cap)));
}

std::chrono::steady_clock::duration Backoff::draw(int step, std::mt19937& random) const {
  const std::chrono::steady_clock::duration upper = bound(step);
  const auto lower = static_cast<std::chrono::steady_clock::rep>(std::llround(
      static_cast<double>(upper.count()) * (1.0 - std::clamp(jitter, 0.0, 1.0))));
  std::uniform_int_distribution<std::chrono::steady_clock::rep> distribution(std::min(lower, upper.count()),
                                                                             upper.count());
  return std::chrono::steady_clock::duration(distribution(random));
}

}  // namespace qel::core
