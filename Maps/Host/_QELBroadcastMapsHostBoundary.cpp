#include "Host/_QELBroadcastMapsHostBoundary.h"

namespace qel::internal {

QELBroadcastMapsHostBoundary::QELBroadcastMapsHostBoundary(QELBroadcastMapsHost::Executor executor,
                                                           QELBroadcastMapsHost::Handler handler)
    : executor_(std::move(executor)), handler_(std::move(handler)) {}

void QELBroadcastMapsHostBoundary::publish(Snapshot snapshot, std::optional<QELBroadcastMapsHostEvent> event) {
  {
    std::lock_guard lock(snapshotMutex_);
    snapshot_ = snapshot;
  }
  if (!event || !handler_ || !open_.load()) return;
  if (!executor_) {
    deliver(*event, snapshot);
    return;
  }
  // The delivery holds the boundary, not the host: it may run after the host
  // is gone, and then finds the boundary closed.
  executor_(
      [self = shared_from_this(), event = *event, snapshot = std::move(snapshot)] { self->deliver(event, snapshot); });
}

QELBroadcastMapsHost::Snapshot QELBroadcastMapsHostBoundary::snapshot() const {
  std::lock_guard lock(snapshotMutex_);
  return snapshot_;
}

void QELBroadcastMapsHostBoundary::publishStats(std::shared_ptr<const QELBroadcastMapsStats> stats) {
  std::lock_guard lock(snapshotMutex_);
  stats_ = std::move(stats);
}

std::shared_ptr<const QELBroadcastMapsStats> QELBroadcastMapsHostBoundary::stats() const {
  std::lock_guard lock(snapshotMutex_);
  return stats_ ? stats_ : std::make_shared<const QELBroadcastMapsStats>();
}

void QELBroadcastMapsHostBoundary::deliverCall(std::function<void()> call) {
  if (!open_.load()) return;
  auto run = [self = shared_from_this(), call = std::move(call)] {
    std::lock_guard lock(self->deliveryMutex_);
    if (self->open_.load()) call();
  };
  if (executor_) {
    executor_(std::move(run));
  } else {
    run();
  }
}

void QELBroadcastMapsHostBoundary::close() {
  std::lock_guard lock(deliveryMutex_);
  open_.store(false);
}

void QELBroadcastMapsHostBoundary::deliver(QELBroadcastMapsHostEvent event, const Snapshot& snapshot) {
  std::lock_guard lock(deliveryMutex_);
  if (!open_.load()) return;
  handler_(event, snapshot);
}

}  // namespace qel::internal
