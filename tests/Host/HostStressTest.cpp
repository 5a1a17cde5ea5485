// The host as an application with a loop of its own uses it: calls from
// that thread in random order while the simulator pushes updates and drops
// the event channel, hosts destroyed while deliveries are queued or running.
// Run under ThreadSanitizer and AddressSanitizer, a race, a use after free
// or a late call fails here.

#include <QELMaps/QELMaps.h>
#include <qel/core/QELLogging.h>

#include "../Support/Simulator.h"
#include "../Support/WaitUntil.h"

#include <gtest/gtest.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace qel {
namespace {

using namespace std::chrono_literals;
using Event = QELBroadcastMapsHostEvent;

// The application's main loop, on a thread of its own as a UI toolkit's
// would be; the executor posts onto it. Whatever is queued when it goes
// still runs.
class ApplicationThread {
 public:
  ~ApplicationThread() {
    guard_.reset();
    thread_.join();
  }
  QELBroadcastMapsHost::Executor executor() {
    return [this](QELBroadcastMapsHost::Task task) { boost::asio::post(context_, std::move(task)); };
  }
  std::thread::id id() const { return thread_.get_id(); }

 private:
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_{context_.get_executor()};
  std::thread thread_{[this] { context_.run(); }};
};

bool wellFormed(const std::shared_ptr<const Image>& image) {
  return !image || image->pixels().size() == image->width() * image->height() * 4;
}

// Everything handlers saw that they should not have, counted across threads.
struct Observed {
  std::thread::id expectedThread;
  std::atomic<bool> destroyed{false};
  std::atomic<std::uint64_t> lastVersion{0};
  std::atomic<int> wrongThread{0}, afterDestruction{0}, outOfOrder{0}, inconsistent{0};
  std::atomic<int> images{0}, errors{0};
  std::string firstInconsistency;  // the application's thread only

  void inconsistency(Event event, const QELBroadcastMapsSnapshot& snapshot, const char* what) {
    if (inconsistent++) return;
    firstInconsistency = std::string(what) + " in the snapshot of event " + std::to_string(static_cast<int>(event)) +
                         " (version " + std::to_string(snapshot.version) + ", " +
                         std::to_string(snapshot.resolutions.size()) + " resolutions, record " +
                         (snapshot.hasMapRecord ? "held" : "none") + ")";
  }

  QELBroadcastMapsHost::Handler handler() {
    return [this](Event event, const QELBroadcastMapsHost::Snapshot& snapshot) {
      if (std::this_thread::get_id() != expectedThread) ++wrongThread;
      if (destroyed.load()) ++afterDestruction;
      // Deliveries keep the order of the changes they announce.
      if (snapshot->version <= lastVersion.exchange(snapshot->version)) ++outOfOrder;
      if (snapshot->hasMapData == snapshot->resolutions.empty()) inconsistency(event, *snapshot, "map data flag");
      if (snapshot->hasMapData && !snapshot->hasMapRecord) inconsistency(event, *snapshot, "map data without record");
      if (event == Event::Error) {
        ++errors;
        if (snapshot->hasMapData) inconsistency(event, *snapshot, "map data at an error");
      }
      if (event == Event::ImageDidChange && snapshot->image) {
        ++images;
        if (!wellFormed(snapshot->image)) inconsistency(event, *snapshot, "torn picture");
      }
    };
  }
};

using testing::waitUntil;

// The C API replaces the log sink while the host's thread and application
// threads write lines: the sink is read and replaced under one rule, and a
// sink once replaced is never called again.
TEST(HostStressTest, ASinkReplacedWhileOtherThreadsLogIsNeverCalledAfterwards) {
  struct Capture {
    std::atomic<bool> entered{false}, removed{false};
  };
  std::atomic<bool> done{false};
  std::atomic<int> late{0};
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i) {
    writers.emplace_back([&] {
      while (!done) {
        core::QELLogging::write(1, "Writer.cpp", "a line");
        std::this_thread::yield();
      }
    });
  }
  std::vector<std::shared_ptr<Capture>> captures;
  for (int i = 0; i < 50; ++i) {
    auto capture = captures.emplace_back(std::make_shared<Capture>());
    core::QELLogging::setSink([capture, &late](int, std::string_view, std::string_view) {
      capture->entered = true;
      // A sink that takes a while, as an application's may: a replacement
      // that does not wait for this call returns meanwhile.
      for (int step = 0; step < 20 && !capture->removed; ++step) std::this_thread::sleep_for(100us);
      if (capture->removed) ++late;
    });
    while (!capture->entered) std::this_thread::yield();
    core::QELLogging::setSink([](int, std::string_view, std::string_view) {});
    capture->removed = true;
  }
  done = true;
  for (auto& writer : writers) writer.join();
  core::QELLogging::setSink({});
  EXPECT_EQ(late, 0) << "a replaced sink was called after setSink() returned";
}

TEST(HostStressTest, RandomCallsFromTheApplicationWhileTheServerPushesAndDrops) {
  // Small pictures, so that rendering stays cheap under the sanitizers, an
  // update every 50 ms and the event channel dropped every 200 ms.
  cabinsim::ServerOptions options;
  options.intervalSeconds = 0.05;
  options.resolutions = {{160, 120}, {80, 60}, {40, 30}};
  options.faults.dropEventsEverySeconds = 0.2;
  testing::Simulator simulator(options);
  simulator.configuration().logThreshold = 1;
  Observed observed;  // outlives the application's loop, whatever is still queued there
  ApplicationThread application;
  observed.expectedThread = application.id();

  constexpr int kHosts = 5;
  constexpr int kCalls = 1000;
  const std::vector<CGSize> sizes = {{160, 120}, {80, 60}, {40, 30}, {123, 45}};
  std::mt19937 random(20261122);
  const std::function<void(QELBroadcastMapsHost&)> calls[] = {
      [](auto& host) { host.start(); },
      [](auto& host) { host.stop(); },
      [&](auto& host) { host.setCurrentResolutionWithCGSize(sizes[random() % sizes.size()]); },
      [](auto& host) { host.clearCurrentResolution(); },
      [](auto& host) { EXPECT_TRUE(wellFormed(host.snapshot()->image)); },
  };
  for (int round = 0; round < kHosts; ++round) {
    observed.destroyed = false;
    observed.lastVersion = 0;
    auto host = QELBroadcastMapsHost::create({application.executor(), observed.handler(), simulator.configuration()});
    ASSERT_TRUE(host);
    EXPECT_FALSE(QELBroadcastMapsHost::create({})) << "a second host would share the service's state";

    const int imagesBefore = observed.images;
    for (int call = 0; call < kCalls; ++call) {
      calls[random() % std::size(calls)](*host);
      // Let the network move now and then, so calls meet updates and drops.
      if (call % 40 == 0) std::this_thread::sleep_for(5ms);
    }
    host->start();
    ASSERT_TRUE(waitUntil([&] { return observed.images > imagesBefore; })) << "no picture in round " << round;
    // The simulator drops the event channel every so often: at least one
    // drop must have reached the application while a host lives.
    if (round == 0) {
      ASSERT_TRUE(waitUntil([&] { return observed.errors > 0; })) << "no drop was noticed";
    }

    // A burst of changes, then the host goes: in even rounds while the
    // application's loop is held up, so that the deliveries wait there; in
    // odd ones while they are running.
    std::promise<void> release;
    if (round % 2 == 0) application.executor()([held = release.get_future().share()] { held.wait(); });
    for (int call = 0; call < 50; ++call) {
      host->setCurrentResolutionWithCGSize(sizes[call % sizes.size()]);
      host->clearCurrentResolution();
    }
    host.reset();
    observed.destroyed = true;
    release.set_value();
  }
  // Whatever is still queued runs now, and must not call.
  std::promise<void> drained;
  application.executor()([&drained] { drained.set_value(); });
  drained.get_future().wait();

  EXPECT_EQ(observed.wrongThread, 0);
  EXPECT_EQ(observed.afterDestruction, 0);
  EXPECT_EQ(observed.outOfOrder, 0);
  EXPECT_EQ(observed.inconsistent, 0) << observed.firstInconsistency;
}

}  // namespace
}  // namespace qel
