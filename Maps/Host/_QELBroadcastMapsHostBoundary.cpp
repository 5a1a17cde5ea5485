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
