#pragma once

#include <qel/KeyValueObserving.h>
#include <qel/Object.h>
#include <qel/ThreadChecker.h>
#include <qel/core/QELEventManager.h>
#include <qel/core/QELRequest.h>
#include <qel/core/QELRequestQueue.h>

#include <boost/json/object.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace qel::internal {

// The map info record: resolution key ("1024x768") -> image entry (the
// server's image object without its null "width", "height" and "src").
// Empty pointer: there is no map data. A published record never changes, so
// readers may keep it.
using MapInfo = std::shared_ptr<const boost::json::object>;

// The one holder of the current map data in the process.
//
// However many engines exist, they share this controller: created lazily by
// defaultController(), counted by own()/free(), and dropped by the class when
// the last owner frees it. While it lives it stays subscribed to map update
// events and to the event channel's connect and disconnect, reloads the whole
// record over REST at creation and on every connection, merges pushed
// updates, and publishes the record as the key-value observable "mapInfo":
// every assignment, equal or empty, is announced to the observers before
// setMapInfo() returns.
//
// Threading: everything happens on the run loop of the thread that first
// called defaultController(); the event manager and the request queue
// deliver there too.
//
//   auto controller = QELBroadcastMapsController::defaultController();
//   QELBroadcastMapsController::own();
//   controller->addObserver(engine, "mapInfo", qel::KeyValueObservingOptions::New, nullptr);
//   ...
//   QELBroadcastMapsController::free();
class QELBroadcastMapsController : public Object,
                                   public KeyValueObservable,
                                   public core::QELRequestDelegate {
 public:
  static constexpr const char* kMapUpdateEventName = "core.maps.map_update";

  static std::shared_ptr<QELBroadcastMapsController> defaultController();
  static std::shared_ptr<core::QELRequestQueue> requestQueue();
  // The owner count and the shared instance are independent on purpose:
  // creating does not count, counting does not create.
  static void own();
  static void free();
  static std::int32_t ownersCount();

  QELBroadcastMapsController(const QELBroadcastMapsController&) = delete;
  QELBroadcastMapsController& operator=(const QELBroadcastMapsController&) = delete;
  ~QELBroadcastMapsController() override;

  const MapInfo& mapInfo() const { return mapInfo_.get(); }
  void setMapInfo(MapInfo mapInfo);

  void subscribeToEventServer();
  void unsubscribeFromEventServer();

  // Event manager targets.
  void receivedMapsdataEvent(const std::shared_ptr<core::QELEvent>& event);
  void receivedDidConnectToEventServer();
  void receivedDidDisconnectFromEventServer();
  void processEvent(const std::string& eventName, const UserInfo& data);

  // The REST path.
  void reloadData();
  void requestDidFinish(const std::shared_ptr<core::QELRequest>& request, const Data& data) override;
  void requestDidFail(const std::shared_ptr<core::QELRequest>& request, const Error& error) override;
  // Takes the response: its image objects become the record's entries.
  void processRestResponse(boost::json::object response);

 private:
  QELBroadcastMapsController();
  bool init();

  ThreadChecker threadChecker_;
  ObservableProperty<MapInfo> mapInfo_;
};

}  // namespace qel::internal
