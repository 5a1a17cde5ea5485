#pragma once

#include "Host/_QELBroadcastMapsHostBoundary.h"
#include "Host/_QELBroadcastMapsHostCache.h"
#include "Host/_QELBroadcastMapsHostLastPicture.h"
#include "Host/_QELBroadcastMapsHostStats.h"
#include "Host/_QELBroadcastMapsHostStatus.h"

#include <QELMaps/QELBroadcastMapsHost.h>
#include <QELMaps/QELBroadcastMapsV1.h>

#include <qel/Notification.h>
#include <qel/Object.h>
#include <qel/RunLoop.h>
#include <qel/ThreadChecker.h>
#include <qel/core/net/NetworkWatcher.h>

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace qel::internal {

// The thread behind a QELBroadcastMapsHost: it runs a qel::RunLoop, makes
// the service on it, follows the service's notifications and publishes a
// snapshot to the boundary after each change.
//
// Everything but the constructor, post() and the destructor runs on the
// loop thread, where the service lives; the constructor returns once the
// service is made (or failed to be), the destructor once the service is gone
// and the thread has ended.
//
// Threading: construct, post() and destroy from any thread; the rest is the
// loop thread's.
//
//   QELBroadcastMapsHostThread thread(boundary, std::move(options));
//   if (thread.isReady()) thread.post([](QELBroadcastMapsV1& service) { service.start(); });
class QELBroadcastMapsHostThread {
 public:
  // The options' executor and handler are the boundary's and unused here.
  QELBroadcastMapsHostThread(std::shared_ptr<QELBroadcastMapsHostBoundary> boundary,
                             QELBroadcastMapsHost::Options options);
  QELBroadcastMapsHostThread(const QELBroadcastMapsHostThread&) = delete;
  QELBroadcastMapsHostThread& operator=(const QELBroadcastMapsHostThread&) = delete;
  ~QELBroadcastMapsHostThread();

  // The service was made and the loop is running.
  bool isReady() const { return service_ != nullptr; }

  // Runs `operation` on the loop with the service, in the order posted, then
  // publishes the snapshot if the operation changed it.
  void post(std::function<void(QELBroadcastMapsV1&)> operation);

  // Loop thread: the event channel reconnects at once, or checks itself.
  static void networkDidChange();

 private:
  // Loop thread.
  void run(std::optional<core::QELConfiguration> configuration, std::optional<std::filesystem::path> cacheDirectory,
           bool watchNetwork, std::function<void()> ready);
  void openCache(std::optional<std::filesystem::path> directory);
  void startStats();
  void publishStats();
  void reportStats();
  // A cached picture of the size the application chose, while nothing newer
  // has arrived.
  void restoreChosenSize();
  void notificationReceived(const Notification& notification);
  void publish(std::optional<QELBroadcastMapsHostEvent> event);
  // Publishes the current snapshot again, as the change of status it holds.
  void announceStatus();
  QELBroadcastMapsSnapshot makeSnapshot();

  const std::shared_ptr<QELBroadcastMapsHostBoundary> boundary_;
  RunLoop* loop_ = nullptr;  // set before the constructor returns, valid until
                             // the thread ends
  std::shared_ptr<QELBroadcastMapsV1> service_;
  std::shared_ptr<Object> observer_;
  std::shared_ptr<QELBroadcastMapsHostStatus> status_;
  std::shared_ptr<QELBroadcastMapsHostCache> cache_;
  std::shared_ptr<QELBroadcastMapsHostStats> stats_;
  const std::shared_ptr<QELBroadcastMapsHostListener> listener_;
  const std::chrono::milliseconds statsInterval_;
  std::shared_ptr<ScheduledCall> statsTimer_;
  std::unique_ptr<core::net::NetworkWatcher> networkWatcher_;
  QELBroadcastMapsHostLastPicture lastPicture_;
  std::shared_ptr<const QELBroadcastMapsSnapshot> published_;
  std::unique_ptr<ThreadChecker> threadChecker_;
  // Set by the destructor once its last post() has returned.
  std::promise<void> stopPosted_;
  std::thread thread_;
};

}  // namespace qel::internal
