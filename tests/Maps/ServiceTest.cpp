// The broadcast maps service at its public boundary: the relay through the
// default queue, the one argument check, and the exported symbols. What the
// service does over time is checked against the reference model
// (ModelTest.cpp) and its log against the golden file (GoldenLogTest.cpp).

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELMaps.h>

#include <qel/Format.h>
#include <qel/NotificationQueue.h>
#include <qel/core/QELNotifications.h>

#include <malloc.h>

#include <functional>
#include <random>
#include <sstream>
#include <thread>

namespace qel::testing {
namespace {

using internal::QELBroadcastMapsController;

constexpr const char* kStart = "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE";
constexpr const char* kRetrying = "-[_QELBroadcastMaps requestDidFail:withError:] Retrying...";

// Bytes the allocator hands out now; 0 under a sanitizer, whose allocator
// glibc does not see.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QEL_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QEL_SANITIZED_HEAP 1
#endif
#endif
std::size_t liveHeapBytes() {
#ifdef QEL_SANITIZED_HEAP
  return 0;
#else
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

class ServiceTest : public MapsTest {
 protected:
  void TearDown() override {
    drain();
    EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 0) << "an engine outlived its test";
  }

  // Brings the event channel up and answers the reload it causes.
  void connect(const boost::json::array& images) {
    events().connect();
    answerRest(images);
  }
  void push(const boost::json::array& images) {
    events().deliver("core.maps.map_update", updateInfo(images));
    drain();
  }

  std::shared_ptr<NotificationRecorder> app_ = NotificationRecorder::observe(NotificationCenter::defaultCenter());
};

TEST_F(ServiceTest, RelaysEngineNotificationsAsSoonAsPossibleWithTheServiceAsSender) {
  auto service = QELBroadcastMapsV1::create();
  service->start();
  EXPECT_TRUE(app_->entries.empty()) << "nothing reaches the application during the call";
  // As soon as possible: before what is enqueued later, even when idle.
  NotificationQueue::defaultQueue().enqueueNotification(Notification("LATER", nullptr), PostingStyle::PostASAP);
  drain();
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kStart, "LATER"}));
  EXPECT_EQ(app_->entries[0].sender, service.get());
  service->stop();
}

TEST_F(ServiceTest, SetCurrentResolutionRefusesOtherKindsLoudlyAndStoresNothing) {
  auto service = QELBroadcastMapsV1::create();
  auto chosen = QELBroadcastMapsResolution::create();
  service->setCurrentResolution(chosen);

  const std::string description =
      "Invalid parameter not satisfying: !resolution || [resolution isKindOfClass:[QELBroadcastMapsResolution class]]";
  const std::string reason =
      "Assertion failed with expression ((!resolution || [resolution isKindOfClass:"
      "[QELBroadcastMapsResolution class]])) in QELBroadcastMapsV1.cpp:41 -[QELBroadcastMapsV1 setCurrentResolution:]. " +
      description;
  struct NotAResolution : Object {};
  ::testing::internal::CaptureStderr();
  try {
    service->setCurrentResolution(std::make_shared<NotAResolution>());
    ADD_FAILURE() << "expected InternalInconsistencyException";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_EQ(e.what(), reason);
  }
  // Both lines reach the console whatever the log settings, description first.
  std::istringstream console(::testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string line; std::getline(console, line);) lines.push_back(line.substr(line.find("] ") + 2));
  EXPECT_EQ(lines, (std::vector<std::string>{"Description: " + description, "Reason: " + reason}));
  EXPECT_EQ(service->currentResolution(), chosen);

  struct Tagged : QELBroadcastMapsResolution {};
  auto tagged = std::make_shared<Tagged>();
  service->setCurrentResolution(tagged);
  EXPECT_EQ(service->currentResolution(), tagged);
  service->setCurrentResolution(nullptr);
  EXPECT_EQ(service->currentResolution(), nullptr);

  // A record describes itself as any object does: by its class and identity.
  auto fresh = QELBroadcastMapsResolution::create();
  EXPECT_EQ(fresh->CGSize(), (CGSize{0, 0}));
  EXPECT_EQ(stringWithFormat("%@", fresh), fresh->Object::description());
  EXPECT_EQ(QELBroadcastMapsV1::serviceVersion(), "03.19.02.00");
  EXPECT_STREQ(reinterpret_cast<const char*>(QELMapsVersionString), "@(#)PROGRAM:QELMaps  PROJECT:Maps-1\n");
  EXPECT_EQ(QELMapsVersionNumber, 1.0);
}

// The framework takes no locks: in debug builds every entry from another
// thread than its loop's stops the process at once.
// The shown picture is kept decoded, not also as the bytes it came from
// (noise: its PNG is as large as its pixels); whether the same bytes are
// decoded again is the model test's to check.
TEST_F(ServiceTest, TheShownPictureIsKeptDecodedNotAlsoAsItsBytes) {
  auto service = QELBroadcastMapsV1::create();
  answerRest({imageEntry(512, 512, "/maps/large.png")});
  service->start();
  std::mt19937 noise(7);
  Data rgba(512 * 512 * 4);
  for (auto& byte : rgba) byte = static_cast<std::uint8_t>(noise());
  const auto large = Image::fromRGBA(512, 512, std::move(rgba))->pngRepresentation();
  const auto heapBefore = liveHeapBytes();
  answerImage(large);
  ASSERT_NE(service->mapImage(), nullptr);
  if (heapBefore) {
    EXPECT_LT(liveHeapBytes() - heapBefore, large.size() * 3 / 2);
  }
}

TEST_F(ServiceTest, AnUnusableLimitInTheEnvironmentIsReadAndToldOncePerService) {
  struct UnusableLimits {
    UnusableLimits() {
      ::setenv("QEL_MAX_PIXELS", "lots", 1);
      ::setenv("QEL_MAX_MAP_ENTRIES", "-1", 1);
    }
    ~UnusableLimits() {
      ::unsetenv("QEL_MAX_PIXELS");
      ::unsetenv("QEL_MAX_MAP_ENTRIES");
    }
  } limits;
  auto service = QELBroadcastMapsV1::create();
  answerRest({imageEntry(8, 6, "/maps/1.png")});
  service->start();
  for (std::uint8_t update = 2; update < 5; ++update) {
    push({imageEntry(8, 6, boost::json::string("/maps/" + std::to_string(update) + ".png"))});
    answerImage(pngBytes(8, 6, update));
  }
  ASSERT_NE(service->mapImage(), nullptr) << "the default limits apply";
  EXPECT_EQ(env_.logsContaining("Ignoring QEL_MAX_PIXELS").size(), 1u);
  EXPECT_EQ(env_.logsContaining("Ignoring QEL_MAX_MAP_ENTRIES").size(), 1u);
  auto other = QELBroadcastMapsV1::create();
  push({imageEntry(8, 6, "/maps/5.png")});
  EXPECT_EQ(env_.logsContaining("Ignoring QEL_MAX_MAP_ENTRIES").size(), 2u) << "a new service reads afresh";
}

TEST_F(ServiceTest, EntriesFromAnotherThreadStopTheProcess) {
#ifdef NDEBUG
  GTEST_SKIP() << "the check is an assertion";
#else
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  using Engine = internal::QELBroadcastMaps;
  using Controller = QELBroadcastMapsController;
  const std::shared_ptr<core::QELRequest> request;
  const std::vector<std::function<void(Engine&, Controller&)>> entries = {
      [](Engine& e, Controller&) { e.start(); },
      [](Engine& e, Controller&) { e.stop(); },
      [](Engine& e, Controller&) { e.downloadImage(); },
      [&](Engine& e, Controller&) { e.requestDidFinish(request, {}); },
      [&](Engine& e, Controller&) { e.requestDidFail(request, {}); },
      [](Engine& e, Controller&) { e.observeValueForKeyPath("mapInfo", nullptr, {}, nullptr); },
      [](Engine&, Controller& c) { c.setMapInfo(nullptr); },
      [](Engine&, Controller& c) { c.processEvent("core.maps.map_update", nullptr); },
      [&](Engine&, Controller& c) { c.requestDidFinish(request, {}); },
      [&](Engine&, Controller& c) { c.requestDidFail(request, {}); },
  };
  for (std::size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_DEATH(
        {
          auto service = QELBroadcastMapsV1::create();
          auto engine = service->broadcastMaps();
          std::thread([&] { entries[i](*engine, *engine->broadcastMapsController()); }).join();
        },
        "called off its run loop thread");
  }
#endif
}

// The host runs each service on a thread of its own, one after another. A
// service released without stop() while its retry is pending goes when its
// thread's loop ends, and the map data the process shares goes with that
// loop, even while a service of it is still held: the next thread's service
// starts afresh, not on a queue of the ended loop.
TEST_F(ServiceTest, AServiceLeftRetryingGoesWithItsThreadsLoopAndTheNextStartsAfresh) {
  std::shared_ptr<QELBroadcastMapsV1> kept;
  std::thread([&] {
    kept = QELBroadcastMapsV1::create();
    auto service = QELBroadcastMapsV1::create();
    answerRest({imageEntry(800, 600, "/a.png")});
    connect({imageEntry(800, 600, "/a.png")});
    service->start();
    failImage();
    ASSERT_EQ(logged(4, kRetrying), 1u);
  }).join();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 1);

  std::thread([&] {
    auto service = QELBroadcastMapsV1::create();
    answerRest({imageEntry(800, 600, "/b.png")});
    service->start();
    answerImage(pngBytes(8, 6, 1));
    EXPECT_NE(service->mapImage(), nullptr);
  }).join();
  kept.reset();
}

}  // namespace
}  // namespace qel::testing
