#include <QELMapsQt/QtBroadcastMaps.h>

#include <QMetaObject>
#include <chrono>
#include <cmath>
#include <limits>
#include <utility>

namespace qel {

namespace {

// A QImage over the decoded RGBA rows; the QImage's cleanup releases the
// reference it holds, so the pixels live as long as the last copy of it.
QImage sharedImage(const std::shared_ptr<const Image>& image) {
  if (!image) return {};
  const auto width = static_cast<int>(image->width());
  const auto height = static_cast<int>(image->height());
  return QImage(
      image->pixels().data(), width, height, qsizetype(width) * 4, QImage::Format_RGBA8888,
      [](void* kept) { delete static_cast<std::shared_ptr<const Image>*>(kept); },
      new std::shared_ptr<const Image>(image));
}

// Rounded to the nearest int, or the nearest end of int's range: converting
// a double beyond it, as a server can make one, is undefined.
int wholePixels(CGFloat value) {
  if (std::isnan(value)) return 0;
  const double rounded = std::round(value);
  if (rounded >= double(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (rounded <= double(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(rounded);
}

}  // namespace

QSize QtBroadcastMaps::pixelSize(CGSize size) { return {wholePixels(size.width), wholePixels(size.height)}; }

QtBroadcastMaps::QtBroadcastMaps(QObject* parent) : QtBroadcastMaps(Options{}, parent) {}

QtBroadcastMaps::QtBroadcastMaps(const Options& settings, QObject* parent) : QObject(parent) {
  QELBroadcastMapsHost::Options options;
  options.watchNetwork = settings.watchNetwork;
  // Runs each delivery on this object's thread. A call still queued when the
  // object goes is dropped by Qt, and the host calls nothing once destroyed.
  options.executor = [this](QELBroadcastMapsHost::Task task) {
    QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection);
  };
  options.handler = [this](QELBroadcastMapsHostEvent event, QELBroadcastMapsHost::Snapshot snapshot) {
    apply(event, std::move(snapshot));
  };
  host_ = QELBroadcastMapsHost::create(std::move(options));
  snapshot_ = host_ ? host_->snapshot() : std::make_shared<const QELBroadcastMapsSnapshot>();
  image_ = sharedImage(snapshot_->image);
  lastImage_ = sharedImage(snapshot_->lastPicture.image);
}

QtBroadcastMaps::~QtBroadcastMaps() = default;

QList<QSize> QtBroadcastMaps::resolutions() const {
  QList<QSize> sizes;
  sizes.reserve(static_cast<qsizetype>(snapshot_->resolutions.size()));
  for (const CGSize& size : snapshot_->resolutions) sizes.append(pixelSize(size));
  return sizes;
}

QSize QtBroadcastMaps::resolution() const {
  return snapshot_->currentResolution ? pixelSize(*snapshot_->currentResolution) : QSize();
}

static_assert(static_cast<int>(QtBroadcastMaps::Phase::NoMapData) ==
                  static_cast<int>(QELBroadcastMapsStatus::Phase::NoMapData),
              "the Qt phases are the host's");

QString QtBroadcastMaps::statusText() const { return QString::fromStdString(snapshot_->status.describe()); }

QDateTime QtBroadcastMaps::lastImageReceivedAt() const {
  if (!snapshot_->lastPicture.image) return {};
  return QDateTime::fromMSecsSinceEpoch(std::chrono::duration_cast<std::chrono::milliseconds>(
                                            snapshot_->lastPicture.receivedAt.time_since_epoch())
                                            .count());
}

QDateTime QtBroadcastMaps::nextAttempt() const {
  const auto& next = snapshot_->status.nextAttempt;
  if (!next) return {};
  return QDateTime::fromMSecsSinceEpoch(
      std::chrono::duration_cast<std::chrono::milliseconds>(next->time_since_epoch()).count());
}

void QtBroadcastMaps::start() {
  if (host_) host_->start();
}

void QtBroadcastMaps::networkChanged() {
  if (host_) host_->networkDidChange();
}

void QtBroadcastMaps::stop() {
  if (host_) host_->stop();
}

void QtBroadcastMaps::setResolution(QSize size) {
  if (!host_) return;
  if (size.isEmpty())
    host_->clearCurrentResolution();
  else
    host_->setCurrentResolutionWithCGSize({CGFloat(size.width()), CGFloat(size.height())});
}

void QtBroadcastMaps::apply(QELBroadcastMapsHostEvent event, QELBroadcastMapsHost::Snapshot snapshot) {
  // Deliveries queued before construction read the first snapshot carry
  // nothing newer than it.
  if (snapshot->version < snapshot_->version) return;
  const auto previous = std::exchange(snapshot_, std::move(snapshot));
  // Signals follow what changed rather than the event's name: one delivery
  // may carry several changes, and a handler sees the new state whole.
  if (snapshot_->image != previous->image) {
    image_ = sharedImage(snapshot_->image);
    emit imageChanged(image_);
  }
  if (snapshot_->lastPicture.image != previous->lastPicture.image) {
    lastImage_ = snapshot_->lastPicture.image == snapshot_->image ? image_ : sharedImage(snapshot_->lastPicture.image);
    emit lastImageChanged(lastImage_);
  }
  if (snapshot_->lastPicture.stale != previous->lastPicture.stale) emit staleChanged(snapshot_->lastPicture.stale);
  if (snapshot_->resolutions != previous->resolutions) emit resolutionsChanged(resolutions());
  if (snapshot_->currentResolution != previous->currentResolution) emit resolutionChanged(resolution());
  if (snapshot_->receiving != previous->receiving) emit receivingChanged(snapshot_->receiving);
  if (snapshot_->hasMapData != previous->hasMapData) emit hasMapDataChanged(snapshot_->hasMapData);
  if (snapshot_->status != previous->status) emit statusChanged();
  if (event == QELBroadcastMapsHostEvent::Error) emit noMapData();
}

}  // namespace qel
