// The shared map data controller's class API (owners, the shared instance
// and queue) and how service URLs are composed. The record it keeps, from
// REST answers, pushed updates, failures and malformed input, is checked
// against the reference model (ModelTest.cpp); its log lines, the service
// URL's among them, against the golden file.

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/Requests/_QELHostname.h"

#include <qel/KeyValueObserving.h>

namespace qel::testing {
namespace {

using internal::MapInfo;
using internal::QELBroadcastMapsController;

// Counts the controller's "mapInfo" assignments and keeps what was assigned.
struct RecordObserver : Object, KeyValueObserver {
  static std::shared_ptr<RecordObserver> attach(QELBroadcastMapsController& controller) {
    auto observer = std::make_shared<RecordObserver>();
    controller.addObserver(observer, "mapInfo", KeyValueObservingOptions::New, nullptr);
    return observer;
  }
  void observeValueForKeyPath(const std::string& keyPath, const Object*, const KeyValueChange& change,
                              void*) override {
    ASSERT_EQ(keyPath, "mapInfo");
    seen.push_back(std::any_cast<MapInfo>(change.newValue));
  }
  std::vector<MapInfo> seen;
};

class ControllerTest : public MapsTest {
 protected:
  // Takes a share the way an engine does.
  std::shared_ptr<QELBroadcastMapsController> ownController() {
    auto controller = QELBroadcastMapsController::defaultController();
    QELBroadcastMapsController::own();
    return controller;
  }
  void TearDown() override {
    while (QELBroadcastMapsController::ownersCount() > 0) QELBroadcastMapsController::free();
    drain();  // what the test left queued ends here, not in the next test
  }
};

TEST_F(ControllerTest, SharedInstanceIsCountedByOwnersAndRenewedAfterTheLastFree) {
  QELBroadcastMapsController::own();  // counting alone creates nothing
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 1);
  EXPECT_TRUE(requests().attempts().empty());
  QELBroadcastMapsController::free();

  auto first = ownController();
  auto again = ownController();
  EXPECT_EQ(first, again);
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 2);
  drain();
  ASSERT_EQ(requests().attempts().size(), 1u) << "one load per creation, not per owner";
  EXPECT_EQ(requests().attempts()[0].url, kFlightMapURL);
  const auto firstQueue = QELBroadcastMapsController::requestQueue();

  QELBroadcastMapsController::free();
  EXPECT_EQ(QELBroadcastMapsController::defaultController(), first) << "one owner is left";
  QELBroadcastMapsController::free();
  QELBroadcastMapsController::free();  // extra frees are ignored
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 0);

  auto second = ownController();
  EXPECT_NE(second, first);
  EXPECT_NE(QELBroadcastMapsController::requestQueue(), firstQueue);
  EXPECT_EQ(QELBroadcastMapsController::requestQueue()->maxConcurrentOperationCount(), 1);
  drain();
  EXPECT_EQ(requests().attempts().size(), 2u) << "the new controller loads again";

  // Both still receive events until the old one is torn down.
  auto oldObserver = RecordObserver::attach(*first);
  auto newObserver = RecordObserver::attach(*second);
  events().disconnect();
  events().connect();
  events().disconnect();
  EXPECT_EQ(oldObserver->seen.size(), 1u);
  EXPECT_EQ(newObserver->seen.size(), 1u);

  EXPECT_EQ(core::QELEventManager::defaultManager().targetCount(), 2u);
  first.reset();
  again.reset();
  EXPECT_EQ(core::QELEventManager::defaultManager().targetCount(), 1u)
      << "teardown withdraws the subscriptions";
}

using MapDataRequestTest = MapsTest;

TEST_F(MapDataRequestTest, JoinsPathsWithTheSlashTheyLack) {
  const std::optional<std::string> host = "h";
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "/a/", "b"), "https://h/a/b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "a", "/b"), "https://h/a/b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "/a/", "/b"), "https://h/a//b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "/", "/b"), "https://h//b") << "doubled slashes are kept as they are";
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "", ""), "https://h/");
  EXPECT_EQ(internal::QELGetURLWithHost(host, false, "a", "b"), "http://h/a/b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "a b", "c%d"), "https://h/a b/c%d")
      << "escapes the composition adds are removed again";
  EXPECT_EQ(internal::QELGetURLWithHost(std::nullopt, true, "a", "b"), "https:/a/b");
  for (const char* ipv6 : {"::1", "[::1]"})
    EXPECT_EQ(internal::QELGetURLWithHost(ipv6, true, "a", "b"), "https://[::1]/a/b");
}

}  // namespace
}  // namespace qel::testing
