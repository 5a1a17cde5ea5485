#pragma once

#include <QELMaps/QELBroadcastMapsSnapshot.h>
#include <QELMaps/QELBroadcastMapsTrace.h>

#include <qel/core/TransportMonitor.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>

namespace qel {
class QELBroadcastMapsV1;
}

namespace qel::internal {

// The host's numbers: a trace of every picture download, from the update
// that named it to the snapshot that showed it, and the counters of the
// stats document. It listens to the transports' reports and to the host's
// snapshots on the loop thread.
//
// A download's trace ends when the service has taken its bytes: at once
// for a failure, the same picture or bytes that do not decode, and for a
// new picture when the host publishes the snapshot that shows it.
//
// Threading: the host's loop thread only.
//
//   auto stats = std::make_shared<QELBroadcastMapsHostStats>(service, onTrace, onChange);
//   core::TransportMonitor::current().addObserver(stats);
//   stats->published(*snapshot);
class QELBroadcastMapsHostStats : public core::TransportObserver,
                                  public std::enable_shared_from_this<QELBroadcastMapsHostStats> {
 public:
  QELBroadcastMapsHostStats(std::weak_ptr<QELBroadcastMapsV1> service,
                            std::function<void(const QELBroadcastMapsTrace&)> traced, std::function<void()> changed);

  // A snapshot was published.
  void published(const QELBroadcastMapsSnapshot& snapshot);
  // The counters, with the age of `snapshot`'s picture.
  QELBroadcastMapsStats stats(const QELBroadcastMapsSnapshot& snapshot) const;

  void transportWillConnect(core::TransportChannel channel) override;
  void transportDidSucceed(core::TransportChannel channel, const core::TransportAnswer& answer) override;
  void transportDidFail(core::TransportChannel channel, const core::TransportFailure& failure,
                        std::optional<Clock::time_point> nextAttempt) override;
  void transportDidReceiveEvent() override;
  void transportDidMeasureRoundTrip(Clock::duration roundTrip) override;

 private:
  QELBroadcastMapsTrace traceOf(const std::string& url, const std::optional<core::TransportTiming>& timing) const;
  void afterService(QELBroadcastMapsTrace trace, const void* imageBefore);
  void finish(QELBroadcastMapsTrace trace);
  void countRequest(const QELBroadcastMapsTrace& trace);
  void updateArrived();

  std::weak_ptr<QELBroadcastMapsV1> service_;
  std::function<void(const QELBroadcastMapsTrace&)> traced_;
  std::function<void()> changed_;
  QELBroadcastMapsStats counters_;
  // When the latest updates (events, map data answers) arrived, oldest
  // first: a download's is the last one before it was queued.
  std::deque<Clock::time_point> updates_;
  std::optional<QELBroadcastMapsTrace> pending_;  // decoded, waiting to be shown
  bool connectedOnce_ = false;
  std::deque<double> requestSeconds_;  // the latest, for the median
  std::deque<double> roundTrips_;
};

}  // namespace qel::internal
