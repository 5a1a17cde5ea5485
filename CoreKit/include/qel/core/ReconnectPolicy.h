#pragma once

#include <qel/Export.h>

#include <chrono>
#include <random>

namespace qel::core {

// How long a channel waits before it tries again, and how a cabin's devices
// spread those waits.
//
// Wait number `step` (from 0) has the bound initial * multiplier^step, capped
// at maximum, and is drawn uniformly between (1 - jitter) of the bound and
// the bound. Jitter 1 draws from zero up ("full jitter"): when the cabin
// server restarts every device loses it in the same instant, and only a
// wide draw keeps their first attempts from arriving as one wave. Jitter 0
// waits the bound exactly.
//
// Threading: plain values; draw() uses the caller's generator.
//
//   QELConfiguration configuration;
//   configuration.reconnect = ReconnectPolicy{};
//   configuration.reconnect->events.maximum = std::chrono::seconds(10);
//   QELConfiguration::set(configuration);
struct QEL_EXPORT Backoff {
  std::chrono::milliseconds initial;
  double multiplier;
  std::chrono::milliseconds maximum;
  double jitter;

  // A positive initial wait, a multiplier of at least 1, a cap not below
  // the initial wait and a jitter within [0, 1].
  bool valid() const;
  // The bound of wait number `step`; a negative step is step 0.
  std::chrono::milliseconds bound(int step) const;
  std::chrono::steady_clock::duration draw(int step, std::mt19937& random) const;

  friend bool operator==(const Backoff&, const Backoff&) = default;
};

struct QEL_EXPORT ReconnectPolicy {
  // The event channel, after losing its connection or failing to make one;
  // a connection that stays up a minute starts it again at step 0. The
  // defaults were measured on the whole cabin (300 devices) losing a
  // crashed server: drawn over 3 s, the first and second attempts together
  // stay under a tenth of the devices in any 100 ms (over 2 s the peak
  // reached 32 of 300); capped at 8 s, the last device is back within
  // 10 s of the server listening again (at 30 s it took half a minute).
  Backoff events{std::chrono::seconds(3), 2.0, std::chrono::seconds(8), 1.0};
  // A failed request's attempts again (2 s, 10 s, then 30 s: three of them
  // outlast a server that is down for half a minute), never earlier than
  // the server's Retry-After, which is taken up to maximumRetryAfter.
  Backoff requests{std::chrono::seconds(2), 5.0, std::chrono::seconds(30), 0.25};
  std::chrono::seconds maximumRetryAfter{60};

  bool valid() const { return events.valid() && requests.valid() && maximumRetryAfter.count() >= 0; }
  friend bool operator==(const ReconnectPolicy&, const ReconnectPolicy&) = default;
};

}  // namespace qel::core
