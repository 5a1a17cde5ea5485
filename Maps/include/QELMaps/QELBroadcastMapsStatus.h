#pragma once

#include <qel/Export.h>
#include <qel/core/TransportMonitor.h>

#include <chrono>
#include <optional>
#include <string>

namespace qel {

// Why the map is or is not live: the connection's phase, and the last
// failure of each of the three ways to the cabin server (the event channel,
// the map data request, the picture download), which fail independently.
//
// An application shows describe() in a status line, or tells faults apart
// by kind: a lookup that fails or an unreachable server is the Wi-Fi's
// fault; a refused connection, an error status or a closed channel is the
// server's; a certificate that is not trusted is the configuration's.
//
// Threading: a plain value, part of the host's snapshot; read it anywhere.
//
//   const auto& status = host->snapshot()->status;
//   if (status.phase != QELBroadcastMapsStatus::Phase::Live) showBanner(status.describe());
//   if (status.events && status.events->kind == core::FailureKind::Certificate) askForTheRightAuthority();
struct QEL_EXPORT QELBroadcastMapsStatus {
  using Clock = std::chrono::system_clock;

  enum class Phase {
    Stopped,         // not started, or stopped
    Connecting,      // an attempt to reach the server runs
    Live,            // connected, with a map record that lists pictures
    WaitingToRetry,  // the event channel failed; nextAttempt says when it tries again
    NoMapData,       // connected, but the server has no map (or its map data failed)
  };

  struct Failure {
    core::FailureKind kind = core::FailureKind::ConnectionLost;
    // The HTTP status or the close code, when the kind has one; else 0.
    int code = 0;
    // For people; text that came from the server is escaped.
    std::string message;
    Clock::time_point at{};
    // Failures in a row; 0 once the channel worked again (the failure itself
    // stays, as the last one).
    int consecutive = 0;
    bool operator==(const Failure&) const = default;
  };

  Phase phase = Phase::Stopped;
  // When the phase began.
  Clock::time_point since{};
  // When the next attempt starts, while one is scheduled: the event
  // channel's when WaitingToRetry, the map data's when NoMapData.
  std::optional<Clock::time_point> nextAttempt;
  std::optional<Failure> events;
  std::optional<Failure> mapData;
  std::optional<Failure> picture;

  const std::optional<Failure>& failure(core::TransportChannel channel) const;

  // One line for people: "Live", "Cabin server unreachable, next try in 4 s",
  // "Cannot verify the cabin server's certificate: unable to get local
  // issuer certificate", "Connected; the server has no map yet".
  std::string describe(Clock::time_point now = Clock::now()) const;

  // "stopped", "connecting", "live", "waiting to retry", "no map data".
  static const char* phaseName(Phase phase);

  bool operator==(const QELBroadcastMapsStatus&) const = default;
};

}  // namespace qel
