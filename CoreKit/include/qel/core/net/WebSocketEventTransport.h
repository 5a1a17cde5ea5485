#pragma once

#include "qel/core/QELEventManager.h"
#include "qel/core/QELHostname.h"
#include "qel/core/ReconnectPolicy.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <random>

namespace qel::core::net {

// The event channel to the cabin server: a WebSocket over TLS to
// wss://<host>:<port><eventPath>, verified like every other connection.
//
// A host with several addresses is raced: each address gets a short head
// start (attemptDelay) before the next joins, and the first to connect is
// used, so a dead address costs a fraction of a second. A failed attempt
// closes its socket at once and at most maximumAttempts run together, so a
// name with a thousand dead addresses costs a handful of descriptors.
//
// Each text frame is one JSON object {"name": "...", "userInfo": {...}}
// ("userInfo" may be absent) and becomes one event for the manager. Frames
// that are larger than kMaximumFrameSize, binary, or not such an object are
// dropped with a log line; the connection stays up.
//
// The WebSocket handshake completing is "connected"; the connection closing
// or failing is "disconnected", reported once per connection (an attempt that
// never connected reports nothing). The transport then reconnects on its own,
// after a wait drawn from the reconnect policy's event backoff (by default
// between zero and a bound that starts at 3 s and doubles with each attempt
// up to 8 s); a connection that stayed up a minute starts it again. A
// connection silent for half of deadAfter is pinged; one that has said
// nothing, not even a pong, for deadAfter is taken for dead, so a link that
// silently stopped carrying anything is noticed within deadAfter.
//
// Without a configured host the transport logs that once and stays
// disconnected.
//
// Threading: the run loop thread; it reports to the manager from that loop.
//
//   QELEventManager::defaultManager().setTransport(std::make_unique<WebSocketEventTransport>());
class WebSocketEventTransport : public EventTransport {
 public:
  static constexpr std::chrono::seconds kConnectTimeout{5};
  static constexpr std::chrono::milliseconds kAttemptDelay{250};
  static constexpr int kMaximumAttempts = 8;
  static constexpr std::chrono::seconds kDeadAfter{20};
  static constexpr std::chrono::seconds kHealthyAfter{60};
  static constexpr std::size_t kMaximumFrameSize = 1024 * 1024;
  static constexpr std::chrono::seconds kRoundTripInterval{15};
  // A server that closes with 1012 (restarting) or 1013 (try again later)
  // is back soon: the first attempt comes within kPlannedEvery, then one
  // every kPlannedEvery, for up to kPlannedWindow, before the growing
  // backoff. On the whole cabin (300 devices) that brought every one back
  // within about 2.5 s of the server listening, with the event channels'
  // attempts under a tenth of the devices in any 100 ms.
  static constexpr std::chrono::milliseconds kPlannedEvery{2000};
  static constexpr std::chrono::seconds kPlannedWindow{60};
  // After a change of network a connected channel is pinged and must be
  // answered within kCheckDeadline; one that is not, or one waiting or
  // connecting, starts a new attempt within kNetworkChangeSpread.
  static constexpr std::chrono::seconds kCheckDeadline{3};
  static constexpr std::chrono::milliseconds kNetworkChangeSpread{2000};

  struct Options {
    // Bounds resolving, connecting and each of the TLS and WebSocket handshakes.
    std::chrono::steady_clock::duration connectTimeout = kConnectTimeout;
    // With several addresses, how long one connect attempt runs alone
    // before the next address joins the race.
    std::chrono::steady_clock::duration attemptDelay = kAttemptDelay;
    // Connect attempts running at once: the race over a long list of dead
    // addresses holds no more descriptors than this.
    int maximumAttempts = kMaximumAttempts;
    std::chrono::steady_clock::duration deadAfter = kDeadAfter;
    // Unset: the configuration's reconnect policy (its event backoff).
    std::optional<Backoff> backoff;
    std::chrono::steady_clock::duration healthyAfter = kHealthyAfter;
    std::size_t maximumFrameSize = kMaximumFrameSize;
    // How often an open channel is pinged to measure the round trip (the
    // TransportMonitor hears of each); zero: never.
    std::chrono::steady_clock::duration roundTripInterval = kRoundTripInterval;
    std::chrono::steady_clock::duration plannedEvery = kPlannedEvery;
    std::chrono::steady_clock::duration plannedWindow = kPlannedWindow;
    std::chrono::steady_clock::duration checkDeadline = kCheckDeadline;
    std::chrono::steady_clock::duration networkChangeSpread = kNetworkChangeSpread;
    // Used instead of QELConfiguration::current() when set.
    std::optional<QELConfiguration> configuration;
  };

  WebSocketEventTransport();
  explicit WebSocketEventTransport(Options options);
  WebSocketEventTransport(const WebSocketEventTransport&) = delete;
  WebSocketEventTransport& operator=(const WebSocketEventTransport&) = delete;
  ~WebSocketEventTransport() override;

  void start(QELEventManager& manager) override;
  void stop() override;

  // Connection attempts since construction.
  int connectionAttempts() const;

  // The wait before attempt number `attempt` (from 0) while a server's
  // announced restart lasts: the first uniform within plannedEvery, each
  // later one plannedEvery within a twentieth of it.
  static std::chrono::steady_clock::duration plannedDelay(int attempt, const Options& options, std::mt19937& random);

  // Checks an open connection with a ping that must be answered within
  // checkDeadline; a connection that fails it, an attempt in progress and
  // a wait for the next attempt all give way to a new attempt within
  // networkChangeSpread, the backoff reset.
  void networkChanged() override;

 private:
  class Channel;
  class Session;
  std::shared_ptr<Channel> channel_;
};

}  // namespace qel::core::net
