#pragma once

#include <cassert>
#include <thread>

namespace qel {

// Remembers the thread that created its owner and, in debug builds, asserts
// that later calls come from that same thread. The framework takes no locks,
// so a call from another thread is a bug in the caller worth stopping at.
//
//   class Engine {
//     void start() { threadChecker_.check(); ... }
//     qel::ThreadChecker threadChecker_;
//   };
class ThreadChecker {
 public:
  ThreadChecker() = default;
  ThreadChecker(const ThreadChecker&) = delete;
  ThreadChecker& operator=(const ThreadChecker&) = delete;

  bool calledOnValidThread() const { return std::this_thread::get_id() == owner_; }
  void check() const { assert(calledOnValidThread() && "called off its run loop thread"); }

 private:
  std::thread::id owner_ = std::this_thread::get_id();
};

}  // namespace qel
