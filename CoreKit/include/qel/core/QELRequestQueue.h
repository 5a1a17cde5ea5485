#pragma once

#include "qel/core/QELRequest.h"
#include "qel/core/ReconnectPolicy.h"
#include "qel/core/RequestTransport.h"

#include <qel/RunLoop.h>

#include <memory>
#include <optional>
#include <random>

namespace qel::core {

// Runs requests first in, first out, never more than a set number at a time.
//
// A failed attempt is sent again up to the request's numberOfRetries(), after
// a delay that grows with each try (by default up to 2 s, 10 s, then 30 s at
// most, each between three quarters of that and all of it, so that a cabin's
// devices do not come back together; the configuration's reconnect policy
// sets it) and is never shorter than the server's Retry-After (heeded up to
// a minute); the request keeps its place while it waits. Three retries thus span more than half a minute: a server that is
// down for that long still answers one of them. Only then does the delegate
// hear of the failure. A finished, failed or cancelled request lets the next one start.
// Every delegate call comes from the run loop, never from within addRequest().
//
// Requests already added keep running when the queue object is destroyed.
// A request with no URL fails at once, without retries. Cancelling a request
// (waiting, running or between attempts) silences it and frees its place.
//
// Delegates are called with the queue already updated, so a delegate may add
// requests, cancel others or drop the queue from inside its callback.
//
// Threading: the run loop thread that created the queue.
//
//   auto queue = QELRequestQueue::create();
//   queue->setMaxConcurrentOperationCount(1);
//   queue->addRequest(request);
class QELRequestQueue : public Object {
 public:
  // Without a transport, each attempt uses RequestTransport::shared() as it
  // is when the attempt starts (so a transport installed later, or by a
  // test, applies to queues that already exist). A queue given a transport
  // owns it; the two stay alive together while an attempt is in flight, so
  // every attempt must end (complete or be cancelled) for them to go.
  static std::shared_ptr<QELRequestQueue> create(std::shared_ptr<RequestTransport> transport = nullptr);
  ~QELRequestQueue() override;

  // A count below 1 means no limit, which is the default (as the platform's
  // operation queues do); raising the limit starts waiting requests.
  void setMaxConcurrentOperationCount(int count);
  int maxConcurrentOperationCount() const;

  void addRequest(const std::shared_ptr<QELRequest>& request);

  // Requests waiting plus running.
  std::size_t operationCount() const;

  // Delay before retry number `retry` (1-based): the policy's request
  // backoff, but never before the server's Retry-After, taken up to the
  // policy's maximumRetryAfter.
  static RunLoop::Duration retryDelay(const ReconnectPolicy& policy, int retry,
                                      std::optional<std::chrono::seconds> retryAfter, std::mt19937& random);

 private:
  struct State;
  explicit QELRequestQueue(std::shared_ptr<RequestTransport> transport);
  std::shared_ptr<State> state_;
};

}  // namespace qel::core
