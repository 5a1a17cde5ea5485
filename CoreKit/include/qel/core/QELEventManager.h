#pragma once

#include <qel/Notification.h>
#include <qel/Object.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qel::core {

// Names of the events the manager itself raises about its connection.
extern const char* const QELServiceEventClientConnected;
extern const char* const QELServiceEventClientDisconnected;

// One event from the cabin server's event channel (or about it).
class QELEvent : public Object {
 public:
  static std::shared_ptr<QELEvent> create(std::string name, UserInfo userInfo);
  const std::string& name() const { return name_; }
  // The event's data; empty when it carried none.
  const UserInfo& userInfo() const { return userInfo_; }
  std::string description() const override;

 private:
  QELEvent(std::string name, UserInfo userInfo)
      : name_(std::move(name)), userInfo_(std::move(userInfo)) {}
  std::string name_;
  UserInfo userInfo_;
};

class QELEventManager;

// A connection to the event server. The manager starts it when its first
// target registers and stops it when the last one leaves; the transport
// reports back through the manager's transport*() methods, on the run loop.
class EventTransport {
 public:
  virtual ~EventTransport() = default;
  virtual void start(QELEventManager& manager) = 0;
  virtual void stop() = 0;
  // The device's network changed (another access point, an address, a
  // link back up): a connection in doubt is checked, a wait to reconnect is
  // cut short. Nothing by default.
  virtual void networkChanged() {}
};

// Dispatches server events, and its own connected/disconnected events, to
// the targets registered for their names.
//
// Targets are held weakly (one that is gone is skipped and dropped) and are
// called in registration order on the run loop. A selector takes the event,
// or nothing. Removing targets during a dispatch is safe.
//
// Threading: the run loop thread that first used defaultManager().
//
//   auto& events = QELEventManager::defaultManager();
//   events.addTarget(self, &Controller::receivedMapsdataEvent, "core.maps.map_update");
//   events.addTarget(self, &Controller::receivedDidConnect, QELServiceEventClientConnected);
//   events.removeTarget(self.get());
class QELEventManager {
 public:
  using Action = std::function<void(const std::shared_ptr<QELEvent>&)>;

  QELEventManager(const QELEventManager&) = delete;
  QELEventManager& operator=(const QELEventManager&) = delete;
  ~QELEventManager();

  static QELEventManager& defaultManager();

  template <class T>
  void addTarget(const std::shared_ptr<T>& target,
                 void (T::*selector)(const std::shared_ptr<QELEvent>&), std::string_view eventName) {
    T* raw = target.get();
    addTarget(std::static_pointer_cast<Object>(target),
              Action([raw, selector](const std::shared_ptr<QELEvent>& e) { (raw->*selector)(e); }),
              eventName);
  }
  template <class T>
  void addTarget(const std::shared_ptr<T>& target, void (T::*selector)(), std::string_view eventName) {
    T* raw = target.get();
    addTarget(std::static_pointer_cast<Object>(target),
              Action([raw, selector](const std::shared_ptr<QELEvent>&) { (raw->*selector)(); }),
              eventName);
  }
  void addTarget(const std::shared_ptr<Object>& target, Action action, std::string_view eventName);
  // Withdraws every registration of `target`.
  void removeTarget(const Object* target);
  // Distinct targets registered and still alive.
  std::size_t targetCount() const;

  // True between the transport's connect and disconnect reports while it runs.
  bool isConnected() const { return connected_; }

  // Installs the connection to use (replacing and stopping any earlier one).
  // By default the manager uses the secure WebSocket channel to the configured
  // cabin server (it stays disconnected while no host is configured). A replaced or stopped
  // connection counts as disconnected without an event being dispatched.
  void setTransport(std::unique_ptr<EventTransport> transport);
  // As setTransport(), but hands the earlier transport (stopped) back.
  std::unique_ptr<EventTransport> replaceTransport(std::unique_ptr<EventTransport> transport);
  EventTransport* transport() const { return transport_.get(); }

  // Called by the transport, on the run loop. Connect and disconnect dispatch
  // QELServiceEventClientConnected / QELServiceEventClientDisconnected, once
  // per change. A transport's stop() may be called from within these.
  void transportDidConnect();
  void transportDidDisconnect();
  void transportDidReceiveEvent(const std::shared_ptr<QELEvent>& event);

 private:
  QELEventManager();
  void dispatch(const std::shared_ptr<QELEvent>& event);
  void updateTransportRunning();
  void stopTransport();
  void pruneRegistrations();

  struct Registration;
  std::vector<std::shared_ptr<Registration>> registrations_;
  std::unique_ptr<EventTransport> transport_;
  bool transportRunning_ = false;
  bool connected_ = false;
};

}  // namespace qel::core
