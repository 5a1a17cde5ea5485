#include <QELMaps/QELBroadcastMapsHost.h>

#include "Host/_QELBroadcastMapsHostBoundary.h"
#include "Host/_QELBroadcastMapsHostThread.h"

#include <QELMaps/QELBroadcastMapsNotifications.h>

#include <qel/Format.h>
#include <qel/core/QELLogging.h>

#include <atomic>

namespace qel {

namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

// The service's process-wide state may only be used from one loop thread.
std::atomic<bool> hostAlive{false};

}  // namespace

std::unique_ptr<QELBroadcastMapsHost> QELBroadcastMapsHost::create(Options options) {
  if (hostAlive.exchange(true)) {
    core::QELLogging::log("Host not made: another one is alive in this process.", 1, kDomain);
    return nullptr;
  }
  auto boundary =
      std::make_shared<internal::QELBroadcastMapsHostBoundary>(std::move(options.executor), std::move(options.handler));
  auto thread = std::make_unique<internal::QELBroadcastMapsHostThread>(boundary, std::move(options));
  if (!thread->isReady()) {
    hostAlive.store(false);
    return nullptr;
  }
  return std::unique_ptr<QELBroadcastMapsHost>(new QELBroadcastMapsHost(std::move(boundary), std::move(thread)));
}

QELBroadcastMapsHost::QELBroadcastMapsHost(std::shared_ptr<internal::QELBroadcastMapsHostBoundary> boundary,
                                           std::unique_ptr<internal::QELBroadcastMapsHostThread> thread)
    : boundary_(std::move(boundary)), thread_(std::move(thread)) {}

QELBroadcastMapsHost::~QELBroadcastMapsHost() {
  // First no more calls into the application, then the service and thread go.
  boundary_->close();
  thread_.reset();
  hostAlive.store(false);
}

void QELBroadcastMapsHost::start() {
  thread_->post([](QELBroadcastMapsV1& service) { service.start(); });
}

void QELBroadcastMapsHost::stop() {
  thread_->post([](QELBroadcastMapsV1& service) { service.stop(); });
}

void QELBroadcastMapsHost::setCurrentResolutionWithCGSize(CGSize size) {
  thread_->post([size](QELBroadcastMapsV1& service) { service.setCurrentResolutionWithCGSize(size); });
}

void QELBroadcastMapsHost::clearCurrentResolution() {
  thread_->post([](QELBroadcastMapsV1& service) { service.setCurrentResolution(nullptr); });
}

void QELBroadcastMapsHost::networkDidChange() {
  thread_->post([](QELBroadcastMapsV1&) { internal::QELBroadcastMapsHostThread::networkDidChange(); });
}

QELBroadcastMapsHost::Snapshot QELBroadcastMapsHost::snapshot() const { return boundary_->snapshot(); }

std::shared_ptr<const QELBroadcastMapsStats> QELBroadcastMapsHost::stats() const {
  // The age as of now, not as of when the counters last changed.
  auto stats = std::make_shared<QELBroadcastMapsStats>(*boundary_->stats());
  const auto snapshot = boundary_->snapshot();  // held: the loop may publish another meanwhile
  if (snapshot->lastPicture.image) {
    stats->pictureAge = std::chrono::duration<double>(snapshot->lastPicture.age()).count();
  }
  return stats;
}

std::string_view QELBroadcastMapsHost::notificationName(QELBroadcastMapsHostEvent event) {
  switch (event) {
    case QELBroadcastMapsHostEvent::AvailableResolutionsDidChange:
      return QELBroadcastMapsAvailableResolutionsDidChangeNotification;
    case QELBroadcastMapsHostEvent::ImageDidChange:
      return QELBroadcastMapsImageDidChangeNotification;
    case QELBroadcastMapsHostEvent::ImageDidStopReceivingImage:
      return QELBroadcastMapsImageDidStopReceivingImageNotification;
    case QELBroadcastMapsHostEvent::Error:
      return QELBroadcastMapsErrorNotification;
    case QELBroadcastMapsHostEvent::ImageDidStartReceivingImage:
      return internal::QELBroadcastMapsImageDidStartReceivingImageNotification;
    case QELBroadcastMapsHostEvent::StateDidChange:
    case QELBroadcastMapsHostEvent::StatusDidChange:
      break;
  }
  return {};
}

}  // namespace qel
