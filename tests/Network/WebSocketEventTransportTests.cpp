#include "NetworkTestSupport.h"

#include <qel/core/QELEventManager.h>
#include <qel/core/net/WebSocketEventTransport.h>

#include <qel/core/QELLogging.h>
#include <qel/core/TransportMonitor.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <random>

namespace qel::core::net::testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* kMapUpdate = "core.maps.map_update";

class Listener : public Object {
 public:
  void receive(const std::shared_ptr<QELEvent>& event) {
    events.push_back(event);
    names.push_back(event->name());
  }
  std::vector<std::shared_ptr<QELEvent>> events;
  std::vector<std::string> names;
};

class WebSocketEventTransportTests : public NetworkTest {
 protected:
  ~WebSocketEventTransportTests() override {
    manager().removeTarget(listener_.get());
    manager().setTransport(nullptr);
  }

  static QELEventManager& manager() { return QELEventManager::defaultManager(); }

  // Installs a transport with these options and registers the listener for
  // its connects, disconnects and map updates, which starts it.
  WebSocketEventTransport& install(WebSocketEventTransport::Options options) {
    auto transport = std::make_unique<WebSocketEventTransport>(std::move(options));
    auto& result = *transport;
    manager().setTransport(std::move(transport));
    for (const char* name : {QELServiceEventClientConnected, QELServiceEventClientDisconnected, kMapUpdate})
      manager().addTarget(listener_, &Listener::receive, name);
    return result;
  }
  WebSocketEventTransport& listen(std::optional<QELConfiguration> configuration = std::nullopt) {
    WebSocketEventTransport::Options options;
    options.backoff = Backoff{20ms, 2.0, 30s, 1.0};
    options.configuration = std::move(configuration);
    return install(std::move(options));
  }
  bool waitFor(const std::string& name, long count) {
    return runUntil([&] { return std::count(listener_->names.begin(), listener_->names.end(), name) >= count; });
  }

  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
};

TEST_F(WebSocketEventTransportTests, DeliversEventsDropsMalformedFramesAndReconnectsOnceClosed) {
  std::vector<std::string> lines;
  QELLogging::setSink([&](int, std::string_view, std::string_view message) { lines.emplace_back(message); });
  listen();
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  EXPECT_EQ(server_.requestTargets().back(), "/skelion/events");

  const std::string malformed[] = {
      "not json\n1 Forged.cpp ok", "[1, 2]", R"({"name": 5})", R"({"name": "core.maps.map_update", "userInfo": [1]})",
      R"({"name": "core.maps.map_update", "userInfo": {"pad": ")" + std::string(1024 * 1024, 'x') + "\"}}"};
  for (const auto& frame : malformed) server_.send(frame);
  server_.send(R"({"name": "core.maps.map_update"})", /*binary=*/true);
  server_.send(R"({"name": "core.maps.map_update", "userInfo": {"images": "[]"}})");
  server_.send(R"({"name": "core.maps.map_update"})");
  ASSERT_TRUE(waitFor(kMapUpdate, 2));
  ASSERT_TRUE(listener_->events[1]->userInfo());
  EXPECT_EQ(listener_->events[1]->userInfo()->at("images"), "[]");
  EXPECT_FALSE(listener_->events[2]->userInfo());

  // The close reason and the dropped frames are the server's text, quoted
  // in the log with their escapes (every line is escaped where it is written).
  server_.closeWebSockets("bye\n1 Forged.cpp all is well\x1b[2J");
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 2));
  QELLogging::setSink(nullptr);
  EXPECT_THAT(lines, ::testing::Contains(::testing::HasSubstr(R"(not json\n1 Forged.cpp ok)")));
  // A burst of frames to drop is one line, not one per frame.
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.rfind("Dropped an event frame: ", 0) == 0; }),
            1);
  EXPECT_THAT(lines, ::testing::Contains(::testing::HasSubstr(R"("bye\n1 Forged.cpp all is well\x1b[2J")")));

  // Only the close disconnected it, once.
  EXPECT_EQ(listener_->names,
            (std::vector<std::string>{QELServiceEventClientConnected, kMapUpdate, kMapUpdate,
                                      QELServiceEventClientDisconnected, QELServiceEventClientConnected}));
  EXPECT_TRUE(manager().isConnected());
}

TEST_F(WebSocketEventTransportTests, WithoutAHostOrATrustedServerItNeverCountsAsConnected) {
  // Without a host it does not even try.
  auto& idle = listen(QELConfiguration{});
  loop().runPending();
  EXPECT_EQ(idle.connectionAttempts(), 0);
  EXPECT_EQ(server_.acceptCount(), 0);

  // An untrusted server: it keeps trying, and never tells anyone it connected.
  TestServer impostor(loop().context(), cabinsim::CertificateAuthority("Stranger CA").issue({"127.0.0.1"}));
  configure(impostor.port());
  auto& transport = listen();
  ASSERT_TRUE(runUntil([&] { return transport.connectionAttempts() >= 3; }));
  EXPECT_TRUE(listener_->names.empty());
  EXPECT_FALSE(manager().isConnected());
  EXPECT_TRUE(impostor.requestTargets().empty());
}

TEST_F(WebSocketEventTransportTests, ADeadFirstAddressCostsOnlyItsHeadStart) {
  DeadFirstAddresses addresses(server_.port());
  auto& configuration = addresses.configuration;
  int connections = 0;
  for (const char* host : {"cabin.test", "named.test"}) {
    SCOPED_TRACE(host);
    configuration.host = host;
    const auto started = std::chrono::steady_clock::now();
    auto& transport = listen(configuration);
    ASSERT_TRUE(waitFor(QELServiceEventClientConnected, ++connections));
    EXPECT_EQ(transport.connectionAttempts(), 1);
    EXPECT_LT(std::chrono::steady_clock::now() - started, WebSocketEventTransport::Options().connectTimeout);
  }
  // The table answered without asking the name server.
  EXPECT_EQ(addresses.dns.questions().size(), 2u);  // A and AAAA for named.test
}

TEST_F(WebSocketEventTransportTests, ARaceOverManySilentAddressesHoldsFewDescriptors) {
  SilentAddresses addresses(server_.port(), 12);
  WebSocketEventTransport::Options options;
  options.maximumAttempts = 4;
  options.attemptDelay = 100ms;
  options.configuration = addresses.configuration;
  const long before = openDescriptors();
  long peak = before;
  install(options);
  ASSERT_TRUE(runUntil([&] {
    peak = std::max(peak, openDescriptors());
    return !listener_->names.empty();
  }));
  // The attempts allowed at once and the connection's own socket.
  EXPECT_LE(peak - before, 4 + 1);
}

// A server that announces its restart (1012, 1013) is tried again at a
// steady pace instead of the growing backoff; after a change of network a
// channel waiting out its backoff reconnects at once, and says when.
TEST_F(WebSocketEventTransportTests, AnAnnouncedRestartAndANetworkChangeCutTheWaitShort) {
  WebSocketEventTransport::Options options;
  options.backoff = Backoff{1h, 2.0, 1h, 0.0};  // the growing backoff would never come back within the test
  options.plannedEvery = 100ms;
  auto& channel = install(options);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  server_.closeWebSockets("restarting", 1012);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 2)) << "not back after the announced restart";
  server_.closeWebSockets("busy", 1013);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 3)) << "not back after \"try again later\"";

  // An ordinary close waits out the backoff (an hour here); a network change
  // ends the wait.
  server_.closeWebSockets("bye", 1001);
  ASSERT_TRUE(waitFor(QELServiceEventClientDisconnected, 3));
  loop().runFor(200ms);
  EXPECT_EQ(std::count(listener_->names.begin(), listener_->names.end(), QELServiceEventClientConnected), 3);
  struct Retries : TransportObserver {
    void transportWillRetry(TransportChannel channel, Clock::time_point next) override {
      if (channel == TransportChannel::Events) at.push_back(next);
    }
    std::vector<Clock::time_point> at;
  };
  const auto retries = std::make_shared<Retries>();
  TransportMonitor::current().addObserver(retries);
  channel.networkChanged();
  ASSERT_EQ(retries->at.size(), 1u) << "a status would go on showing the hour's wait";
  EXPECT_LE(retries->at[0] - std::chrono::steady_clock::now(), options.networkChangeSpread);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 4)) << "the network change did not reconnect";
}

// Each connection lost soon after it was made lengthens the next wait; one
// that stayed up for healthyAfter starts the backoff again. Waits of 100 ms,
// then 2 s (twenty times, no jitter), then 100 ms again.
TEST_F(WebSocketEventTransportTests, TheBackoffGrowsWithShortConnectionsAndStartsAgainAfterAHealthyOne) {
  WebSocketEventTransport::Options options;
  options.backoff = Backoff{100ms, 20.0, 1h, 0.0};
  options.healthyAfter = 1s;
  options.roundTripInterval = {};
  install(options);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  // The wait from the close to the next connection.
  const auto reconnectAfterClose = [&](long connections) {
    server_.closeWebSockets("bye", 1001);
    const auto closed = std::chrono::steady_clock::now();
    EXPECT_TRUE(waitFor(QELServiceEventClientConnected, connections));
    return std::chrono::steady_clock::now() - closed;
  };
  EXPECT_LT(reconnectAfterClose(2), 1s);
  EXPECT_GE(reconnectAfterClose(3), 2s) << "the second wait did not grow";
  loop().runFor(1200ms);
  EXPECT_LT(reconnectAfterClose(4), 1s) << "a healthy connection did not start the backoff again";
}

// A channel whose server answers pings stays up however long it says
// nothing else; once the path goes silent (nothing carried, not even the
// pongs) it is taken for dead within deadAfter: a silent channel is pinged
// at half of it, so that is two ping intervals.
TEST_F(WebSocketEventTransportTests, APathThatGoesSilentIsTakenForDeadWithinTwoPingIntervals) {
  WebSocketEventTransport::Options options;
  options.deadAfter = 400ms;
  options.roundTripInterval = {};
  options.backoff = Backoff{1h, 2.0, 1h, 0.0};
  install(options);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  loop().runFor(1500ms);
  ASSERT_TRUE(manager().isConnected()) << "a channel whose pings were answered was taken for dead";

  server_.silenceWebSockets();
  const auto silenced = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitFor(QELServiceEventClientDisconnected, 1));
  // The deadline plus the loop's slack on a loaded machine: well short of
  // the default's 20 s, and of the operating system's own timeouts.
  EXPECT_LT(std::chrono::steady_clock::now() - silenced, options.deadAfter + 1s);
}

// After a change of network the channel asks the server at once instead of
// waiting out the dead interval (an hour here): an answered ping keeps the
// connection; an unanswered one replaces it, without the backoff (an hour too).
TEST_F(WebSocketEventTransportTests, ANetworkChangeFindsASilentPathAtOnceAndConnectsAgain) {
  WebSocketEventTransport::Options options;
  options.deadAfter = 1h;
  options.roundTripInterval = {};
  options.checkDeadline = 300ms;
  options.networkChangeSpread = 50ms;
  options.backoff = Backoff{1h, 2.0, 1h, 0.0};
  auto& channel = install(options);
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  channel.networkChanged();
  loop().runFor(600ms);
  EXPECT_EQ(listener_->names, std::vector<std::string>{QELServiceEventClientConnected}) << "an answered check failed";

  server_.silenceWebSockets();
  channel.networkChanged();
  ASSERT_TRUE(waitFor(QELServiceEventClientDisconnected, 1));
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 2)) << "not connected again after the failed check";
  EXPECT_EQ(channel.connectionAttempts(), 2);
}

// The pace of an announced restart: each device's first wait falls anywhere
// in the interval, the later ones keep to it, and a cabin of them never puts
// a tenth of its devices' attempts in one 100 ms.
TEST(WebSocketEventTransportBackoff, AnAnnouncedRestartIsRetriedAtABoundedSpreadRate) {
  const WebSocketEventTransport::Options options;
  const auto every = options.plannedEvery;
  constexpr int kDevices = 300;
  std::map<long, int> attemptsPerTenth;
  for (int device = 0; device < kDevices; ++device) {
    std::mt19937 random(static_cast<unsigned>(device));
    std::chrono::steady_clock::duration at{};
    for (int attempt = 0; at < 20s; ++attempt) {
      const auto delay = WebSocketEventTransport::plannedDelay(attempt, options, random);
      ASSERT_GE(delay, attempt == 0 ? std::chrono::steady_clock::duration{} : every - every / 20);
      ASSERT_LE(delay, attempt == 0 ? every : every + every / 20);
      at += delay;
      ++attemptsPerTenth[static_cast<long>(at / 100ms)];
    }
  }
  int peak = 0;
  for (const auto& [tenth, attempts] : attemptsPerTenth) peak = std::max(peak, attempts);
  EXPECT_LE(peak, kDevices / 10);
}

}  // namespace
}  // namespace qel::core::net::testing
