#pragma once

#include <QELMaps/QELBroadcastMapsStatus.h>

#include <qel/core/TransportMonitor.h>

#include <functional>
#include <memory>
#include <optional>

namespace qel {
class QELBroadcastMapsV1;
}

namespace qel::internal {

// The host's account of why the map is or is not live. It listens to the
// transports' reports on the loop thread, adds what only the service can
// tell (map data or a picture that arrived but was refused), and composes
// the status each snapshot carries.
//
// Content refusals are judged after the service has taken the answer: the
// answer was refused when the service's record (or picture) did not follow
// it, and the reason is then read from the answer itself.
//
// Threading: the host's loop thread only.
//
//   auto status = std::make_shared<QELBroadcastMapsHostStatus>(service, [&] { publish(); });
//   core::TransportMonitor::current().addObserver(status);
//   snapshot.status = status->compose(inputs);
class QELBroadcastMapsHostStatus : public core::TransportObserver,
                                   public std::enable_shared_from_this<QELBroadcastMapsHostStatus> {
 public:
  struct Inputs {
    bool receiving = false;
    bool connected = false;
    bool hasMapData = false;
    bool hasMapRecord = false;
  };

  // `changed` is called (on the loop) when a report changed what compose()
  // would say.
  QELBroadcastMapsHostStatus(std::weak_ptr<QELBroadcastMapsV1> service, std::function<void()> changed);

  // The status for the service's current state, the phase's start kept
  // across calls while the phase stays.
  QELBroadcastMapsStatus compose(const Inputs& inputs);

  void transportWillConnect(core::TransportChannel channel) override;
  void transportDidSucceed(core::TransportChannel channel, const core::TransportAnswer& answer) override;
  void transportDidFail(core::TransportChannel channel, const core::TransportFailure& failure,
                        std::optional<Clock::time_point> nextAttempt) override;
  void transportWillRetry(core::TransportChannel channel, Clock::time_point nextAttempt) override;

 private:
  struct ChannelState {
    std::optional<QELBroadcastMapsStatus::Failure> failure;
    // On the wall clock, as the status shows it.
    std::optional<QELBroadcastMapsStatus::Clock::time_point> nextAttempt;
  };
  ChannelState& state(core::TransportChannel channel);
  void recordFailure(core::TransportChannel channel, const core::TransportFailure& failure,
                     std::optional<Clock::time_point> nextAttempt);
  void recordSuccess(core::TransportChannel channel);
  void recomposeLater();
  // After the service has taken an answer: whether it was refused, and why.
  void checkMapData(const void* recordBefore, std::optional<std::string> reason);
  void checkPicture(std::string reasonIfRefused);

  std::weak_ptr<QELBroadcastMapsV1> service_;
  std::function<void()> changed_;
  ChannelState events_;
  ChannelState mapData_;
  ChannelState picture_;
  QELBroadcastMapsStatus::Phase phase_ = QELBroadcastMapsStatus::Phase::Stopped;
  QELBroadcastMapsStatus::Clock::time_point since_ = QELBroadcastMapsStatus::Clock::now();
};

}  // namespace qel::internal
