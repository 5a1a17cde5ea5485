#pragma once

#include <qel/Export.h>
#include <qel/Geometry.h>
#include <qel/Image.h>
#include <qel/Notification.h>
#include <qel/core/SkelionService.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qel {

namespace internal {
class QELBroadcastMaps;
}

// Thrown when an argument breaks a method's contract; the message says which
// expression failed, where, and why.
class QEL_EXPORT InternalInconsistencyException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

// One picture size of the broadcast map, in pixels. 0 by 0 when made.
//
// A mutable record shared by reference: the list from availableResolutions()
// is built afresh at every call and belongs to the caller, but a record handed
// to setCurrentResolution() is kept as it is, so later changes to it are seen
// at the next choice of picture. Two records are equal only when they are the
// same object, and a record describes itself ("%@") as any object does.
//
//   auto r = qel::QELBroadcastMapsResolution::create();
//   r->setWidth(1024); r->setHeight(768);
//   service->setCurrentResolution(r);
class QEL_EXPORT QELBroadcastMapsResolution : public Object {
 public:
  static std::shared_ptr<QELBroadcastMapsResolution> create();

  CGFloat width() const { return width_; }
  void setWidth(CGFloat width) { width_ = width; }
  CGFloat height() const { return height_; }
  void setHeight(CGFloat height) { height_ = height; }
  // Width first.
  ::qel::CGSize CGSize() const { return {width(), height()}; }

 protected:
  QELBroadcastMapsResolution();

 private:
  CGFloat width_ = 0;
  CGFloat height_ = 0;
};

// The broadcast moving map of the cabin network.
//
// Create one, choose a resolution (or let the service take the first one the
// server lists), start it, and observe its notifications on
// qel::NotificationCenter::defaultCenter() with the service as sender:
// QELBroadcastMapsAvailableResolutionsDidChangeNotification,
// QELBroadcastMapsImageDidChangeNotification (then read mapImage()),
// QELBroadcastMapsErrorNotification (no map data) and
// QELBroadcastMapsImageDidStopReceivingImageNotification. Notifications
// arrive from the run loop once the current callout has ended, never from
// within a call into the service.
//
// Threading: create and use it on one thread that runs a qel::RunLoop; all
// notifications are delivered on that thread.
//
//   auto maps = qel::QELBroadcastMapsV1::create();
//   maps->setCurrentResolutionWithCGSize({1024, 768});
//   qel::NotificationCenter::defaultCenter().addObserver(
//       app, [&](const qel::Notification&) { show(maps->mapImage()); },
//       qel::QELBroadcastMapsImageDidChangeNotification, maps);
//   maps->start();
//   qel::RunLoop::current().run();
class QEL_EXPORT QELBroadcastMapsV1 : public core::SkelionService {
 public:
  static std::string serviceVersion();

  // Empty when the service cannot be made.
  static std::shared_ptr<QELBroadcastMapsV1> create();

  QELBroadcastMapsV1(const QELBroadcastMapsV1&) = delete;
  QELBroadcastMapsV1& operator=(const QELBroadcastMapsV1&) = delete;
  ~QELBroadcastMapsV1() override;

  // One record per picture the server offers, in the server's listing order;
  // empty (never an empty list) when there is no map data.
  std::optional<std::vector<std::shared_ptr<QELBroadcastMapsResolution>>> availableResolutions() const;

  // Stores `resolution` itself (a QELBroadcastMapsResolution, a subclass of
  // it, or empty to clear the choice); the picture follows at the next
  // download. Anything else throws InternalInconsistencyException and stores
  // nothing.
  void setCurrentResolution(const std::shared_ptr<Object>& resolution);
  // Stores a new record of exactly this size.
  void setCurrentResolutionWithCGSize(::qel::CGSize size);
  // The very record stored, or empty.
  std::shared_ptr<QELBroadcastMapsResolution> currentResolution() const;

  // The latest decoded map picture, or empty.
  std::shared_ptr<const Image> mapImage() const;

  void start();
  void stop();

  // For the framework itself.
  const std::shared_ptr<internal::QELBroadcastMaps>& broadcastMaps() const { return broadcastMaps_; }
  void eventReceived(const Notification& notification);

 private:
  QELBroadcastMapsV1() = default;
  bool init();

  std::shared_ptr<internal::QELBroadcastMaps> broadcastMaps_;
};

}  // namespace qel
