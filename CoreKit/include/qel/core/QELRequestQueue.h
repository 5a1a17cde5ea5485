#pragma once

#include "qel/core/QELRequest.h"
#include "qel/core/RequestTransport.h"

#include <qel/RunLoop.h>

#include <memory>

namespace qel::core {

// Runs requests first in, first out, never more than a set number at a time.
//
// A failed attempt is sent again up to the request's numberOfRetries(), after
// a short delay that grows with each try (0.5 s, 1 s, 2 s ...); the request
// keeps its place while it waits. Only then does the delegate hear of the
// failure. A finished, failed or cancelled request lets the next one start.
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

  // Delay before retry number `attempt` (1-based).
  static RunLoop::Duration retryDelay(int attempt);

 private:
  struct State;
  explicit QELRequestQueue(std::shared_ptr<RequestTransport> transport);
  std::shared_ptr<State> state_;
};

}  // namespace qel::core
