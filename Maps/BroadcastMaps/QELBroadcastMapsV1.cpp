#include <QELMaps/QELBroadcastMapsV1.h>

#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <qel/Format.h>
#include <qel/Log.h>
#include <qel/NotificationQueue.h>
#include <qel/core/QELNotifications.h>

namespace qel {

// MARK: - QELBroadcastMapsResolution

std::shared_ptr<QELBroadcastMapsResolution> QELBroadcastMapsResolution::create() {
  return std::shared_ptr<QELBroadcastMapsResolution>(new QELBroadcastMapsResolution);
}

QELBroadcastMapsResolution::QELBroadcastMapsResolution() {
  setWidth(0.0);
  setHeight(0.0);
}

// MARK: - QELBroadcastMapsV1

std::string QELBroadcastMapsV1::serviceVersion() { return "03.19.02.00"; }

std::shared_ptr<QELBroadcastMapsV1> QELBroadcastMapsV1::create() {
  auto service = std::shared_ptr<QELBroadcastMapsV1>(new QELBroadcastMapsV1);
  return service->init() ? service : nullptr;
}

bool QELBroadcastMapsV1::init() {
  if (!SkelionService::init()) return false;
  broadcastMaps_ = internal::QELBroadcastMaps::create();
  if (!broadcastMaps_) return false;
  // Every name, but only from this service's own engine.
  core::qelInternalCenter().addObserver(
      sharedFrom(this),
      [raw = this](const Notification& notification) { raw->eventReceived(notification); }, {},
      broadcastMaps_);
  return true;
}

QELBroadcastMapsV1::~QELBroadcastMapsV1() {
  // No stop(): the engine goes with the service and cleans up after itself.
  core::qelInternalCenter().removeObserver(this);
}

void QELBroadcastMapsV1::eventReceived(const Notification& notification) {
  // Re-posted once the engine's callout has ended, with the service as the
  // sender the application knows.
  core::qel_enqueueNotificationName(NotificationQueue::defaultQueue(), notification.name(),
                                    shared_from_this(), notification.userInfo(),
                                    PostingStyle::PostASAP);
}

std::optional<std::vector<std::shared_ptr<QELBroadcastMapsResolution>>>
QELBroadcastMapsV1::availableResolutions() const {
  return broadcastMaps_->availableResolutions();
}

void QELBroadcastMapsV1::setCurrentResolution(const std::shared_ptr<Object>& resolution) {
  auto record = std::dynamic_pointer_cast<QELBroadcastMapsResolution>(resolution);
  if (resolution && !record) {
    const std::string description =
        stringWithFormat("Invalid parameter not satisfying: %s",
                         "!resolution || [resolution isKindOfClass:[QELBroadcastMapsResolution class]]");
    const std::string reason = stringWithFormat(
        "Assertion failed with expression (%s) in %@:%i %s. %@",
        "(!resolution || [resolution isKindOfClass:[QELBroadcastMapsResolution class]])",
        lastPathComponent(__FILE__), 41, "-[QELBroadcastMapsV1 setCurrentResolution:]", description);
    NSLog("Description: %@", description);
    NSLog("Reason: %@", reason);
    throw InternalInconsistencyException(reason);
  }
  broadcastMaps_->setCurrentResolution(std::move(record));
}

void QELBroadcastMapsV1::setCurrentResolutionWithCGSize(::qel::CGSize size) {
  broadcastMaps_->setCurrentResolutionWithCGSize(size);
}

std::shared_ptr<QELBroadcastMapsResolution> QELBroadcastMapsV1::currentResolution() const {
  return broadcastMaps_->currentResolution();
}

std::shared_ptr<const Image> QELBroadcastMapsV1::mapImage() const { return broadcastMaps_->mapImage(); }

void QELBroadcastMapsV1::start() { broadcastMaps_->start(); }

void QELBroadcastMapsV1::stop() { broadcastMaps_->stop(); }

}  // namespace qel
