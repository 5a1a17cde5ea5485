#pragma once

#include "qel/Object.h"

#include <any>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

enum class KeyValueObservingOptions : unsigned {
  None = 0,
  New = 1,  // the change carries the new value
};

// What an observer is told about one assignment.
struct KeyValueChange {
  // The assigned value when the observer asked for New, else empty.
  std::any newValue;
};

// Implemented by objects that observe key paths of other objects.
class KeyValueObserver {
 public:
  virtual ~KeyValueObserver() = default;
  virtual void observeValueForKeyPath(const std::string& keyPath, const Object* object,
                                      const KeyValueChange& change, void* context) = 0;
};

// Gives an Object key-value observable properties. An ObservableProperty
// tells the observers of its key path of every assignment, synchronously and
// before the setter returns, including assignments of an equal value and of
// an empty one.
//
// Observers are held weakly (one that is gone is skipped) and are removed by
// key path; removing any observer during a notification is safe.
//
// Threading: the owner's run loop thread.
//
//   class Controller : public qel::Object, public qel::KeyValueObservable {
//    public:
//     Controller() : mapInfo_(*this, "mapInfo") {}
//     void setMapInfo(Record r) { mapInfo_.set(std::move(r)); }
//    private:
//     qel::ObservableProperty<Record> mapInfo_;
//   };
//   controller->addObserver(engine, "mapInfo", qel::KeyValueObservingOptions::New, nullptr);
class KeyValueObservable {
 public:
  KeyValueObservable(const KeyValueObservable&) = delete;
  KeyValueObservable& operator=(const KeyValueObservable&) = delete;

  void addObserver(const std::shared_ptr<KeyValueObserver>& observer, std::string_view keyPath,
                   KeyValueObservingOptions options, void* context);
  void removeObserver(const KeyValueObserver* observer, std::string_view keyPath);

  std::size_t observerCount(std::string_view keyPath) const;

  // Tells every observer of `keyPath`. ObservableProperty calls it.
  void didChangeValueForKey(std::string_view keyPath, const std::any& newValue);

 protected:
  KeyValueObservable() = default;
  // Virtual so that a notification can name the observed Object (a cross-cast
  // from this base needs a polymorphic type).
  virtual ~KeyValueObservable();

 private:
  struct Registration;
  std::vector<std::shared_ptr<Registration>> registrations_;
};

// A property whose every assignment is announced to the observers of its key
// path on its owner.
template <class T>
class ObservableProperty {
 public:
  ObservableProperty(KeyValueObservable& owner, std::string keyPath, T initial = T{})
      : owner_(owner), keyPath_(std::move(keyPath)), value_(std::move(initial)) {}
  ObservableProperty(const ObservableProperty&) = delete;
  ObservableProperty& operator=(const ObservableProperty&) = delete;

  const T& get() const { return value_; }
  void set(T value) {
    value_ = std::move(value);
    owner_.didChangeValueForKey(keyPath_, std::any(value_));
  }

 private:
  KeyValueObservable& owner_;
  std::string keyPath_;
  T value_;
};

}  // namespace qel
