#pragma once

#include <QELMaps/QELBroadcastMapsSnapshot.h>
#include <QELMaps/QELBroadcastMapsTrace.h>

#include <qel/Export.h>
#include <qel/Geometry.h>
#include <qel/core/QELHostname.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace qel {

namespace internal {
class QELBroadcastMapsHostBoundary;
class QELBroadcastMapsHostThread;
}  // namespace internal

// What a delivery announces. Each value but StateDidChange and
// StatusDidChange stands for one notification of QELBroadcastMapsV1 (see
// notificationName()).
enum class QELBroadcastMapsHostEvent {
  // Another set of resolutions: read the snapshot's resolutions.
  AvailableResolutionsDidChange,
  // Another picture, or none any more: read the snapshot's image.
  ImageDidChange,
  // The service stopped receiving because another party announced it stopped.
  ImageDidStopReceivingImage,
  // There is no map data (the cabin server is out of reach or failed to
  // answer).
  Error,
  // Reception started. Delivered, but not worth relying on.
  ImageDidStartReceivingImage,
  // A call of the application (start, stop, a resolution choice) changed the
  // snapshot without the service announcing anything.
  StateDidChange,
  // The connection status changed (phase, next attempt, a failure or a
  // recovery): read the snapshot's status.
  StatusDidChange,
};

// The broadcast map service on a thread of its own, for applications whose
// main thread belongs to a UI toolkit's loop (Qt, GLib, an Android Looper).
//
// The host owns a thread that runs a qel::RunLoop and makes the service
// there; the service and everything under it stay single-threaded on that
// loop. The calls below are safe from any thread: each is posted to the
// loop and runs there in the order made. After every change the loop thread
// publishes an immutable snapshot that snapshot() returns at once, without
// waiting on the loop.
//
// Every notification of the service, and every change made by a call, is
// handed to the application's handler through its executor, a callable that
// posts a closure onto the application's own loop; the snapshot taken when
// the change happened travels with it, so the handler reads what was
// announced even if the loop has moved on since. Without an executor the
// handler runs on the host's thread.
//
// Destruction stops the service and ends the thread. From the moment the
// destructor starts, the handler is never called again, also not by
// deliveries still queued on the application's loop; a delivery already
// running on another thread completes before the destructor returns. A
// handler may destroy the host when it runs through an executor, but not
// without one (it would wait for its own thread).
//
// Threading: every member is safe from any thread. One host per process:
// the service shares process-wide state (the map record, the event channel,
// the configuration, the default notification centre) with every service of
// the process, which must all live on one loop thread. While a host lives,
// create() refuses a second one, and the application must not use
// QELBroadcastMapsV1 or those centres on a thread of its own. Logging and
// the configuration are set before create() or through Options.
//
//   qel::QELBroadcastMapsHost::Options options;
//   options.executor = [](std::function<void()> task) { myLoop.post(std::move(task)); };
//   options.handler = [](qel::QELBroadcastMapsHostEvent event, auto snapshot) {
//     if (event == qel::QELBroadcastMapsHostEvent::ImageDidChange) show(snapshot->image);
//   };
//   auto host = qel::QELBroadcastMapsHost::create(std::move(options));
//   host->setCurrentResolutionWithCGSize({1024, 768});
//   host->start();
class QEL_EXPORT QELBroadcastMapsHost {
 public:
  using Snapshot = std::shared_ptr<const QELBroadcastMapsSnapshot>;
  using Task = std::function<void()>;
  // Runs `task` on the application's loop, later and exactly once (or never,
  // when that loop is gone). Called from the host's thread.
  using Executor = std::function<void(Task task)>;
  using Handler = std::function<void(QELBroadcastMapsHostEvent event, Snapshot snapshot)>;

  struct Options {
    // Empty: the handler runs on the host's thread.
    Executor executor;
    // Empty: nothing is delivered; snapshot() still follows every change.
    Handler handler;
    // Applied on the host's thread before the service is made, instead of
    // whatever qel::core::QELConfiguration::set() was given before.
    std::optional<core::QELConfiguration> configuration;
    // Where the last picture of each resolution is kept across runs (made
    // if missing); unset: QEL_CACHE_DIR, and without that nothing is
    // written anywhere. A picture kept there is shown, stale and with its
    // true age, as soon as the host is made, and revalidated with the
    // server instead of downloaded again.
    std::optional<std::filesystem::path> cacheDirectory = std::nullopt;
    // Told of every picture's trace and, every statsInterval (zero: never),
    // of the stats; through the executor, like the handler.
    std::shared_ptr<QELBroadcastMapsHostListener> listener = nullptr;
    std::chrono::milliseconds statsInterval = std::chrono::milliseconds::zero();
    // Linux: watch the device's links, addresses and routes, and call
    // networkDidChange() on every change (an application that hears of
    // them from its platform calls it itself and leaves this off).
    bool watchNetwork = false;
  };

  // Starts the thread and makes the service there; returns once it is ready.
  // Empty when the service cannot be made or another host is alive.
  static std::unique_ptr<QELBroadcastMapsHost> create(Options options);

  QELBroadcastMapsHost(const QELBroadcastMapsHost&) = delete;
  QELBroadcastMapsHost& operator=(const QELBroadcastMapsHost&) = delete;
  ~QELBroadcastMapsHost();

  // The service's operations, posted to the host's loop.
  void start();
  void stop();
  void setCurrentResolutionWithCGSize(CGSize size);
  void clearCurrentResolution();
  // The device's network changed (call it from the platform's network
  // callback: another access point, a new address, a link back up): a
  // channel waiting to reconnect does so at once, with its backoff reset; a
  // connected one is checked with a ping.
  void networkDidChange();

  // The latest published snapshot; never empty.
  Snapshot snapshot() const;
  // The counters since the host was made (stats->json() for the document);
  // never empty.
  std::shared_ptr<const QELBroadcastMapsStats> stats() const;

  // The name of the service's notification that `event` stands for; empty
  // for StateDidChange and StatusDidChange.
  static std::string_view notificationName(QELBroadcastMapsHostEvent event);

 private:
  QELBroadcastMapsHost(std::shared_ptr<internal::QELBroadcastMapsHostBoundary> boundary,
                       std::unique_ptr<internal::QELBroadcastMapsHostThread> thread);

  // Shared with the loop thread and with deliveries in flight.
  std::shared_ptr<internal::QELBroadcastMapsHostBoundary> boundary_;
  std::unique_ptr<internal::QELBroadcastMapsHostThread> thread_;
};

}  // namespace qel
