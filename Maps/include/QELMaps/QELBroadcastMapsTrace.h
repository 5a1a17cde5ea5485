#pragma once

#include <qel/Export.h>
#include <qel/core/TransportMonitor.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace qel {

// Where one picture's time went, from the update that caused it to the
// snapshot that showed it, on the steady clock. The transfer's phases are
// libcurl's own timers; a phase not reached (a kept connection has no
// connect, a failure ends early) is empty.
//
// Threading: a plain value.
//
//   void pictureTraced(const QELBroadcastMapsTrace& trace) override {
//     if (trace.shown) record("first byte", *trace.firstByte - *trace.updateReceived);
//   }
struct QELBroadcastMapsTrace {
  using TimePoint = std::chrono::steady_clock::time_point;
  enum class Result {
    Shown,        // a new picture, published in a snapshot
    SamePicture,  // the bytes decoded to the picture already shown
    Failed,       // see failure
  };

  std::string source;
  // The event or map data answer that named this picture was received.
  std::optional<TimePoint> updateReceived;
  std::optional<TimePoint> queued, nameLookupDone, connected, tlsDone, firstByte, bodyDone, decoded, shown;
  std::uint64_t bytesReceived = 0;
  std::string httpVersion;  // "1.1", "2"
  bool connectionReused = false;
  bool revalidated = false;  // answered "304 Not Modified" from the held copy
  Result result = Result::Failed;
  std::optional<core::FailureKind> failure;
  std::string failureMessage;
};

// The counters of one host since it was made, for the people who run the
// cabin. json() writes them as one JSON object whose names follow
// OpenTelemetry's HTTP client conventions where one exists
// ("http.client.request.duration", in seconds) and the same style for the
// rest ("qelmaps.picture.shown").
//
// Threading: a plain value; the host publishes a new one after each change.
struct QEL_EXPORT QELBroadcastMapsStats {
  std::uint64_t picturesShown = 0;
  std::map<std::string, std::uint64_t> picturesFailed;  // by failure kind
  std::uint64_t pictureBytes = 0;                       // received, bodies only
  std::uint64_t picturesRevalidated = 0;
  std::uint64_t mapDataLoads = 0;
  std::uint64_t eventConnects = 0;
  std::map<std::string, std::uint64_t> eventDrops;  // by failure kind
  std::uint64_t reconnectAttempts = 0;
  // Picture requests, queued to answered, in seconds.
  std::uint64_t requestCount = 0;
  double requestSecondsSum = 0;
  double requestSecondsLast = 0;
  double requestSecondsMedian = 0;
  // The event channel's ping round trip, in seconds; 0 before the first.
  double roundTripLast = 0;
  double roundTripMedian = 0;
  // The shown picture's age when the stats were made, in seconds; -1
  // without one.
  double pictureAge = -1;
  // The last picture shown or map data loaded, as Unix time in seconds; 0
  // before the first.
  double lastSuccess = 0;

  std::string json() const;
};

// Told of each picture's trace and, at the interval the host's options set,
// of the stats, on the application's executor like the notifications.
class QELBroadcastMapsHostListener {
 public:
  virtual ~QELBroadcastMapsHostListener() = default;
  virtual void pictureTraced(const QELBroadcastMapsTrace& /*trace*/) {}
  virtual void statsReported(const QELBroadcastMapsStats& /*stats*/) {}
};

}  // namespace qel
