#pragma once

// For tests whose code under test runs on threads of its own (a host, a
// simulator): polls a condition until it holds or the time is up.
//
//   ASSERT_TRUE(qel::testing::waitUntil([&] { return simulator.eventChannelUp(); }));

#include <chrono>
#include <functional>
#include <thread>

namespace qel::testing {

inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::steady_clock::duration timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace qel::testing
