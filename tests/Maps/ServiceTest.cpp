// The broadcast maps service as an application sees it: notifications
// relayed through the default queue, resolutions, downloads, retries, and
// following the shared map data record.

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELMaps.h>

#include <qel/Image.h>
#include <qel/core/QELNotifications.h>

#include <set>

namespace qel::testing {
namespace {

using internal::QELBroadcastMapsController;

constexpr const char* kStart = "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE";
constexpr const char* kImage = "BROADCAST_MAPS_IMAGE_DID_CHANGE";
constexpr const char* kResolutions = "BROADCAST_MAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE";
constexpr const char* kError = "BROADCAST_MAPS_ERROR";
constexpr const char* kStop = "BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE";

class ServiceTest : public MapsTest {
 protected:
  void SetUp() override { app_ = NotificationRecorder::observe(NotificationCenter::defaultCenter()); }
  void TearDown() override {
    drain();
    EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 0) << "an engine outlived its test";
  }

  // A service with map data loaded and its first notifications delivered.
  std::shared_ptr<QELBroadcastMapsV1> serviceWithData(const boost::json::array& images) {
    auto service = QELBroadcastMapsV1::create();
    if (!openRest().empty()) answerRest(images);
    drain();
    app_->clear();
    return service;
  }

  // Brings the event channel up and answers the reload it causes.
  void connect(const boost::json::array& images) {
    events().connect();
    answerRest(images);
    drain();
    app_->clear();
  }

  std::string lastImageURL() { return requests().attempts()[openImages().back()].url; }

  std::shared_ptr<NotificationRecorder> app_;
};

TEST_F(ServiceTest, RelaysEngineNotificationsAfterTheCalloutWithTheServiceAsSender) {
  auto service = QELBroadcastMapsV1::create();
  auto other = QELBroadcastMapsV1::create();
  ASSERT_TRUE(service && other);

  service->start();
  EXPECT_TRUE(app_->entries.empty()) << "nothing reaches the application during the call";
  drain();
  ASSERT_EQ(app_->entries.size(), 1u);
  EXPECT_EQ(app_->entries[0].name, kStart);
  EXPECT_EQ(app_->entries[0].sender, service.get());

  // Every engine hears the shared record change; each service relays only
  // its own engine, with itself as sender.
  answerRest({imageEntry(800, 600, "/a.png")});
  EXPECT_EQ(app_->count(kResolutions), 2u);
  std::set<const Object*> senders;
  for (const auto& entry : app_->entries) senders.insert(entry.sender);
  EXPECT_EQ(senders, (std::set<const Object*>{service.get(), other.get()}));

  // Equal notifications still waiting are merged.
  app_->clear();
  service->start();
  service->start();
  drain();
  EXPECT_EQ(app_->count(kStart), 1u);
  service->stop();
}

TEST_F(ServiceTest, ResolutionsFollowTheRecordThroughSinglePrecision) {
  auto service = QELBroadcastMapsV1::create();
  EXPECT_FALSE(service->availableResolutions().has_value()) << "no data: no list at all";
  answerRest({});
  EXPECT_FALSE(service->availableResolutions().has_value()) << "an empty record lists nothing either";

  events().connect();
  answerRest({imageEntry(800, 600, "/800.png"), imageEntry(1024, 768, "/1024.png"),
              imageEntry(nullptr, 300, "/nowidth.png"), imageEntry(0.1, 0.1, "/tenth.png")});
  auto list = service->availableResolutions();
  ASSERT_TRUE(list.has_value());
  ASSERT_EQ(list->size(), 4u);
  EXPECT_EQ((*list)[0]->CGSize(), (CGSize{800, 600}));
  EXPECT_EQ((*list)[1]->CGSize(), (CGSize{1024, 768}));
  EXPECT_EQ((*list)[2]->CGSize(), (CGSize{0, 300}));
  EXPECT_EQ((*list)[3]->width(), static_cast<double>(0.1f));
  EXPECT_NE(service->availableResolutions()->front(), list->front()) << "a new list each time";

  auto engine = service->broadcastMaps();
  env_.clearLogs();
  EXPECT_EQ(engine->imageURLForResolution(), "/800.png");
  EXPECT_EQ(logCount("image resolution not set. Setting first resolution"), 1u);
  EXPECT_EQ(service->currentResolution(), nullptr) << "the fallback is not stored";

  service->setCurrentResolution((*list)[1]);
  EXPECT_EQ(service->currentResolution(), (*list)[1]) << "the very record";
  EXPECT_EQ(engine->imageURLForResolution(), "/1024.png");
  service->setCurrentResolution((*list)[3]);  // a listed resolution always finds its entry
  EXPECT_EQ(engine->imageURLForResolution(), "/tenth.png");
  service->setCurrentResolutionWithCGSize({0, 300});
  EXPECT_EQ(engine->imageURLForResolution(), "/nowidth.png");

  env_.clearLogs();
  service->setCurrentResolutionWithCGSize({0.1, 0.1});  // stored exactly, never equal to a float
  EXPECT_EQ(service->currentResolution()->width(), 0.1);
  EXPECT_EQ(engine->imageURLForResolution(), "/800.png");
  EXPECT_EQ(engine->imageURLForResolution(), "/800.png");
  EXPECT_EQ(logCount("-[_QELBroadcastMaps imageURLForResolution] image resolution not found. Setting first resolution"), 2u);

  // Sizes that differ only beyond single precision are one size: the first wins.
  events().disconnect();
  events().connect();
  answerRest({imageEntry(16777217, 1, "/second-listed-first.png"), imageEntry(16777216, 1, "/exact.png")});
  service->setCurrentResolutionWithCGSize({16777216, 1});
  EXPECT_EQ(engine->imageURLForResolution(), "/second-listed-first.png");
}

TEST_F(ServiceTest, SetCurrentResolutionRefusesOtherKindsAndStoresNothing) {
  auto service = QELBroadcastMapsV1::create();
  auto chosen = QELBroadcastMapsResolution::create();
  service->setCurrentResolution(chosen);

  struct NotAResolution : Object {};
  try {
    service->setCurrentResolution(std::make_shared<NotAResolution>());
    FAIL() << "expected InternalInconsistencyException";
  } catch (const InternalInconsistencyException& e) {
    EXPECT_STREQ(e.what(),
                 "Assertion failed with expression ((!resolution || [resolution isKindOfClass:"
                 "[QELBroadcastMapsResolution class]])) in QELBroadcastMapsV1.cpp:41 "
                 "-[QELBroadcastMapsV1 setCurrentResolution:]. Invalid parameter not satisfying: "
                 "!resolution || [resolution isKindOfClass:[QELBroadcastMapsResolution class]]");
  }
  EXPECT_EQ(service->currentResolution(), chosen);

  struct Tagged : QELBroadcastMapsResolution {};
  auto tagged = std::make_shared<Tagged>();
  service->setCurrentResolution(tagged);
  EXPECT_EQ(service->currentResolution(), tagged);
  service->setCurrentResolution(nullptr);
  EXPECT_EQ(service->currentResolution(), nullptr);

  auto fresh = QELBroadcastMapsResolution::create();
  EXPECT_EQ(fresh->CGSize(), (CGSize{0, 0}));
  EXPECT_EQ(QELBroadcastMapsV1::serviceVersion(), "03.19.02.00");
  const auto* version = reinterpret_cast<const char*>(QELMapsVersionString);
  EXPECT_STREQ(version, "@(#)PROGRAM:QELMaps  PROJECT:Maps-1\n");
  EXPECT_EQ(QELMapsVersionNumber, 1.0);
}

TEST_F(ServiceTest, DownloadsAndAnnouncesOnlyPicturesThatDiffer) {
  auto service = serviceWithData({imageEntry(800, 600, "/maps/800x600/1.png")});
  service->setCurrentResolutionWithCGSize({800, 600});
  EXPECT_TRUE(openImages().empty()) << "choosing starts nothing";

  service->start();
  ASSERT_EQ(openImages().size(), 1u);
  EXPECT_EQ(lastImageURL(), "/maps/800x600/1.png");
  const auto picture = pngBytes(8, 6, 1);
  answerImage(picture);
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kStart, kImage}));
  ASSERT_NE(service->mapImage(), nullptr);
  EXPECT_EQ(*service->mapImage(), *Image::fromData(picture));
  const auto held = service->mapImage();

  // A new source with the same picture is downloaded but not announced.
  app_->clear();
  events().deliver("core.maps.map_update", updateInfo({imageEntry(800, 600, "/maps/800x600/2.png")}));
  ASSERT_EQ(openImages().size(), 1u);
  answerImage(picture);
  EXPECT_TRUE(app_->entries.empty());
  EXPECT_EQ(service->mapImage(), held) << "the same bytes are not decoded again";

  events().deliver("core.maps.map_update", updateInfo({imageEntry(800, 600, "/maps/800x600/3.png")}));
  answerImage(pngBytes(8, 6, 2));
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kImage}));
  EXPECT_NE(*service->mapImage(), *held);

  // Bytes that are no picture clear it, once.
  app_->clear();
  events().deliver("core.maps.map_update", updateInfo({imageEntry(800, 600, "/maps/800x600/4.png")}));
  requests().finish(openImages().front(), "not a picture");
  drain();
  EXPECT_EQ(service->mapImage(), nullptr);
  events().deliver("core.maps.map_update", updateInfo({imageEntry(800, 600, "/maps/800x600/5.png")}));
  requests().finish(openImages().front(), "still not");
  drain();
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kImage}));

  // After stop the last picture stays and nothing is announced.
  events().deliver("core.maps.map_update", updateInfo({imageEntry(800, 600, "/maps/800x600/6.png")}));
  answerImage(picture);
  app_->clear();
  service->stop();
  drain();
  EXPECT_TRUE(app_->entries.empty());
  EXPECT_NE(service->mapImage(), nullptr);
}

TEST_F(ServiceTest, FailedDownloadsRetryEveryFiveSecondsOnlyWhileConnected) {
  auto service = serviceWithData({imageEntry(800, 600, "/a.png")});
  service->start();

  // Not connected: a failure is final until something else asks again.
  requests().fail(openImages().front());
  drain();
  advance(60);
  EXPECT_TRUE(openImages().empty());
  EXPECT_EQ(logCount("Retrying..."), 0u);

  connect({imageEntry(800, 600, "/a.png")});
  service->start();
  requests().fail(openImages().front());
  drain();
  EXPECT_EQ(logCount("-[_QELBroadcastMaps requestDidFail:withError:] Retrying..."), 1u);
  advance(4.9);
  EXPECT_TRUE(openImages().empty());
  advance(0.1);
  ASSERT_EQ(openImages().size(), 1u) << "retried after exactly five seconds";
  requests().fail(openImages().front());
  drain();
  EXPECT_EQ(logCount("Retrying..."), 2u);

  // stop() cancels the pending retry; the engine is released with the service.
  service->stop();
  advance(60);
  EXPECT_TRUE(openImages().empty());
  service.reset();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 0);
}

TEST_F(ServiceTest, APendingRetryKeepsItsEngineAliveUntilItFires) {
  auto service = serviceWithData({imageEntry(800, 600, "/a.png")});
  connect({imageEntry(800, 600, "/a.png")});
  service->start();
  requests().fail(openImages().front());
  drain();

  service.reset();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 1) << "the retry timer holds the engine";
  EXPECT_EQ(logCount("-[_QELBroadcastMaps dealloc] called."), 0u);
  advance(5);
  drain();
  // Once fired, the timer lets go and the engine's teardown cancels what the
  // retry started.
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 0);
  EXPECT_EQ(logCount("-[_QELBroadcastMaps dealloc] called."), 1u);
  EXPECT_TRUE(openImages().empty());
}

TEST_F(ServiceTest, RecordChangesAnnounceResolutionsThenImageThenError) {
  auto service = QELBroadcastMapsV1::create();
  service->start();
  answerRest({imageEntry(800, 600, "/a.png"), imageEntry(400, 300, "/b.png")});
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kStart, kResolutions}));
  answerImage(pngBytes(4, 3, 1));
  app_->clear();

  // Same keys in the same order and the same source: nothing at all.
  drain();
  const auto attemptsBefore = requests().attempts().size();
  events().deliver("core.maps.map_update", updateInfo({imageEntry(800, 600, "/a.png")}));
  drain();
  EXPECT_TRUE(app_->entries.empty());
  EXPECT_EQ(requests().attempts().size(), attemptsBefore);

  // The same keys listed in another order are a change (and the first entry,
  // hence the source, moved too).
  events().connect();
  answerRest({imageEntry(400, 300, "/b.png"), imageEntry(800, 600, "/a.png")});
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kResolutions}));
  EXPECT_EQ(lastImageURL(), "/b.png");

  // Losing the data: resolutions, then the cleared image, then the error.
  answerImage(pngBytes(4, 3, 2));
  app_->clear();
  events().disconnect();
  drain();
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kResolutions, kImage, kError}));

  // Nil again: no resolution change, but the error again.
  app_->clear();
  service->broadcastMaps()->broadcastMapsController()->setMapInfo(nullptr);
  drain();
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kError}));

  // An empty record is no error.
  app_->clear();
  events().connect();
  answerRest({});
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kResolutions}));
  service->stop();
}

TEST_F(ServiceTest, AStoppedServiceStillTracksChangesButDownloadsNothing) {
  auto service = serviceWithData({imageEntry(800, 600, "/a.png")});
  connect({imageEntry(800, 600, "/a.png")});
  events().deliver("core.maps.map_update", updateInfo({imageEntry(1024, 768, "/b.png")}));
  drain();
  events().disconnect();
  drain();
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kResolutions, kResolutions, kError}));
  EXPECT_TRUE(openImages().empty());
  EXPECT_GE(logCount("-[_QELBroadcastMaps downloadImage] Do not download images is set."), 1u);

  // A changed choice waits for the next trigger: start downloads at once.
  connect({imageEntry(800, 600, "/a.png"), imageEntry(1024, 768, "/b.png")});
  service->setCurrentResolutionWithCGSize({1024, 768});
  EXPECT_TRUE(openImages().empty());
  service->start();
  EXPECT_EQ(lastImageURL(), "/b.png");
  service->stop();
}

TEST_F(ServiceTest, AnotherSendersStopNotificationStopsTheEngine) {
  auto service = serviceWithData({imageEntry(800, 600, "/a.png")});
  service->start();
  drain();
  ASSERT_EQ(openImages().size(), 1u);
  app_->clear();

  // Its own stop notification is ignored (though relayed, like any other)...
  core::qelInternalCenter().postNotificationName(kStop, service->broadcastMaps());
  drain();
  EXPECT_EQ(openImages().size(), 1u);
  EXPECT_EQ(app_->count(kStop), 1u);

  // ...another sender's makes it stop and say so.
  struct Outsider : Object {};
  core::qelInternalCenter().postNotificationName(kStop, std::make_shared<Outsider>());
  EXPECT_TRUE(openImages().empty());
  EXPECT_FALSE(service->broadcastMaps()->shouldDownloadImages());
  drain();
  EXPECT_EQ(app_->count(kStop), 2u);
  EXPECT_EQ(app_->entries.back().sender, service.get());
}

TEST_F(ServiceTest, ServicesShareOneControllerAndDownloadOneImageAtATime) {
  auto first = serviceWithData({imageEntry(800, 600, "/a.png"), imageEntry(400, 300, "/b.png")});
  auto second = QELBroadcastMapsV1::create();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 2);
  EXPECT_EQ(first->broadcastMaps()->broadcastMapsController(),
            second->broadcastMaps()->broadcastMapsController());
  EXPECT_EQ(openRest().size(), 0u) << "one load for the process";
  EXPECT_TRUE(second->availableResolutions().has_value()) << "the second starts from the shared record";

  second->setCurrentResolutionWithCGSize({400, 300});
  first->start();
  second->start();
  ASSERT_EQ(openImages().size(), 1u) << "the second download waits";
  answerImage(pngBytes(8, 6, 1));
  ASSERT_EQ(openImages().size(), 1u);
  EXPECT_EQ(lastImageURL(), "/b.png");
  answerImage(pngBytes(4, 3, 1));
  EXPECT_NE(first->mapImage(), nullptr);
  EXPECT_NE(second->mapImage(), nullptr);

  first.reset();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 1);
  second.reset();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 0);
}

}  // namespace
}  // namespace qel::testing
