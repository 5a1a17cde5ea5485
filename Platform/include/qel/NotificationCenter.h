#pragma once

#include "qel/Notification.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Delivers posted notifications to the observers registered for their name
// and sender, synchronously and in registration order.
//
// Observers are held weakly: one destroyed without removing itself is skipped
// and dropped, never called. Registering or removing observers (including the
// one being called) while a notification is delivered is safe; a registration
// made during a delivery is not called for that notification.
//
// Threading: one run loop thread. No locks.
//
//   center.addObserver(self, [this](const qel::Notification& n) { onChange(n); },
//                      "THING_DID_CHANGE", thing);
//   center.postNotificationName("THING_DID_CHANGE", thing);
//   center.removeObserver(self.get());
class QEL_EXPORT NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;
  ~NotificationCenter();

  // The process's default centre (used by the application).
  static NotificationCenter& defaultCenter();

  // `handler` runs for notifications named `name` (empty: any name) sent by
  // `sender` (empty: any sender), for as long as `observer` lives and stays
  // registered. The observer is kept alive for the duration of each call.
  void addObserver(const std::shared_ptr<Object>& observer, Handler handler,
                   std::string_view name = {}, const std::shared_ptr<Object>& sender = nullptr);

  // Removes every registration of `observer`.
  void removeObserver(const Object* observer);
  // Removes the registrations of `observer` for exactly this name and sender
  // filter (empty matches every registration's name or sender).
  void removeObserver(const Object* observer, std::string_view name, const Object* sender);

  void postNotification(const Notification& notification);
  void postNotificationName(std::string name, std::shared_ptr<Object> sender,
                            UserInfo userInfo = nullptr);

  // Live registrations (for tests and diagnostics).
  std::size_t observerCount() const;

 private:
  struct Registration;
  std::vector<std::shared_ptr<Registration>> registrations_;
};

}  // namespace qel
