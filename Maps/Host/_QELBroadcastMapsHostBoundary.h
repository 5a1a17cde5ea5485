#pragma once

#include <QELMaps/QELBroadcastMapsHost.h>
#include <QELMaps/QELBroadcastMapsTrace.h>

#include <functional>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

namespace qel::internal {

// The one place where the host's loop thread meets the application's
// threads: the latest snapshot, and the deliveries of changes to the
// application's handler.
//
// The loop thread publishes; any thread reads snapshot() under a mutex held
// only to copy a pointer. Each delivery keeps the boundary alive and checks,
// under the delivery mutex, that the boundary is still open before it calls
// the handler; close() takes the same mutex, so a delivery running on
// another thread ends before close() returns, and none calls afterwards.
// The mutex is recursive so that a handler may close the boundary (destroy
// the host) from within its own delivery.
//
// Threading: publish() on the loop thread; everything else from any thread.
//
//   auto boundary = std::make_shared<QELBroadcastMapsHostBoundary>(executor,
//   handler); boundary->publish(snapshot,
//   QELBroadcastMapsHostEvent::ImageDidChange);  // loop thread
//   boundary->close();  // application thread, before the host goes
class QELBroadcastMapsHostBoundary : public std::enable_shared_from_this<QELBroadcastMapsHostBoundary> {
 public:
  using Snapshot = QELBroadcastMapsHost::Snapshot;

  QELBroadcastMapsHostBoundary(QELBroadcastMapsHost::Executor executor, QELBroadcastMapsHost::Handler handler);
  QELBroadcastMapsHostBoundary(const QELBroadcastMapsHostBoundary&) = delete;
  QELBroadcastMapsHostBoundary& operator=(const QELBroadcastMapsHostBoundary&) = delete;

  // Makes `snapshot` the latest and, with an event, hands both to the
  // handler through the executor (or calls it here, without one).
  void publish(Snapshot snapshot, std::optional<QELBroadcastMapsHostEvent> event);
  Snapshot snapshot() const;

  // The latest stats, published by the loop thread, read from any.
  void publishStats(std::shared_ptr<const QELBroadcastMapsStats> stats);
  std::shared_ptr<const QELBroadcastMapsStats> stats() const;
  // Runs `call` as a delivery: through the executor (or here, without
  // one), and not at all once closed.
  void deliverCall(std::function<void()> call);

  // No call of the handler starts after this; one running on another thread
  // has ended when this returns.
  void close();

 private:
  void deliver(QELBroadcastMapsHostEvent event, const Snapshot& snapshot);

  const QELBroadcastMapsHost::Executor executor_;
  const QELBroadcastMapsHost::Handler handler_;

  mutable std::mutex snapshotMutex_;
  Snapshot snapshot_;  // guarded by snapshotMutex_
  std::shared_ptr<const QELBroadcastMapsStats> stats_;  // guarded by snapshotMutex_

  std::recursive_mutex deliveryMutex_;
  // Written under deliveryMutex_; read without it only to skip work that
  // would be refused anyway.
  std::atomic<bool> open_{true};
};

}  // namespace qel::internal
