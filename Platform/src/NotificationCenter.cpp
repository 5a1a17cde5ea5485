#include "qel/NotificationCenter.h"

#include <algorithm>

namespace qel {

struct NotificationCenter::Registration {
  std::weak_ptr<Object> observer;
  const Object* observerAddress = nullptr;
  Handler handler;
  std::string name;  // empty: any
  bool anySender = true;
  // Compared by owner, so that a new object at the address of a dead sender
  // never matches its filter.
  std::weak_ptr<Object> sender;
  bool removed = false;

  bool matches(const Notification& notification) const {
    if (!name.empty() && name != notification.name()) return false;
    if (anySender) return true;
    const auto& actual = notification.sender();
    if (!actual) return false;
    return !sender.owner_before(actual) && !actual.owner_before(sender);
  }
};

NotificationCenter::NotificationCenter() = default;

NotificationCenter::~NotificationCenter() {
  for (const auto& registration : registrations_) registration->removed = true;
}

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter center;
  return center;
}

void NotificationCenter::addObserver(const std::shared_ptr<Object>& observer, Handler handler,
                                     std::string_view name,
                                     const std::shared_ptr<Object>& sender) {
  if (!observer || !handler) return;
  // Observers that died without removing themselves are dropped here too, so
  // that a centre nobody posts to does not grow.
  std::erase_if(registrations_,
                [](const auto& registration) { return registration->observer.expired(); });
  auto registration = std::make_shared<Registration>();
  registration->observer = observer;
  registration->observerAddress = observer.get();
  registration->handler = std::move(handler);
  registration->name = std::string(name);
  registration->anySender = sender == nullptr;
  registration->sender = sender;
  registrations_.push_back(std::move(registration));
}

void NotificationCenter::removeObserver(const Object* observer) {
  if (!observer) return;
  std::erase_if(registrations_, [observer](const auto& registration) {
    if (registration->observerAddress != observer) return false;
    registration->removed = true;
    return true;
  });
}

void NotificationCenter::removeObserver(const Object* observer, std::string_view name,
                                        const Object* sender) {
  if (!observer) return;
  std::erase_if(registrations_, [&](const auto& registration) {
    if (registration->observerAddress != observer) return false;
    if (!name.empty() && registration->name != name) return false;
    if (sender) {
      if (registration->anySender) return false;
      const auto registeredSender = registration->sender.lock();
      if (registeredSender.get() != sender) return false;
    }
    registration->removed = true;
    return true;
  });
}

void NotificationCenter::postNotification(const Notification& notification) {
  // Deliver to the registrations as they stand now: what handlers add is not
  // called for this notification, what they remove is flagged and skipped.
  const auto snapshot = registrations_;
  bool sawDead = false;
  for (const auto& registration : snapshot) {
    if (registration->removed || !registration->matches(notification)) continue;
    const auto observer = registration->observer.lock();
    if (!observer) {
      registration->removed = true;
      sawDead = true;
      continue;
    }
    registration->handler(notification);
  }
  if (sawDead) {
    std::erase_if(registrations_, [](const auto& registration) { return registration->removed; });
  }
}

void NotificationCenter::postNotificationName(std::string name, std::shared_ptr<Object> sender,
                                              UserInfo userInfo) {
  postNotification(Notification(std::move(name), std::move(sender), std::move(userInfo)));
}

std::size_t NotificationCenter::observerCount() const {
  return static_cast<std::size_t>(
      std::count_if(registrations_.begin(), registrations_.end(), [](const auto& registration) {
        return !registration->removed && !registration->observer.expired();
      }));
}

}  // namespace qel
