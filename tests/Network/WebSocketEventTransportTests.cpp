#include "NetworkTestSupport.h"

#include <qel/core/QELEventManager.h>
#include <qel/core/net/WebSocketEventTransport.h>

namespace qel::core::net::testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* kMapUpdate = "core.maps.map_update";

class Listener : public Object {
 public:
  void receive(const std::shared_ptr<QELEvent>& event) { events.push_back(event); }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& event : events) result.push_back(event->name());
    return result;
  }
  int count(const std::string& name) const {
    int n = 0;
    for (const auto& event : events) n += event->name() == name;
    return n;
  }
  std::vector<std::shared_ptr<QELEvent>> events;
};

class WebSocketEventTransportTests : public NetworkTest {
 protected:
  ~WebSocketEventTransportTests() override {
    manager().removeTarget(listener_.get());
    manager().setTransport(nullptr);
  }

  static QELEventManager& manager() { return QELEventManager::defaultManager(); }

  // Installs the transport and registers the listener, which starts it.
  WebSocketEventTransport& listen(WebSocketEventTransport::Options options = {}) {
    options.initialBackoff = 20ms;
    auto transport = std::make_unique<WebSocketEventTransport>(std::move(options));
    auto& result = *transport;
    manager().setTransport(std::move(transport));
    for (const char* name : {QELServiceEventClientConnected, QELServiceEventClientDisconnected, kMapUpdate}) {
      manager().addTarget(listener_, &Listener::receive, name);
    }
    return result;
  }
  bool waitFor(const std::string& name, int count) {
    return runUntil([&] { return listener_->count(name) >= count; });
  }

  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
};

TEST_F(WebSocketEventTransportTests, DeliversWellFormedEventsAndDropsTheRest) {
  listen();
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  EXPECT_TRUE(manager().isConnected());
  EXPECT_EQ(server_.requestTargets().back(), "/skelion/events");

  server_.sendText("not json");
  server_.sendText("[1, 2]");
  server_.sendText(R"({"name": 5})");
  server_.sendText(R"({"name": "core.maps.map_update", "userInfo": [1]})");
  server_.sendBinary(R"({"name": "core.maps.map_update"})");
  server_.sendText(R"({"name": "core.maps.map_update", "userInfo": {"pad": ")" + std::string(1024 * 1024, 'x') +
                   "\"}}");
  server_.sendText(R"({"name": "core.maps.map_update", "userInfo": {"images": "[]"}})");
  server_.sendText(R"({"name": "core.maps.map_update"})");
  ASSERT_TRUE(waitFor(kMapUpdate, 2));

  const auto& first = listener_->events[1];
  ASSERT_TRUE(first->userInfo());
  EXPECT_EQ(first->userInfo()->at("images"), "[]");
  EXPECT_FALSE(listener_->events[2]->userInfo());
  EXPECT_EQ(logsContaining("Dropped").size(), 6u);
  EXPECT_EQ(listener_->names(), (std::vector<std::string>{QELServiceEventClientConnected, kMapUpdate, kMapUpdate}));
  EXPECT_TRUE(manager().isConnected());
}

TEST_F(WebSocketEventTransportTests, ServerCloseIsOneDisconnectThenItReconnects) {
  listen();
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 1));
  server_.closeWebSockets();
  ASSERT_TRUE(waitFor(QELServiceEventClientConnected, 2));

  EXPECT_EQ(listener_->names(), (std::vector<std::string>{QELServiceEventClientConnected,
                                                          QELServiceEventClientDisconnected,
                                                          QELServiceEventClientConnected}));
  EXPECT_TRUE(manager().isConnected());
  EXPECT_EQ(server_.acceptCount(), 2);
}

TEST_F(WebSocketEventTransportTests, SilentConnectionIsTakenForDead) {
  server_.setAnswerPings(false);
  WebSocketEventTransport::Options options;
  options.deadAfter = 300ms;
  listen(options);
  ASSERT_TRUE(waitFor(QELServiceEventClientDisconnected, 1));
  EXPECT_FALSE(manager().isConnected());
  EXPECT_EQ(logsContaining("no frame and no pong").size(), 1u);
}

TEST_F(WebSocketEventTransportTests, UntrustedServerNeverCountsAsConnected) {
  const auto stranger = TestCertificate::authority("Stranger CA");
  TestServer impostor(loop().context(), TestCertificate::issue(stranger, {"localhost"}, {"127.0.0.1"}));
  configure("127.0.0.1", impostor.port(), caFile_.path());
  auto& transport = listen();
  // It keeps trying, and never tells anyone it connected.
  ASSERT_TRUE(runUntil([&] { return transport.connectionAttempts() >= 3; }));
  EXPECT_TRUE(listener_->events.empty());
  EXPECT_FALSE(manager().isConnected());
  EXPECT_TRUE(impostor.requestTargets().empty());
  EXPECT_FALSE(logsContaining("certificate").empty());
}

TEST_F(WebSocketEventTransportTests, WithoutAHostItStaysDisconnectedAndSaysSoOnce) {
  WebSocketEventTransport::Options options;
  options.configuration = QELConfiguration{};
  auto& transport = listen(options);
  manager().removeTarget(listener_.get());
  manager().addTarget(listener_, &Listener::receive, kMapUpdate);
  loop().runPending();

  EXPECT_EQ(transport.connectionAttempts(), 0);
  EXPECT_EQ(logsContaining("No cabin server host").size(), 1u);
  EXPECT_EQ(server_.acceptCount(), 0);
}

}  // namespace
}  // namespace qel::core::net::testing
