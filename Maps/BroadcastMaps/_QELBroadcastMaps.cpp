#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELBroadcastMapsNotifications.h>

#include <qel/Format.h>
#include <qel/core/QELEventManager.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>
#include <qel/core/QELNotifications.h>

#include <algorithm>
#include <string_view>

namespace qel::internal {

using core::QELLogging;

namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);
constexpr std::string_view kMapInfoKeyPath = "mapInfo";

// Lazily made, released with the last engine, never destroyed at exit (where
// a service kept in a static may still cancel its download through it): one
// image download at a time for every engine of the process, so that several
// services never compete for the cabin link. It posts to the loop it was made
// on, and goes once that loop has ended.
struct SharedImageQueue {
  std::shared_ptr<core::QELRequestQueue> queue;
  std::weak_ptr<const void> loop;
};

SharedImageQueue& sharedImageQueue() {
  static auto* const shared = new SharedImageQueue;
  if (shared->loop.expired()) shared->queue.reset();
  return *shared;
}

// The entry's field, or none. A walk: an image object has a handful of
// fields, and walking them costs less than the object's own lookup.
const boost::json::value* fieldOf(const boost::json::object& entry, std::string_view name) {
  if (entry.size() > 8) return entry.if_contains(name);
  for (const auto& field : entry) {
    if (field.key() == name) return &field.value();
  }
  return nullptr;
}

// A size as the engine compares it: through single precision, the way the
// record's values are read, so a listed resolution always matches its entry.
CGFloat entrySize(const boost::json::object& entry, std::string_view field) {
  return static_cast<CGFloat>(floatValue(fieldOf(entry, field)));
}

const boost::json::object& entryAt(const boost::json::value& value) {
  static const boost::json::object kEmpty;
  const auto* entry = value.if_object();
  return entry ? *entry : kEmpty;
}

// Announces a post. The line is the one of the logging statement itself,
// wherever the formatter breaks it, so that operators land on the call.
// (std::source_location would do, but clang 14 cannot build it with this
// standard library; both compilers give the caller's line here.)
void logPosting(std::string_view format, int line = __builtin_LINE()) {
  QELLogging::log(format, 3, kDomain, kDomain, line);
}

// The entry's image source; a "src" that is not text counts as none.
std::optional<std::string> sourceOf(const boost::json::object& entry) {
  const auto* src = fieldOf(entry, "src");
  if (!src || !src->is_string()) return std::nullopt;
  return std::string(src->get_string());
}

// The record's keys in its own order; none without a record.
std::optional<QELBroadcastMaps::KeyList> keyList(const MapInfo& record) {
  if (!record) return std::nullopt;
  QELBroadcastMaps::KeyList keys;
  keys.reserve(record->size());
  for (const auto& item : *record) keys.emplace_back(item.key());
  return keys;
}

// Whether the record lists exactly these keys, in this order.
bool hasKeys(const boost::json::object& record, const QELBroadcastMaps::KeyList& keys) {
  return std::equal(record.begin(), record.end(), keys.begin(), keys.end(),
                    [](const auto& item, const std::string& key) { return item.key() == key; });
}

}  // namespace

// MARK: - Creation and teardown

std::shared_ptr<QELBroadcastMaps> QELBroadcastMaps::create() {
  auto engine = std::shared_ptr<QELBroadcastMaps>(new QELBroadcastMaps);
  return engine->init() ? engine : nullptr;
}

std::shared_ptr<core::QELRequestQueue> QELBroadcastMaps::requestQueue() {
  auto& shared = sharedImageQueue();
  if (!shared.queue) {
    shared.queue = core::QELRequestQueue::create();
    shared.queue->setMaxConcurrentOperationCount(1);
    shared.loop = RunLoop::current().lifetime();
  }
  return shared.queue;
}

bool QELBroadcastMaps::init() {
  mapImage_ = nullptr;
  currentResolution_ = nullptr;
  broadcastMapsController_ = QELBroadcastMapsController::defaultController();
  QELBroadcastMapsController::own();
  setInitialsValue();
  addObservers();
  // From any sender: whoever announces that it stopped receiving makes this
  // engine stand down too.
  auto self = sharedFrom(this);
  core::qelInternalCenter().addObserver(
      self, [raw = this](const Notification& notification) { raw->autoStop(notification); },
      QELBroadcastMapsImageDidStopReceivingImageNotification);
  return true;
}

QELBroadcastMaps::~QELBroadcastMaps() {
  QELLogging::log("%s called.", 5, kDomain, "-[_QELBroadcastMaps dealloc]");
  removeObservers();
  QELBroadcastMapsController::free();
  if (imageRequest_) imageRequest_->cancel();
  // A queue posts to the loop it was made on, and the next service may live
  // on another thread (a host's, after this one's thread ended): the last
  // engine lets go of it, as the controller does of its own.
  if (QELBroadcastMapsController::ownersCount() == 0) sharedImageQueue().queue.reset();
  // The stop-notification registration goes with the engine: the centre holds
  // its observers weakly. A pending retry timer cannot be left: it keeps its
  // target alive until it fires or is invalidated.
}

void QELBroadcastMaps::post(const char* name) {
  core::qelInternalCenter().postNotificationName(name, shared_from_this());
}

// MARK: - Resolutions and the image source

void QELBroadcastMaps::setInitialsValue() {
  mapInfo_ = broadcastMapsController_->mapInfo();
  // Not started yet: this only clears what there is to clear.
  downloadImage();
}

std::optional<QELBroadcastMaps::ResolutionList> QELBroadcastMaps::availableResolutions() const {
  // One record per entry, in the record's order, neither sorted nor
  // filtered: the application sees exactly what the server lists.
  ResolutionList resolutions;
  if (mapInfo_) {
    resolutions.reserve(mapInfo_->size());
    for (const auto& item : *mapInfo_) {
      const auto& entry = entryAt(item.value());
      auto resolution = QELBroadcastMapsResolution::create();
      resolution->setWidth(entrySize(entry, "width"));
      resolution->setHeight(entrySize(entry, "height"));
      resolutions.push_back(std::move(resolution));
    }
  }
  if (resolutions.empty()) return std::nullopt;
  return resolutions;
}

void QELBroadcastMaps::setCurrentResolutionWithCGSize(CGSize size) {
  setCurrentResolution(QELBroadcastMapsResolution::create());
  currentResolution()->setWidth(size.width);
  currentResolution()->setHeight(size.height);
}

std::optional<std::string> QELBroadcastMaps::imageURLForResolution() const {
  if (!mapInfo_ || mapInfo_->empty()) return std::nullopt;
  const auto& firstEntry = entryAt(mapInfo_->begin()->value());

  std::optional<std::string> candidate;
  if (!currentResolution_) {
    QELLogging::log("%s image resolution not set. Setting first resolution", 4, kDomain,
                    "-[_QELBroadcastMaps imageURLForResolution]");
    candidate = sourceOf(firstEntry);
  } else if (const auto* known = knownMatch()) {
    if (*known) candidate = sourceOf(**known);
  } else {
    const boost::json::object* match = nullptr;
    // Exact comparison, no tolerance: the first entry of this size wins.
    for (const auto& item : *mapInfo_) {
      const auto& entry = entryAt(item.value());
      if (entrySize(entry, "width") != currentResolution_->width()) continue;
      if (entrySize(entry, "height") == currentResolution_->height()) {
        candidate = sourceOf(entry);
        match = &entry;
        break;
      }
    }
    rememberMatch(match);
  }
  if (candidate) return candidate;

  // The choice is left as it is: when the server lists the size again, the
  // engine finds it again. Until then each call falls back, and says so.
  QELLogging::log("%s image resolution not found. Setting first resolution", 4, kDomain,
                  "-[_QELBroadcastMaps imageURLForResolution]");
  return sourceOf(firstEntry);
}

// A record never changes, so the same record and the same chosen size give
// the same match: a decision asks twice (once to compare, once to download)
// and only the first walks the record. The record is watched weakly, so that
// a new record at a freed one's address is never taken for it.
const boost::json::object* const* QELBroadcastMaps::knownMatch() const {
  const auto& known = knownMatch_;
  if (known.recordAddress != mapInfo_.get() || known.record.expired()) return nullptr;
  if (known.width != currentResolution_->width() || known.height != currentResolution_->height()) {
    return nullptr;
  }
  return &known.entry;
}

void QELBroadcastMaps::rememberMatch(const boost::json::object* entry) const {
  knownMatch_ = {mapInfo_, mapInfo_.get(), currentResolution_->width(),
                 currentResolution_->height(), entry};
}

// MARK: - Reception

void QELBroadcastMaps::start() {
  threadChecker_.check();
  logPosting("[%@ %d] Posting notification: _QELBroadcastMapsImageDidStartReceivingImageNotification.");
  post(QELBroadcastMapsImageDidStartReceivingImageNotification);
  shouldDownloadImages_ = true;
  downloadImage();
}

void QELBroadcastMaps::stop() {
  threadChecker_.check();
  if (retryTimer_) retryTimer_->invalidate();
  retryTimer_ = nullptr;
  shouldDownloadImages_ = false;
  if (imageRequest_) imageRequest_->cancel();
  imageRequest_ = nullptr;
}

void QELBroadcastMaps::autoStop(const Notification& notification) {
  if (notification.sender().get() == this) return;
  stop();
  logPosting("[%@ %d] Posting notification: QELBroadcastMapsImageDidStopReceivingImageNotification.");
  post(QELBroadcastMapsImageDidStopReceivingImageNotification);
}

void QELBroadcastMaps::downloadImage() {
  threadChecker_.check();
  QELLogging::log("%s called.", 4, kDomain, "-[_QELBroadcastMaps downloadImage]");
  // Whatever was under way is superseded, also when nothing new starts.
  if (imageRequest_) {
    imageRequest_->cancel();
    imageRequest_ = nullptr;
  }
  if (retryTimer_) {
    retryTimer_->invalidate();
    retryTimer_ = nullptr;
  }
  if (!shouldDownloadImages_) {
    QELLogging::log("%s Do not download images is set.", 4, kDomain,
                    "-[_QELBroadcastMaps downloadImage]");
    return;
  }
  if (!mapInfo_ || mapInfo_->empty()) {
    QELLogging::log("%s No map data.", 4, kDomain, "-[_QELBroadcastMaps downloadImage]");
    setMapImage(nullptr);
    return;
  }
  auto url = imageURLForResolution();
  if (!url) {
    QELLogging::log("%s no image url. Should not happen.", 4, kDomain,
                    "-[_QELBroadcastMaps downloadImage]");
    return;
  }
  lastKnownImageURL_ = url;
  imageRequest_ = core::QELImageDownloadRequest::initWithImageURL(std::move(*url), sharedFrom(this));
  requestQueue()->addRequest(imageRequest_);
}

void QELBroadcastMaps::setMapImage(std::shared_ptr<const Image> mapImage) {
  auto old = std::exchange(mapImage_, std::move(mapImage));
  mapImageBytes_.clear();
  // Announced only when the picture itself differs: a download of the same
  // map is not news for the application.
  if (mapImage_ && old && (mapImage_ == old || *mapImage_ == *old)) return;
  if (!mapImage_ && !old) return;
  logPosting("[%@ %d] Posting notification: QELBroadcastMapsImageDidChangeNotification.");
  post(QELBroadcastMapsImageDidChangeNotification);
}

void QELBroadcastMaps::requestDidFinish(const std::shared_ptr<core::QELRequest>&, const Data& data) {
  threadChecker_.check();
  QELLogging::log("%s called.", 4, kDomain, "-[_QELBroadcastMaps requestDidFinish:withData:]");
  // The shown picture's own bytes cannot decode to anything else: no decode,
  // and nothing changes.
  if (mapImage_ && data == mapImageBytes_) return;
  // Bytes that do not decode clear the picture: showing a stale map as if it
  // were current would be worse.
  const std::uint64_t budget = *core::QELConfiguration::effective().maxPixels;
  Image::Refusal refusal;
  auto image = Image::fromData(data, budget, &refusal);
  if (refusal.overBudget) {
    QELLogging::log("%s Picture refused: its header declares %dx%d pixels, more than the %d allowed.", 1, kDomain,
                    "-[_QELBroadcastMaps requestDidFinish:withData:]", refusal.width, refusal.height, budget);
  }
  const bool decoded = image != nullptr;
  setMapImage(std::move(image));
  if (decoded) mapImageBytes_ = data;
}

void QELBroadcastMaps::requestDidFail(const std::shared_ptr<core::QELRequest>&, const Error&) {
  threadChecker_.check();
  QELLogging::log("%s called.", 4, kDomain, "-[_QELBroadcastMaps requestDidFail:withError:]");
  if (retryTimer_) retryTimer_->invalidate();
  // Without the event channel the cabin server is out of reach; the next
  // start or the next record brings a fresh attempt instead.
  if (!core::QELEventManager::defaultManager().isConnected()) return;
  QELLogging::log("%s Retrying...", 4, kDomain, "-[_QELBroadcastMaps requestDidFail:withError:]");
  retryTimer_ = Timer::scheduledTimer(kRetryInterval, sharedFrom(this), &QELBroadcastMaps::downloadImage,
                                      false);
}

// MARK: - Following the controller's record

void QELBroadcastMaps::addObservers() {
  QELLogging::log("%s called.", 5, kDomain, "-[_QELBroadcastMaps addObservers]");
  broadcastMapsController_->addObserver(sharedFrom(this), kMapInfoKeyPath,
                                        KeyValueObservingOptions::New, nullptr);
}

void QELBroadcastMaps::removeObservers() {
  QELLogging::log("%s called.", 5, kDomain, "-[_QELBroadcastMaps removeObservers]");
  broadcastMapsController_->removeObserver(this, kMapInfoKeyPath);
}

void QELBroadcastMaps::observeValueForKeyPath(const std::string& keyPath, const Object*,
                                              const KeyValueChange&, void*) {
  if (keyPath != kMapInfoKeyPath) return;
  threadChecker_.check();
  mapInfo_ = broadcastMapsController_->mapInfo();

  // Resolutions: the key list in the record's own order. A different order
  // counts as a change, and two missing lists do not. The list is made only
  // when it is news.
  const bool sameKeys = mapInfo_ && lastKnownResolutions_ && hasKeys(*mapInfo_, *lastKnownResolutions_);
  if (!sameKeys && (mapInfo_ || lastKnownResolutions_)) {
    lastKnownResolutions_ = keyList(mapInfo_);
    logPosting("[%@ %d] Posting notification: QELBroadcastMapsAvailableResolutionsDidChangeNotification.");
    post(QELBroadcastMapsAvailableResolutionsDidChangeNotification);
  }

  // The image: download when the source for the chosen resolution moved.
  // lastKnownImageURL is never cleared, so a source that comes back after the
  // data was lost counts as unchanged.
  const auto url = imageURLForResolution();
  const bool sameURL = lastKnownImageURL_ && url && *lastKnownImageURL_ == *url;
  if (!sameURL) {
    if (lastKnownImageURL_) {
      downloadImage();
    } else if (imageURLForResolution()) {
      downloadImage();
    }
  }

  // Last, after any resolutions and image news of the same change.
  if (!broadcastMapsController_->mapInfo()) {
    logPosting("[%@ %d] Posting notification: QELBroadcastMapsErrorNotification.");
    post(QELBroadcastMapsErrorNotification);
  }
}

}  // namespace qel::internal
