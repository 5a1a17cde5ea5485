#pragma once

#include "qel/core/QELRequest.h"
#include "qel/core/ResponseCache.h"

#include <qel/Data.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <functional>
#include <memory>
#include <optional>

namespace qel::core {

// Where one attempt's time went, on the steady clock. The phases of the
// transfer are libcurl's own timers; the lookup is the resolver's, which
// runs before libcurl is given the addresses. A phase not reached is empty.
struct TransportTiming {
  using TimePoint = std::chrono::steady_clock::time_point;
  std::optional<TimePoint> queued;  // the request entered its queue
  TimePoint started{};              // the attempt began
  std::optional<TimePoint> nameLookupDone, connected, tlsDone, firstByte, done;
  std::uint64_t bytesReceived = 0;
  std::string httpVersion;  // "1.1", "2"; empty when no answer came
  bool connectionReused = false;
};

// The outcome of one attempt: bytes, or an error.
struct TransportResult {
  std::optional<Error> error;
  Data data;
  // How long the server asked to be left alone before the next try
  // (Retry-After), when it said so.
  std::optional<std::chrono::seconds> retryAfter = std::nullopt;
  // What identifies the answer (ETag, Last-Modified), when the server sent it.
  Validators validators = {};
  // The server said the held answer is current ("304 Not Modified"): `data`
  // is the body the ResponseCache held.
  bool notModified = false;
  // Where the time went, when the transport can tell.
  std::optional<TransportTiming> timing = std::nullopt;
};

// One attempt in flight; cancel() makes sure its completion never runs.
// The transport keeps the operation alive until its completion has run or it
// was cancelled: callers may hold it only weakly.
class TransportOperation {
 public:
  virtual ~TransportOperation() = default;
  virtual void cancel() = 0;
};

// Carries out single attempts of requests. The queue owns retries, ordering
// and delegates; a transport only fetches.
//
// Threading: start() is called on the run loop thread and the completion must
// run on that same loop, never from within start() itself.
class RequestTransport {
 public:
  using Completion = std::function<void(TransportResult)>;

  virtual ~RequestTransport() = default;
  virtual std::shared_ptr<TransportOperation> start(const QELRequest& request,
                                                    Completion completion) = 0;

  // The transport queues use unless given another: by default verified HTTPS
  // to the configured cabin server.
  static std::shared_ptr<RequestTransport> shared();
  // Installs the shared transport; an empty pointer restores the default.
  // Queues made without a transport of their own pick up the new one at
  // their next attempt.
  static void setShared(std::shared_ptr<RequestTransport> transport);
};

}  // namespace qel::core
