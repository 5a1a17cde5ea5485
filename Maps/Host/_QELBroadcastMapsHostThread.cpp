#include "Host/_QELBroadcastMapsHostThread.h"

#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELBroadcastMapsNotifications.h>

#include <qel/NotificationCenter.h>
#include <qel/core/QELEventManager.h>
#include <qel/core/QELLogging.h>
#include <qel/core/ResponseCache.h>
#include <qel/core/TransportMonitor.h>

#include <boost/json/serialize.hpp>

#include <cstdlib>

#include <future>
#include <string_view>

namespace qel::internal {

namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

// An observer identity for the notification centre; it does nothing itself.
class Observer : public Object {};

std::optional<QELBroadcastMapsHostEvent> eventNamed(std::string_view name) {
  using Event = QELBroadcastMapsHostEvent;
  for (auto event : {Event::AvailableResolutionsDidChange, Event::ImageDidChange, Event::ImageDidStopReceivingImage,
                     Event::Error, Event::ImageDidStartReceivingImage}) {
    if (QELBroadcastMapsHost::notificationName(event) == name) return event;
  }
  return std::nullopt;
}

// Equal in everything the application reads; the version is not compared.
bool sameState(const QELBroadcastMapsSnapshot& a, const QELBroadcastMapsSnapshot& b) {
  return a.image == b.image && a.resolutions == b.resolutions && a.currentResolution == b.currentResolution &&
         a.receiving == b.receiving && a.hasMapData == b.hasMapData && a.hasMapRecord == b.hasMapRecord &&
         a.lastPicture == b.lastPicture;
}

}  // namespace

QELBroadcastMapsHostThread::QELBroadcastMapsHostThread(std::shared_ptr<QELBroadcastMapsHostBoundary> boundary,
                                                       QELBroadcastMapsHost::Options options)
    : boundary_(std::move(boundary)), listener_(std::move(options.listener)), statsInterval_(options.statsInterval) {
  std::promise<void> started;
  auto ready = started.get_future();
  thread_ = std::thread([this, configuration = std::move(options.configuration),
                         cacheDirectory = std::move(options.cacheDirectory), watchNetwork = options.watchNetwork,
                         started = std::move(started)]() mutable {
    run(std::move(configuration), std::move(cacheDirectory), watchNetwork, [&started] { started.set_value(); });
  });
  // The members the thread sets before it says it is ready are read here
  // only after the future, which orders them.
  ready.wait();
  if (!service_) thread_.join();
}

QELBroadcastMapsHostThread::~QELBroadcastMapsHostThread() {
  if (!thread_.joinable()) return;
  // After every operation already posted: the service goes on its own thread,
  // then the loop ends.
  loop_->post([this] {
    core::QELLogging::log("Host: stopping the service.", 4, kDomain);
    networkWatcher_.reset();
    NotificationCenter::defaultCenter().removeObserver(observer_.get());
    core::TransportMonitor::current().removeObserver(status_.get());
    status_.reset();
    core::TransportMonitor::current().removeObserver(stats_.get());
    stats_.reset();
    if (statsTimer_) statsTimer_->cancel();
    if (cache_) {
      core::TransportMonitor::current().removeObserver(cache_.get());
      core::ResponseCache::setCurrent(nullptr);
      cache_.reset();
    }
    service_->stop();
    service_.reset();
    loop_->stop();
  });
  // The loop and its io_context go with the thread: the thread may end only
  // once post() has returned, not merely once the stop has run.
  stopPosted_.set_value();
  thread_.join();
}

void QELBroadcastMapsHostThread::post(std::function<void(QELBroadcastMapsV1&)> operation) {
  loop_->post([this, operation = std::move(operation)] {
    operation(*service_);
    restoreChosenSize();
    publish(std::nullopt);
  });
}

void QELBroadcastMapsHostThread::run(std::optional<core::QELConfiguration> configuration,
                                     std::optional<std::filesystem::path> cacheDirectory, bool watchNetwork,
                                     std::function<void()> ready) {
  threadChecker_ = std::make_unique<ThreadChecker>();
  auto& loop = RunLoop::current();
  loop_ = &loop;
  if (configuration) core::QELConfiguration::set(*configuration);
  service_ = QELBroadcastMapsV1::create();
  if (!service_) {
    core::QELLogging::log("Host: the map service could not be made.", 1, kDomain);
    ready();
    return;
  }
  // Before the first snapshot, which carries the status.
  status_ = std::make_shared<QELBroadcastMapsHostStatus>(service_, [this] { publish(std::nullopt); });
  core::TransportMonitor::current().addObserver(status_);
  openCache(std::move(cacheDirectory));
  startStats();
  observer_ = std::make_shared<Observer>();
  NotificationCenter::defaultCenter().addObserver(
      observer_, [this](const Notification& notification) { notificationReceived(notification); }, {}, service_);
  if (watchNetwork) networkWatcher_ = core::net::NetworkWatcher::create(&QELBroadcastMapsHostThread::networkDidChange);
  publish(std::nullopt);
  ready();
  loop.run();
  stopPosted_.get_future().wait();
}

void QELBroadcastMapsHostThread::networkDidChange() {
  if (auto* transport = core::QELEventManager::defaultManager().transport()) transport->networkChanged();
}

void QELBroadcastMapsHostThread::notificationReceived(const Notification& notification) {
  threadChecker_->check();
  const auto event = eventNamed(notification.name());
  if (!event) return;
  // Always a new snapshot: the handler of this notification must find the
  // state it announces, even when an earlier one already showed it.
  auto snapshot = makeSnapshot();
  snapshot.version = published_->version + 1;
  const bool statusChanged = snapshot.status != published_->status;
  published_ = std::make_shared<const QELBroadcastMapsSnapshot>(std::move(snapshot));
  boundary_->publish(published_, event);
  if (stats_) stats_->published(*published_);
  if (statusChanged) announceStatus();
}

void QELBroadcastMapsHostThread::publish(std::optional<QELBroadcastMapsHostEvent> event) {
  threadChecker_->check();
  auto snapshot = makeSnapshot();
  const bool stateChanged = !published_ || !sameState(*published_, snapshot);
  const bool statusChanged = !published_ || published_->status != snapshot.status;
  if (!stateChanged && !statusChanged) return;
  snapshot.version = published_ ? published_->version + 1 : 1;
  published_ = std::make_shared<const QELBroadcastMapsSnapshot>(std::move(snapshot));
  // The first snapshot is there to be read, not announced.
  if (published_->version == 1) return boundary_->publish(published_, std::nullopt);
  // A change made by a call is announced as such, a change of status as its
  // own event after it.
  if (!stateChanged) return boundary_->publish(published_, QELBroadcastMapsHostEvent::StatusDidChange);
  boundary_->publish(published_, event.value_or(QELBroadcastMapsHostEvent::StateDidChange));
  if (stats_) stats_->published(*published_);
  if (statusChanged) announceStatus();
}

void QELBroadcastMapsHostThread::announceStatus() {
  // A delivery of its own, and a version of its own: every delivery's
  // snapshot is newer than the one before.
  auto snapshot = *published_;
  ++snapshot.version;
  published_ = std::make_shared<const QELBroadcastMapsSnapshot>(std::move(snapshot));
  boundary_->publish(published_, QELBroadcastMapsHostEvent::StatusDidChange);
}

void QELBroadcastMapsHostThread::openCache(std::optional<std::filesystem::path> directory) {
  if (!directory) {
    const char* fromEnvironment = std::getenv("QEL_CACHE_DIR");
    if (fromEnvironment && *fromEnvironment) directory = fromEnvironment;
  }
  if (!directory) return;
  cache_ = QELBroadcastMapsHostCache::open(*directory, [this] {
    QELBroadcastMapsHostCache::Shown shown;
    shown.image = service_->mapImage();
    shown.source = service_->broadcastMaps()->lastKnownImageURL();
    if (const auto& record = service_->broadcastMaps()->mapInfo()) shown.record = boost::json::serialize(*record);
    // The service's notification of it may still be on its way: the last
    // picture takes it now, so that the entry and the snapshot agree on when.
    lastPicture_.follow(shown.image, shown.source);
    shown.receivedAt = lastPicture_.receivedAt();
    return shown;
  });
  if (!cache_) return;
  core::ResponseCache::setCurrent(cache_);
  core::TransportMonitor::current().addObserver(cache_);
  // Before the first snapshot: the application's first look finds the map.
  if (auto entry = cache_->newest()) lastPicture_.restore(entry->image, entry->source, entry->receivedAt);
}

void QELBroadcastMapsHostThread::startStats() {
  std::function<void(const QELBroadcastMapsTrace&)> traced;
  if (listener_) {
    traced = [this](const QELBroadcastMapsTrace& trace) {
      boundary_->deliverCall([listener = listener_, trace] { listener->pictureTraced(trace); });
    };
  }
  stats_ = std::make_shared<QELBroadcastMapsHostStats>(service_, std::move(traced), [this] { publishStats(); });
  core::TransportMonitor::current().addObserver(stats_);
  if (listener_ && statsInterval_ > std::chrono::milliseconds::zero()) {
    statsTimer_ = loop_->schedule(statsInterval_, [this] { reportStats(); });
  }
}

void QELBroadcastMapsHostThread::publishStats() {
  if (!stats_ || !published_) return;
  boundary_->publishStats(std::make_shared<const QELBroadcastMapsStats>(stats_->stats(*published_)));
}

void QELBroadcastMapsHostThread::reportStats() {
  publishStats();
  boundary_->deliverCall([listener = listener_, stats = boundary_->stats()] { listener->statsReported(*stats); });
  statsTimer_ = loop_->schedule(statsInterval_, [this] { reportStats(); });
}

void QELBroadcastMapsHostThread::restoreChosenSize() {
  if (!cache_ || !lastPicture_.fromCache() || service_->mapImage()) return;
  const auto chosen = service_->currentResolution();
  if (!chosen) return;
  const auto size = chosen->CGSize();
  const auto& shown = lastPicture_.image();
  if (shown && shown->width() == static_cast<std::size_t>(size.width) &&
      shown->height() == static_cast<std::size_t>(size.height)) {
    return;
  }
  if (auto entry = cache_->entryFor(static_cast<int>(size.width), static_cast<int>(size.height))) {
    lastPicture_.restore(entry->image, entry->source, entry->receivedAt);
  }
}

QELBroadcastMapsSnapshot QELBroadcastMapsHostThread::makeSnapshot() {
  QELBroadcastMapsSnapshot snapshot;
  snapshot.image = service_->mapImage();
  snapshot.hasMapRecord = service_->broadcastMaps()->mapInfo() != nullptr;
  if (const auto resolutions = service_->availableResolutions()) {
    snapshot.resolutions.reserve(resolutions->size());
    for (const auto& resolution : *resolutions) snapshot.resolutions.push_back(resolution->CGSize());
    snapshot.hasMapData = !snapshot.resolutions.empty();
  }
  if (const auto current = service_->currentResolution()) snapshot.currentResolution = current->CGSize();
  snapshot.receiving = service_->broadcastMaps()->shouldDownloadImages();
  snapshot.status = status_->compose({snapshot.receiving, core::QELEventManager::defaultManager().isConnected(),
                                      snapshot.hasMapData, snapshot.hasMapRecord});
  const auto& source = service_->broadcastMaps()->lastKnownImageURL();
  lastPicture_.follow(snapshot.image, source);
  snapshot.lastPicture = lastPicture_.compose(snapshot.status.phase == QELBroadcastMapsStatus::Phase::Live,
                                              snapshot.image, source);
  return snapshot;
}

}  // namespace qel::internal
