#pragma once

#include <QELMaps/QELBroadcastMapsHost.h>

#include <QDateTime>
#include <QImage>
#include <QList>
#include <QObject>
#include <QSize>
#include <memory>

namespace qel {

// The broadcast moving map as a QObject: properties to bind, signals to
// connect, slots to call. The service runs on a thread of its own (a
// QELBroadcastMapsHost); every change reaches this object as a queued call
// on the thread it lives on, so handlers may touch widgets directly.
//
// imageChanged() carries a QImage over the decoded pixels themselves, not a
// copy; it keeps the picture alive for as long as any copy of the QImage
// exists. Painting it is free; writing to it makes Qt copy it first.
//
// Threading: a QObject; use it on the thread it lives on. The cabin server's
// address comes from qel::core::QELConfiguration, set before construction.
// One per process (the host allows one); isValid() says whether it started.
//
//   qel::QtBroadcastMaps maps;
//   QObject::connect(&maps, &qel::QtBroadcastMaps::imageChanged, label,
//                    [label](const QImage& map) { label->setPixmap(QPixmap::fromImage(map)); });
//   maps.setResolution({1024, 768});
//   maps.start();
class QtBroadcastMaps : public QObject {
  Q_OBJECT
  Q_PROPERTY(QImage image READ image NOTIFY imageChanged)
  Q_PROPERTY(QImage lastImage READ lastImage NOTIFY lastImageChanged)
  Q_PROPERTY(QDateTime lastImageReceivedAt READ lastImageReceivedAt NOTIFY lastImageChanged)
  Q_PROPERTY(bool stale READ isStale NOTIFY staleChanged)
  Q_PROPERTY(QList<QSize> resolutions READ resolutions NOTIFY resolutionsChanged)
  Q_PROPERTY(QSize resolution READ resolution WRITE setResolution NOTIFY resolutionChanged)
  Q_PROPERTY(bool receiving READ isReceiving NOTIFY receivingChanged)
  Q_PROPERTY(bool hasMapData READ hasMapData NOTIFY hasMapDataChanged)
  Q_PROPERTY(Phase phase READ phase NOTIFY statusChanged)
  Q_PROPERTY(QString statusText READ statusText NOTIFY statusChanged)
  Q_PROPERTY(QDateTime nextAttempt READ nextAttempt NOTIFY statusChanged)

 public:
  // Why the map is or is not live (see QELBroadcastMapsStatus).
  enum class Phase { Stopped, Connecting, Live, WaitingToRetry, NoMapData };
  Q_ENUM(Phase)

  struct Options {
    // Linux: follow the device's links, addresses and routes and reconnect
    // at once when they change, as networkChanged() does.
    bool watchNetwork = false;
  };

  explicit QtBroadcastMaps(QObject* parent = nullptr);
  explicit QtBroadcastMaps(const Options& options, QObject* parent = nullptr);
  QtBroadcastMaps(const QtBroadcastMaps&) = delete;
  QtBroadcastMaps& operator=(const QtBroadcastMaps&) = delete;
  ~QtBroadcastMaps() override;

  // False when the service could not be made (another one is alive).
  bool isValid() const { return host_ != nullptr; }

  // The service's current map picture, null when there is none (it empties
  // when the map data goes).
  QImage image() const { return image_; }
  // The last picture shown, kept through outages (and from the cache
  // directory across runs): what a map screen shows, with its age when
  // stale. Null when there never was one.
  QImage lastImage() const { return lastImage_; }
  QDateTime lastImageReceivedAt() const;
  // The last picture is not that of the current live map.
  bool isStale() const { return snapshot_->lastPicture.stale; }
  // The picture sizes the server offers, in its order; empty: no map data.
  QList<QSize> resolutions() const;
  // The chosen size; invalid when none is chosen (the first listed is shown).
  QSize resolution() const;
  bool isReceiving() const { return snapshot_->receiving; }
  bool hasMapData() const { return snapshot_->hasMapData; }
  Phase phase() const { return static_cast<Phase>(snapshot_->status.phase); }
  // One line for a status bar: "Live", "Cabin server unreachable, next try
  // in 4 s". The wait it names counts down: read it again to show it.
  QString statusText() const;
  // When the next attempt starts; invalid when none is scheduled.
  QDateTime nextAttempt() const;
  // The whole status, each channel's last failure with its kind among it.
  const QELBroadcastMapsStatus& status() const { return snapshot_->status; }
  // Everything the properties above show, as the host published it.
  const QELBroadcastMapsHost::Snapshot& snapshot() const { return snapshot_; }
  // A size of the snapshot in whole pixels, as resolutions() and
  // resolution() give it: rounded, and held within what a QSize can carry
  // (a server may send 1e39 or more; NaN counts as 0).
  static QSize pixelSize(CGSize size);

 public slots:
  void start();
  void stop();
  // Connect it to the platform's network notification (for example
  // QNetworkInformation::reachabilityChanged).
  void networkChanged();
  // An invalid or empty size clears the choice.
  void setResolution(QSize size);

 signals:
  void imageChanged(const QImage& image);
  void lastImageChanged(const QImage& image);
  void staleChanged(bool stale);
  void resolutionsChanged(const QList<QSize>& resolutions);
  void resolutionChanged(QSize resolution);
  void receivingChanged(bool receiving);
  void hasMapDataChanged(bool hasMapData);
  // The cabin server is out of reach or failed to answer; said each time.
  void noMapData();
  // The phase, the next attempt or a channel's failure changed.
  void statusChanged();

 private:
  void apply(QELBroadcastMapsHostEvent event, QELBroadcastMapsHost::Snapshot snapshot);

  QELBroadcastMapsHost::Snapshot snapshot_;
  QImage image_;
  QImage lastImage_;
  // Last: destroyed first, so no delivery is made to a half-destroyed object.
  std::unique_ptr<QELBroadcastMapsHost> host_;
};

}  // namespace qel
