// The shared map data controller: ownership, the REST path, pushed updates,
// refusal of malformed input, and the log lines operators look for.

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/Requests/_QELBroadcastMapsRequest.h"
#include "BroadcastMaps/Requests/_QELHostname.h"

#include <qel/KeyValueObserving.h>

namespace qel::testing {
namespace {

using internal::MapInfo;
using internal::QELBroadcastMapsController;
using json = boost::json::value;

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

  static std::vector<std::string> keys(const MapInfo& record) {
    std::vector<std::string> result;
    for (const auto& item : *record) result.emplace_back(item.key());
    return result;
  }

  void push(const boost::json::array& images) { events().deliver("core.maps.map_update", updateInfo(images)); }
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
  EXPECT_EQ(logged(5, "-[_QELBroadcastMapsController dealloc] called."), 1u);
}

TEST_F(ControllerTest, RestAnswerReplacesTheWholeRecordAndNormalisesEntries) {
  auto controller = ownController();
  auto observer = RecordObserver::attach(*controller);
  EXPECT_EQ(controller->mapInfo(), nullptr);

  boost::json::object withExtras = imageEntry(800, 600, nullptr);
  withExtras["format"] = "png";
  answerRest({imageEntry(1024, 768, "/a.png"), withExtras, imageEntry(nullptr, 600, "/b.png"),
              imageEntry(1024, 768, "/c.png"), imageEntry(1024.5, "300", "/d.png")});
  ASSERT_EQ(observer->seen.size(), 1u);
  const MapInfo record = controller->mapInfo();
  EXPECT_EQ(observer->seen[0], record);
  EXPECT_EQ(keys(record), (std::vector<std::string>{"1024x768", "800x600", "(null)x600", "1024.5x300"}));
  EXPECT_EQ(record->at("1024x768").at("src"), "/c.png") << "a later entry with the same key wins";
  EXPECT_EQ(record->at("800x600"), (boost::json::object{{"width", 800}, {"height", 600}, {"format", "png"}}));
  EXPECT_FALSE(record->at("(null)x600").as_object().contains("width"));

  // A new answer replaces; nothing of the old record survives.
  controller->reloadData();
  answerRest({imageEntry(400, 300, "/e.png")});
  EXPECT_EQ(keys(controller->mapInfo()), (std::vector<std::string>{"400x300"}));
  EXPECT_EQ(record->size(), 4u) << "a published record never changes";

  // No "images" is an empty record, which is not "no data".
  controller->reloadData();
  answer(core::QELRequest::Kind::REST, "{}");
  ASSERT_NE(controller->mapInfo(), nullptr);
  EXPECT_TRUE(controller->mapInfo()->empty());
  EXPECT_EQ(observer->seen.size(), 3u);
}

TEST_F(ControllerTest, RestFailureClearsTheRecordButAnUnreadableBodyKeepsIt) {
  auto controller = ownController();
  auto observer = RecordObserver::attach(*controller);
  answerRest({imageEntry(800, 600, "/a.png")});
  const MapInfo record = controller->mapInfo();

  controller->reloadData();
  answer(core::QELRequest::Kind::REST, "<html>busy</html>");
  EXPECT_EQ(controller->mapInfo(), record);
  EXPECT_EQ(observer->seen.size(), 1u);
  EXPECT_TRUE(messages(1).empty()) << "an unreadable body is not worth an alarm";

  // The map data request is sent four times in all before it counts as
  // failed; without a cabin host it is composed without one and sent all
  // the same.
  core::QELConfiguration::set({});
  controller->reloadData();
  for (int attempt = 0; attempt < 4; ++attempt) {
    ASSERT_EQ(openRest().size(), 1u) << "attempt " << attempt;
    EXPECT_EQ(requests().attempts()[openRest().front()].url, "https:/skelion/services/maps/v1/flight_map");
    answer(core::QELRequest::Kind::REST, std::nullopt);
    EXPECT_EQ(controller->mapInfo(), attempt < 3 ? record : nullptr) << "after attempt " << attempt;
    advance(30);  // the longest wait before a retry
  }
  EXPECT_EQ(observer->seen.size(), 2u);
  EXPECT_EQ(logged(4, "-[_QELBroadcastMapsController requestDidFail:withError:] called."), 1u);
}

TEST_F(ControllerTest, PendingReloadsAreAnsweredInTurnAndTheLastDecides) {
  auto controller = ownController();
  events().connect();  // a second load, queued behind the first
  drain();
  EXPECT_EQ(requests().attempts().size(), 1u) << "map data requests never run side by side";
  EXPECT_EQ(controller->mapInfo(), nullptr) << "connecting alone changes nothing";

  answerRest({imageEntry(800, 600, "/first.png")});
  EXPECT_EQ(controller->mapInfo()->at("800x600").at("src"), "/first.png");
  ASSERT_EQ(requests().attempts().size(), 2u);
  // A disconnect clears the record; an answer that arrives after it counts.
  events().disconnect();
  EXPECT_EQ(controller->mapInfo(), nullptr);
  answerRest({imageEntry(800, 600, "/second.png")});
  EXPECT_EQ(controller->mapInfo()->at("800x600").at("src"), "/second.png");
}

TEST_F(ControllerTest, PushedUpdatesMergeIntoTheRecord) {
  auto controller = ownController();
  auto observer = RecordObserver::attach(*controller);
  answerRest({imageEntry(800, 600, "/a.png"), imageEntry(400, 300, "/b.png")});

  // The event's name is only logged, never checked.
  controller->processEvent("any.other.name", std::make_shared<const boost::json::object>(updateInfo(
      {imageEntry(800, 600, "/a2.png"), imageEntry(1024, 768, nullptr)})));
  const MapInfo merged = controller->mapInfo();
  EXPECT_EQ(keys(merged), (std::vector<std::string>{"800x600", "400x300", "1024x768"}));
  EXPECT_EQ(merged->at("800x600"), imageEntry(800, 600, "/a2.png")) << "replaced whole";
  EXPECT_FALSE(merged->at("1024x768").as_object().contains("src"));

  push({});  // an empty update reassigns the same entries
  EXPECT_EQ(*controller->mapInfo(), *merged);
  // Every key again, in another order: the record keeps its own order.
  push({imageEntry(1024, 768, nullptr), imageEntry(400, 300, "/b.png"), imageEntry(800, 600, "/a2.png")});
  EXPECT_EQ(*controller->mapInfo(), *merged);
  EXPECT_EQ(keys(controller->mapInfo()), keys(merged));
  EXPECT_EQ(observer->seen.size(), 4u);

  // After a disconnect there is nothing to merge into: the record becomes
  // empty and the update's own entries are lost; the next one merges again.
  events().connect();
  events().disconnect();
  EXPECT_EQ(controller->mapInfo(), nullptr);
  push({imageEntry(800, 600, "/lost.png")});
  ASSERT_NE(controller->mapInfo(), nullptr);
  EXPECT_TRUE(controller->mapInfo()->empty());
  push({imageEntry(800, 600, "/kept.png")});
  EXPECT_EQ(keys(controller->mapInfo()), (std::vector<std::string>{"800x600"}));
}

TEST_F(ControllerTest, MalformedInputIsRefusedWholeWithoutTouchingTheRecord) {
  auto limited = core::QELConfiguration::effective();
  limited.maxMapEntries = 2;
  core::QELConfiguration::set(limited);
  auto controller = ownController();
  answerRest({imageEntry(800, 600, "/a.png")});
  auto observer = RecordObserver::attach(*controller);
  const MapInfo record = controller->mapInfo();
  env_.clearLogs();
  const boost::json::array twoNew = {imageEntry(1, 1, "/1.png"), imageEntry(2, 2, "/2.png")};

  // What the event's user information holds, or (REST) the whole body.
  struct Case {
    const char* what;
    bool rest;
    boost::json::value input;
    std::size_t levelOneLines;
  };
  const Case cases[] = {
      {"no images", false, boost::json::object{{"other", 1}}, 1},
      {"no data at all", false, nullptr, 1},
      {"images not text", false, boost::json::object{{"images", 5}}, 1},
      {"images null", false, boost::json::object{{"images", nullptr}}, 1},
      {"not JSON", false, boost::json::object{{"images", "[{"}}, 0},
      {"bare number", false, boost::json::object{{"images", "42"}}, 0},
      {"object, not array", false, boost::json::object{{"images", "{\"width\": 1}"}}, 1},
      {"element not object", false, boost::json::object{{"images", R"([{"width":1,"height":2,"src":"/y"}, 7])"}}, 1},
      {"REST top level array", true, "[]", 1},
      {"REST images null", true, R"({"images": null})", 1},
      {"REST element not object", true, R"({"images": [{"width":1,"height":2}, "x"]})", 1},
      {"update past the entry limit", false, updateInfo(twoNew), 1},
      {"REST answer past the entry limit", true,
       boost::json::string(boost::json::serialize(boost::json::object{
           {"images", boost::json::array{twoNew[0], twoNew[1], imageEntry(3, 3, "/3.png")}}})),
       1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    env_.clearLogs();
    if (c.rest) {
      controller->reloadData();
      answer(core::QELRequest::Kind::REST, c.input.as_string());
    } else if (c.input.is_null()) {
      events().deliver("core.maps.map_update", UserInfo());
    } else {
      events().deliver("core.maps.map_update", c.input.as_object());
    }
    EXPECT_EQ(controller->mapInfo(), record);
    EXPECT_TRUE(observer->seen.empty());
    EXPECT_EQ(messages(1).size(), c.levelOneLines);
  }

  // The line an operator greps for when the server sends events without data.
  env_.clearLogs();
  events().deliver("core.maps.map_update", boost::json::object{});
  ASSERT_EQ(messages(1).size(), 1u);
  EXPECT_EQ(messages(1)[0], "[_QELBroadcastMapsController.cpp 93] Invalid event received from server.");
  EXPECT_EQ(env_.logsContaining("Invalid event")[0].domain, "_QELBroadcastMapsController.cpp");

  push({twoNew[0], imageEntry(1, 1, "/1b.png")});  // up to the limit: one key twice adds one entry
  EXPECT_EQ(controller->mapInfo()->at("1x1"), imageEntry(1, 1, "/1b.png"));
}

using MapDataRequestTest = MapsTest;

TEST_F(MapDataRequestTest, ComposesTheServiceURLAndDropsPredicates) {
  auto request = core::QELRESTRequest::requestWithDelegate<internal::QELBroadcastMapsRequest>(nullptr);
  EXPECT_EQ(request->numberOfRetries(), 3);
  request->setPredicates(boost::json::value{{"since", 5}});
  EXPECT_FALSE(request->predicates().has_value());

  EXPECT_EQ(request->requestURL(), kFlightMapURL);
  EXPECT_EQ(request->requestURL(), kFlightMapURL);
  const auto lines = env_.logsContaining("Service url:");
  ASSERT_EQ(lines.size(), 2u) << "every composition is logged";
  EXPECT_EQ(lines[0].level, 5);
  EXPECT_EQ(lines[0].domain, "_QELHostname.h");
  EXPECT_EQ(lines[0].message,
            "NSString *_QELGetURLWithHost(NSString *__strong, BOOL, NSString *__strong, NSString *__strong) "
            "Service url: https://cabin.example/skelion/services/maps/v1/flight_map");
}

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
