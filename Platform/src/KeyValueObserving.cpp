#include "qel/KeyValueObserving.h"

#include <algorithm>

namespace qel {

struct KeyValueObservable::Registration {
  std::weak_ptr<KeyValueObserver> observer;
  const KeyValueObserver* observerAddress = nullptr;
  std::string keyPath;
  KeyValueObservingOptions options = KeyValueObservingOptions::None;
  void* context = nullptr;
  bool removed = false;
};

KeyValueObservable::~KeyValueObservable() {
  for (const auto& registration : registrations_) registration->removed = true;
}

void KeyValueObservable::addObserver(const std::shared_ptr<KeyValueObserver>& observer,
                                     std::string_view keyPath, KeyValueObservingOptions options,
                                     void* context) {
  if (!observer) return;
  std::erase_if(registrations_,
                [](const auto& registration) { return registration->observer.expired(); });
  auto registration = std::make_shared<Registration>();
  registration->observer = observer;
  registration->observerAddress = observer.get();
  registration->keyPath = std::string(keyPath);
  registration->options = options;
  registration->context = context;
  registrations_.push_back(std::move(registration));
}

void KeyValueObservable::removeObserver(const KeyValueObserver* observer,
                                        std::string_view keyPath) {
  std::erase_if(registrations_, [&](const auto& registration) {
    if (registration->observerAddress != observer || registration->keyPath != keyPath)
      return false;
    registration->removed = true;
    return true;
  });
}

std::size_t KeyValueObservable::observerCount(std::string_view keyPath) const {
  return static_cast<std::size_t>(
      std::count_if(registrations_.begin(), registrations_.end(), [&](const auto& registration) {
        return registration->keyPath == keyPath && !registration->removed &&
               !registration->observer.expired();
      }));
}

void KeyValueObservable::didChangeValueForKey(std::string_view keyPath, const std::any& newValue) {
  const auto* object = dynamic_cast<const Object*>(this);
  const std::string path(keyPath);
  // Observers added or removed by an observer take effect for the next
  // assignment; a removed one is not called again for this one.
  const auto snapshot = registrations_;
  bool sawDead = false;
  // One change for all the observers that asked for the new value: copying
  // the value for each would cost an allocation per observer.
  KeyValueChange withNewValue;
  withNewValue.newValue = newValue;
  const KeyValueChange withoutNewValue;
  for (const auto& registration : snapshot) {
    if (registration->removed || registration->keyPath != keyPath) continue;
    const auto observer = registration->observer.lock();
    if (!observer) {
      registration->removed = true;
      sawDead = true;
      continue;
    }
    const bool wantsNewValue = (static_cast<unsigned>(registration->options) &
                                static_cast<unsigned>(KeyValueObservingOptions::New)) != 0;
    observer->observeValueForKeyPath(path, object, wantsNewValue ? withNewValue : withoutNewValue,
                                     registration->context);
  }
  if (sawDead) {
    std::erase_if(registrations_, [](const auto& registration) { return registration->removed; });
  }
}

}  // namespace qel
