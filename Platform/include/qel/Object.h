#pragma once

#include "qel/Export.h"

#include <memory>
#include <string>

namespace qel {

// The root of every framework object that can be a notification's sender, a
// key-value observed object, a timer's target or an argument checked by kind.
//
// Objects live in std::shared_ptr; identity is pointer identity and kind
// checks are std::dynamic_pointer_cast. "nil" is an empty pointer, and an
// initialiser that can fail is a static factory that returns an empty pointer.
//
// Threading: an Object belongs to the run loop thread that created it.
//
//   class Thing : public qel::Object {
//    public:
//     static std::shared_ptr<Thing> create() {
//       auto thing = std::shared_ptr<Thing>(new Thing);
//       return thing->init() ? thing : nullptr;
//     }
//   };
class QEL_EXPORT Object : public std::enable_shared_from_this<Object> {
 public:
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object();

  // What "%@" prints for this object: "<TypeName: 0x...>" unless overridden.
  virtual std::string description() const;

 protected:
  Object() = default;

  // Typed shared_from_this for subclasses.
  template <class Self>
  std::shared_ptr<Self> sharedFrom(Self* self) {
    return std::shared_ptr<Self>(shared_from_this(), self);
  }
  template <class Self>
  std::weak_ptr<Self> weakFrom(Self* self) {
    return sharedFrom(self);
  }
};

// True when both pointers name the same object (also for two empty pointers).
inline bool isSameObject(const Object* a, const Object* b) { return a == b; }

}  // namespace qel
