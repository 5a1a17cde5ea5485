#pragma once

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"

#include <QELMaps/QELBroadcastMapsV1.h>

#include <qel/Geometry.h>
#include <qel/Image.h>
#include <qel/KeyValueObserving.h>
#include <qel/Notification.h>
#include <qel/ThreadChecker.h>
#include <qel/Timer.h>
#include <qel/core/Digest.h>
#include <qel/core/QELRequest.h>
#include <qel/core/QELRequestQueue.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qel::internal {

// The map image engine behind one QELBroadcastMapsV1.
//
// It shares the process's map data controller, follows every new map info
// record (announcing changed resolutions, downloading when the image source
// of the chosen resolution changed, reporting a missing record), picks the
// image source for the chosen resolution (falling back to the record's first
// entry), downloads and decodes it on the queue all engines share (one
// download at a time), publishes it when the picture differs, and retries a
// failed download every five seconds while the event channel is connected.
//
// Everything it announces goes to the core kit's internal centre with the
// engine as sender; its service relays it to the application.
//
// Threading: the controller's run loop thread.
//
//   auto engine = QELBroadcastMaps::create();
//   engine->setCurrentResolutionWithCGSize({800, 600});
//   engine->start();
class QELBroadcastMaps : public Object,
                         public core::QELRequestDelegate,
                         public KeyValueObserver {
 public:
  using ResolutionList = std::vector<std::shared_ptr<QELBroadcastMapsResolution>>;
  using KeyList = std::vector<std::string>;

  static constexpr double kRetryInterval = 5.0;

  static std::shared_ptr<QELBroadcastMaps> create();
  // The queue every engine's downloads share, made on first use.
  static std::shared_ptr<core::QELRequestQueue> requestQueue();

  QELBroadcastMaps(const QELBroadcastMaps&) = delete;
  QELBroadcastMaps& operator=(const QELBroadcastMaps&) = delete;
  ~QELBroadcastMaps() override;

  // Properties.
  const std::shared_ptr<QELBroadcastMapsController>& broadcastMapsController() const { return broadcastMapsController_; }
  const MapInfo& mapInfo() const { return mapInfo_; }
  const std::shared_ptr<core::QELImageDownloadRequest>& imageRequest() const { return imageRequest_; }
  const std::shared_ptr<const Image>& mapImage() const { return mapImage_; }
  void setMapImage(std::shared_ptr<const Image> mapImage);
  const std::shared_ptr<QELBroadcastMapsResolution>& currentResolution() const { return currentResolution_; }
  void setCurrentResolution(std::shared_ptr<QELBroadcastMapsResolution> resolution) { currentResolution_ = std::move(resolution); }
  const std::optional<KeyList>& lastKnownResolutions() const { return lastKnownResolutions_; }
  const std::optional<std::string>& lastKnownImageURL() const { return lastKnownImageURL_; }
  const std::shared_ptr<Timer>& retryTimer() const { return retryTimer_; }
  bool shouldDownloadImages() const { return shouldDownloadImages_; }

  // Resolutions and the image source.
  void setInitialsValue();
  std::optional<ResolutionList> availableResolutions() const;
  void setCurrentResolutionWithCGSize(CGSize size);
  std::optional<std::string> imageURLForResolution() const;

  // Reception.
  void start();
  void stop();
  void autoStop(const Notification& notification);
  void downloadImage();
  void requestDidFinish(const std::shared_ptr<core::QELRequest>& request, const Data& data) override;
  void requestDidFail(const std::shared_ptr<core::QELRequest>& request, const Error& error) override;

  // Following the controller's record.
  void addObservers();
  void removeObservers();
  void observeValueForKeyPath(const std::string& keyPath, const Object* object,
                              const KeyValueChange& change, void* context) override;

 private:
  // What imageURLForResolution's walk found for one record and chosen size.
  struct KnownMatch {
    std::weak_ptr<const boost::json::object> record;
    const boost::json::object* recordAddress = nullptr;
    CGFloat width = 0;
    CGFloat height = 0;
    // The matching entry, inside `record`; none when nothing matched.
    const boost::json::object* entry = nullptr;
  };

  QELBroadcastMaps() = default;
  bool init();
  void post(const char* name);
  // The remembered match for the current record and size, if there is one.
  const boost::json::object* const* knownMatch() const;
  void rememberMatch(const boost::json::object* entry) const;

  ThreadChecker threadChecker_;
  std::shared_ptr<QELBroadcastMapsController> broadcastMapsController_;
  MapInfo mapInfo_;
  std::shared_ptr<core::QELImageDownloadRequest> imageRequest_;
  std::shared_ptr<const Image> mapImage_;
  // The digest of the downloaded bytes mapImage_ was decoded from, so that
  // the same bytes again are not decoded; none when unknown.
  std::optional<core::Sha256Digest> mapImageDigest_;
  std::shared_ptr<QELBroadcastMapsResolution> currentResolution_;
  std::optional<KeyList> lastKnownResolutions_;
  std::optional<std::string> lastKnownImageURL_;
  std::shared_ptr<Timer> retryTimer_;
  bool shouldDownloadImages_ = false;
  mutable KnownMatch knownMatch_;
};

}  // namespace qel::internal
