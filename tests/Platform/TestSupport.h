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
  std::thread([&] { body(RunLoop::current()); }).join();
}

// The smallest Object there is.
struct Thing : Object {};

inline std::shared_ptr<Thing> thing() { return std::make_shared<Thing>(); }

}  // namespace qel::test
