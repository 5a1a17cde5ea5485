#pragma once

#include "qel/Object.h"
#include "qel/RunLoop.h"

#include <memory>
#include <thread>

namespace qel::test {

// Runs `body` on a new thread, which gets a run loop of its own: nothing a
// previous test left queued or a clock it switched leaks into this one.
template <class Body>
void onFreshLoop(Body&& body) {
  std::thread thread([&] { body(RunLoop::current()); });
  thread.join();
}

// The smallest Object there is.
class Thing : public Object {
 public:
  static std::shared_ptr<Thing> create() { return std::shared_ptr<Thing>(new Thing); }

 protected:
  Thing() = default;
};

}  // namespace qel::test
