// The broadcast maps service as an application sees it (notifications
// relayed through the default queue, resolutions, downloads, retries,
// following the shared map data record), and what its engine announces on
// the internal centre and in the log, in order.

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELMaps.h>

#include <qel/Format.h>
#include <qel/Image.h>
#include <qel/NotificationQueue.h>
#include <qel/core/QELNotifications.h>

#include <malloc.h>

#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

namespace qel::testing {
namespace {

using internal::QELBroadcastMapsController;

constexpr const char* kStart = "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE";
constexpr const char* kImage = "BROADCAST_MAPS_IMAGE_DID_CHANGE";
constexpr const char* kResolutions = "BROADCAST_MAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE";
constexpr const char* kError = "BROADCAST_MAPS_ERROR";
constexpr const char* kStop = "BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE";
constexpr const char* kDownloadCalled = "-[_QELBroadcastMaps downloadImage] called.";
constexpr const char* kRetrying = "-[_QELBroadcastMaps requestDidFail:withError:] Retrying...";
constexpr const char* kNotSet =
    "-[_QELBroadcastMaps imageURLForResolution] image resolution not set. Setting first resolution";
constexpr const char* kNotFound =
    "-[_QELBroadcastMaps imageURLForResolution] image resolution not found. Setting first resolution";

// Line `number` of the engine's source, as this build compiled it.
std::string engineSourceLine(int number) {
  std::ifstream source(QEL_MAPS_SOURCE_DIR "/BroadcastMaps/_QELBroadcastMaps.cpp");
  std::string line;
  for (int i = 0; i < number && std::getline(source, line); ++i) {}
  return line;
}

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

  // A service with map data loaded and its first notifications delivered.
  std::shared_ptr<QELBroadcastMapsV1> serviceWithData(const boost::json::array& images) {
    auto service = QELBroadcastMapsV1::create();
    if (!openRest().empty()) answerRest(images);
    app_->clear();
    internal_->clear();
    announcedFrom_ = env_.logs().size();
    return service;
  }

  // Brings the event channel up and answers the reload it causes.
  void connect(const boost::json::array& images) {
    events().connect();
    answerRest(images);
    app_->clear();
  }
  void push(const boost::json::array& images) {
    events().deliver("core.maps.map_update", updateInfo(images));
    drain();
  }

  std::string lastImageURL() { return requests().attempts()[openImages().back()].url; }

  // What the engines posted on the internal centre since the last check,
  // each announced just before by its log line: level 3, the constant's own
  // name, and the file and line of the logging statement itself.
  void expectPosted(const std::vector<std::string>& values) {
    static const std::map<std::string, std::string> kValueOf = {
        {"_QELBroadcastMapsImageDidStartReceivingImageNotification", kStart},
        {"QELBroadcastMapsImageDidChangeNotification", kImage},
        {"QELBroadcastMapsAvailableResolutionsDidChangeNotification", kResolutions},
        {"QELBroadcastMapsErrorNotification", kError},
        {"QELBroadcastMapsImageDidStopReceivingImageNotification", kStop}};
    static const std::regex kAnnouncement(R"(\[_QELBroadcastMaps\.cpp (\d+)\] Posting notification: (\w+)\.)");
    std::vector<std::string> announced;
    for (std::size_t i = announcedFrom_; i < env_.logs().size(); ++i) {
      const auto& record = env_.logs()[i];
      if (record.message.find("Posting notification") == std::string::npos) continue;
      std::smatch match;
      ASSERT_TRUE(std::regex_match(record.message, match, kAnnouncement)) << record.message;
      EXPECT_EQ(record.level, 3) << record.message;
      EXPECT_EQ(record.domain, "_QELBroadcastMaps.cpp");
      const std::string constant = match[2];
      EXPECT_NE(engineSourceLine(std::stoi(match[1])).find("Posting notification: " + constant + "."), std::string::npos)
          << record.message << " does not name its own statement";
      announced.push_back(kValueOf.contains(constant) ? kValueOf.at(constant) : constant);
    }
    EXPECT_EQ(internal_->names(), values);
    EXPECT_EQ(announced, values);
    internal_->clear();
    announcedFrom_ = env_.logs().size();
  }

  std::shared_ptr<NotificationRecorder> app_ = NotificationRecorder::observe(NotificationCenter::defaultCenter());
  std::shared_ptr<NotificationRecorder> internal_ = NotificationRecorder::observe(core::qelInternalCenter());
  std::size_t announcedFrom_ = 0;
};

TEST_F(ServiceTest, RelaysEngineNotificationsAsSoonAsPossibleWithTheServiceAsSender) {
  auto service = QELBroadcastMapsV1::create();
  auto other = QELBroadcastMapsV1::create();

  service->start();
  EXPECT_TRUE(app_->entries.empty()) << "nothing reaches the application during the call";
  // As soon as possible: before what is enqueued later, even when idle.
  NotificationQueue::defaultQueue().enqueueNotification(Notification("LATER", nullptr), PostingStyle::PostASAP);
  drain();
  EXPECT_EQ(app_->names(), (std::vector<std::string>{kStart, "LATER"}));
  EXPECT_EQ(app_->entries[0].sender, service.get());

  // Every engine hears the shared record change; each service relays only
  // its own engine, with itself as sender.
  app_->clear();
  answerRest({imageEntry(800, 600, "/a.png")});
  EXPECT_EQ(app_->count(kResolutions), 2u);
  std::set<const Object*> senders;
  for (const auto& entry : app_->entries) senders.insert(entry.sender);
  EXPECT_EQ(senders, (std::set<const Object*>{service.get(), other.get()}));
  service->stop();
}

TEST_F(ServiceTest, ResolutionsFollowTheRecordThroughSinglePrecision) {
  auto service = QELBroadcastMapsV1::create();
  auto engine = service->broadcastMaps();
  EXPECT_FALSE(service->availableResolutions().has_value()) << "no data: no list at all";
  answerRest({});
  env_.clearLogs();
  EXPECT_FALSE(service->availableResolutions().has_value()) << "an empty record lists nothing either";
  EXPECT_EQ(engine->imageURLForResolution(), std::nullopt);
  EXPECT_TRUE(env_.logs().empty()) << "no data is no news for the log";

  events().connect();
  answerRest({imageEntry(800, 600, "/800.png"), imageEntry(1024, 768, nullptr), imageEntry(nullptr, 300, "/nowidth.png"),
              imageEntry(0.1, 0.1, "/tenth.png"), imageEntry(1024.5, 768, "/half.png"), imageEntry(800, 450, "/wide.png")});
  auto list = service->availableResolutions();
  ASSERT_TRUE(list.has_value());
  ASSERT_EQ(list->size(), 6u);
  EXPECT_EQ((*list)[0]->CGSize(), (CGSize{800, 600}));
  EXPECT_EQ((*list)[2]->CGSize(), (CGSize{0, 300}));
  EXPECT_EQ((*list)[3]->width(), static_cast<double>(0.1f));
  EXPECT_NE(service->availableResolutions()->front(), list->front()) << "a new list each time";

  env_.clearLogs();
  EXPECT_EQ(engine->imageURLForResolution(), "/800.png");
  EXPECT_EQ(engine->imageURLForResolution(), "/800.png");
  EXPECT_EQ(logged(4, kNotSet), 2u) << "the fallback is worked out, and said, every time";
  EXPECT_EQ(service->currentResolution(), nullptr) << "the fallback is not stored";

  struct Choice {
    CGSize size;
    const char* source;
    std::size_t notFoundLines;
  };
  const Choice choices[] = {
      {{800, 450}, "/wide.png", 0},       // the height decides between equal widths
      {{0, 300}, "/nowidth.png", 0},      // a missing width is 0
      {{1024.5, 768}, "/half.png", 0},    // exact in single precision
      {{1024, 768}, "/800.png", 1},       // matched, but without a source: the first entry's
      {{0.1, 0.1}, "/800.png", 1},        // stored exactly, so never equal to a single-precision 0.1
  };
  for (const auto& choice : choices) {
    SCOPED_TRACE(choice.source);
    env_.clearLogs();
    service->setCurrentResolutionWithCGSize(choice.size);
    EXPECT_EQ(service->currentResolution()->CGSize(), choice.size);
    EXPECT_EQ(engine->imageURLForResolution(), choice.source);
    EXPECT_EQ(logged(4, kNotFound), choice.notFoundLines);
    EXPECT_EQ(env_.logs().size(), choice.notFoundLines);
  }
  service->setCurrentResolution((*list)[3]);  // a listed resolution always finds its entry
  EXPECT_EQ(service->currentResolution(), (*list)[3]) << "the very record";
  EXPECT_EQ(engine->imageURLForResolution(), "/tenth.png");

  // Sizes that differ only beyond single precision are one size: the first wins.
  events().disconnect();
  events().connect();
  answerRest({imageEntry(16777217, 1, "/second-listed-first.png"), imageEntry(16777216, 1, "/exact.png")});
  service->setCurrentResolutionWithCGSize({16777216, 1});
  EXPECT_EQ(engine->imageURLForResolution(), "/second-listed-first.png");
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

TEST_F(ServiceTest, DownloadsAndAnnouncesOnlyPicturesThatDiffer) {
  auto service = serviceWithData({imageEntry(800, 600, "/maps/1.png")});
  auto engine = service->broadcastMaps();
  service->setCurrentResolutionWithCGSize({800, 600});
  EXPECT_TRUE(openImages().empty()) << "choosing starts nothing";

  // Each start announces itself before it switches downloading on, and
  // replaces the download under way.
  std::vector<bool> downloadingAtStart;
  std::shared_ptr<const Image> imageWhenAnnounced;
  core::qelInternalCenter().addObserver(
      internal_, [&](const Notification&) { downloadingAtStart.push_back(engine->shouldDownloadImages()); }, kStart);
  core::qelInternalCenter().addObserver(
      internal_, [&](const Notification&) { imageWhenAnnounced = engine->mapImage(); }, kImage);
  service->start();
  const auto first = openImages().front();
  service->start();
  EXPECT_EQ(downloadingAtStart, (std::vector<bool>{false, true}));
  ASSERT_EQ(openImages().size(), 1u);
  EXPECT_TRUE(requests().attempts()[first].cancelled);
  EXPECT_EQ(lastImageURL(), "/maps/1.png");
  const auto picture = pngBytes(8, 6, 1);
  answerImage(picture);
  expectPosted({kStart, kStart, kImage});
  ASSERT_NE(service->mapImage(), nullptr);
  EXPECT_EQ(imageWhenAnnounced, service->mapImage()) << "observers read the new picture";
  EXPECT_EQ(*service->mapImage(), *Image::fromData(picture));
  const auto held = service->mapImage();

  // A new source with the same picture is downloaded but not announced.
  push({imageEntry(800, 600, "/maps/2.png")});
  answerImage(picture);
  EXPECT_EQ(service->mapImage(), held) << "the same bytes are not decoded again";
  // Other bytes of the same picture (trailing bytes after its end) are
  // decoded, and still not announced.
  auto sameAgain = picture;
  sameAgain.insert(sameAgain.end(), 16, 0);
  push({imageEntry(800, 600, "/maps/2b.png")});
  answerImage(sameAgain);
  ASSERT_NE(service->mapImage(), nullptr);
  EXPECT_NE(service->mapImage(), held);
  EXPECT_EQ(*service->mapImage(), *held);
  push({imageEntry(800, 600, "/maps/3.png")});
  answerImage(pngBytes(8, 6, 2));
  expectPosted({kImage});
  EXPECT_NE(*service->mapImage(), *held);

  // An entry that loses its source leaves the picture as it is.
  push({imageEntry(800, 600, nullptr)});
  EXPECT_EQ(logged(4, "-[_QELBroadcastMaps downloadImage] no image url. Should not happen."), 1u);
  EXPECT_NE(service->mapImage(), nullptr);
  EXPECT_TRUE(openImages().empty());

  // Bytes that are no picture clear it, once.
  push({imageEntry(800, 600, "/maps/4.png")});
  answerImage(Data(4, 0));
  EXPECT_EQ(service->mapImage(), nullptr);
  push({imageEntry(800, 600, "/maps/5.png")});
  answerImage(Data(4, 'x'));
  expectPosted({kImage});

  // The shown picture is kept decoded, not also as the bytes it came from
  // (noise: its PNG is as large as its pixels).
  std::mt19937 noise(7);
  Data rgba(512 * 512 * 4);
  for (auto& byte : rgba) byte = static_cast<std::uint8_t>(noise());
  const auto large = Image::fromRGBA(512, 512, std::move(rgba))->pngRepresentation();
  push({imageEntry(800, 600, "/maps/large.png")});
  const auto heapBefore = liveHeapBytes();
  answerImage(large);
  ASSERT_NE(service->mapImage(), nullptr);
  if (heapBefore) {
    EXPECT_LT(liveHeapBytes() - heapBefore, large.size() * 3 / 2);
  }

  auto limited = core::QELConfiguration::effective();
  limited.maxPixels = 47;
  core::QELConfiguration::set(limited);
  push({imageEntry(800, 600, "/maps/6.png")});
  answerImage(pngBytes(8, 6, 3));
  EXPECT_EQ(logged(1,
                   "-[_QELBroadcastMaps requestDidFinish:withData:] Picture refused: its header "
                   "declares 8x6 pixels, more than the 47 allowed."),
            1u);
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
  auto service = serviceWithData({imageEntry(8, 6, "/maps/1.png")});
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

TEST_F(ServiceTest, FailedDownloadsRetryEveryFiveSecondsOnlyWhileConnected) {
  auto service = serviceWithData({imageEntry(800, 600, "/a.png")});
  service->start();

  // Not connected: a failure is final until something else asks again.
  failImage();
  advance(60);
  EXPECT_TRUE(openImages().empty());
  EXPECT_EQ(logged(4, kRetrying), 0u);

  connect({imageEntry(800, 600, "/a.png")});
  service->start();
  failImage();
  EXPECT_EQ(logged(4, kRetrying), 1u);
  advance(4.9);
  EXPECT_TRUE(openImages().empty());
  advance(0.1);
  ASSERT_EQ(openImages().size(), 1u) << "retried after exactly five seconds";
  failImage();
  EXPECT_EQ(logged(4, kRetrying), 2u);

  // A new source while a retry is pending: one download now, none later.
  push({imageEntry(800, 600, "/b.png")});
  ASSERT_EQ(openImages().size(), 1u);
  const auto attempts = requests().attempts().size();
  advance(10);
  EXPECT_EQ(requests().attempts().size(), attempts) << "the pending retry was not dropped";
  failImage();

  // stop() drops the pending retry: it never fires, not even to find the
  // engine stopped.
  service->stop();
  env_.clearLogs();
  advance(60);
  EXPECT_EQ(logged(4, kDownloadCalled), 0u);
  EXPECT_TRUE(openImages().empty());
}

TEST_F(ServiceTest, RecordChangesAnnounceResolutionsThenImageThenError) {
  auto service = QELBroadcastMapsV1::create();
  env_.clearLogs();
  service->start();
  answerRest({imageEntry(800, 600, "/a.png"), imageEntry(400, 300, "/b.png")});
  // The first source: looked for, looked for again, then downloaded.
  EXPECT_EQ(logged(4, kNotSet), 3u);
  EXPECT_EQ(lastImageURL(), "/a.png");
  answerImage(pngBytes(4, 3, 1));
  expectPosted({kStart, kResolutions, kImage});

  // Same keys in the same order and the same source: nothing at all.
  const auto attemptsBefore = requests().attempts().size();
  push({imageEntry(800, 600, "/a.png")});
  expectPosted({});
  EXPECT_EQ(requests().attempts().size(), attemptsBefore);

  // The same keys listed in another order are a change (and the first entry,
  // hence the source, moved too).
  connect({imageEntry(400, 300, "/b.png"), imageEntry(800, 600, "/a.png")});
  EXPECT_EQ(lastImageURL(), "/b.png");
  answerImage(pngBytes(4, 3, 2));
  expectPosted({kResolutions, kImage});

  // Losing the data: resolutions, then the cleared image, then the error.
  events().disconnect();
  drain();
  expectPosted({kResolutions, kImage, kError});
  EXPECT_EQ(logged(4, "-[_QELBroadcastMaps downloadImage] No map data."), 2u) << "at the start, and now";

  // Nil again: no resolution change, but the error again.
  service->broadcastMaps()->broadcastMapsController()->setMapInfo(nullptr);
  expectPosted({kError});

  // The last source is remembered through the loss: when it comes back it
  // is not news, and nothing downloads.
  connect({imageEntry(400, 300, "/b.png"), imageEntry(800, 600, "/a.png")});
  expectPosted({kResolutions});
  EXPECT_TRUE(openImages().empty());

  // An empty record is no error.
  service->broadcastMaps()->broadcastMapsController()->reloadData();
  answerRest({});
  expectPosted({kResolutions});
  service->stop();
}

// The stop name is the framework's own: an engine posts it only when another
// sender's stop made it stand down. With two engines alive such a post would
// bounce between them without end, so only one engine is ever in play here.
TEST_F(ServiceTest, AnEngineStopsAndSaysSoOnlyForAnotherSendersStop) {
  auto service = serviceWithData({imageEntry(800, 600, "/a.png")});
  auto engine = service->broadcastMaps();
  service->start();
  answerImage(pngBytes(8, 6, 1));
  expectPosted({kStart, kImage});
  service->stop();
  EXPECT_NE(service->mapImage(), nullptr) << "stop keeps the picture, and says nothing";
  // Stopped, it still follows the record, but downloads nothing.
  push({imageEntry(1024, 768, "/b.png")});
  expectPosted({kResolutions});
  EXPECT_TRUE(openImages().empty());
  EXPECT_EQ(logged(4, "-[_QELBroadcastMaps downloadImage] Do not download images is set."), 2u)
      << "for the first record, before start, and for this change";
  service->start();
  push({imageEntry(800, 600, "/b.png")});
  service->broadcastMaps()->broadcastMapsController()->setMapInfo(nullptr);
  EXPECT_EQ(internal_->count(kStop), 0u) << "start, stop, downloads and changes never post it";
  connect({imageEntry(800, 600, "/c.png")});
  ASSERT_EQ(openImages().size(), 1u);
  internal_->clear();

  // Its own stop notification is ignored (though relayed, like any other)...
  core::qelInternalCenter().postNotificationName(kStop, engine);
  EXPECT_EQ(openImages().size(), 1u);
  EXPECT_EQ(internal_->entries.size(), 1u);

  // ...another sender's makes it stop, and say so once.
  auto outsider = std::make_shared<NotificationRecorder>();  // any other object
  announcedFrom_ = env_.logs().size();
  internal_->clear();
  core::qelInternalCenter().postNotificationName(kStop, outsider);
  EXPECT_TRUE(openImages().empty());
  EXPECT_FALSE(engine->shouldDownloadImages());
  ASSERT_EQ(internal_->entries.size(), 2u);
  EXPECT_EQ(internal_->entries[0].sender, outsider.get());
  EXPECT_EQ(internal_->entries[1].sender, engine.get());
  internal_->entries.erase(internal_->entries.begin());
  expectPosted({kStop});
  drain();
  EXPECT_EQ(app_->count(kStop), 2u);
  EXPECT_EQ(app_->entries.back().sender, service.get());
}

TEST_F(ServiceTest, ServicesShareOneControllerAndDownloadOneImageAtATime) {
  auto first = serviceWithData({imageEntry(800, 600, "/a.png"), imageEntry(400, 300, "/b.png")});
  auto second = QELBroadcastMapsV1::create();
  EXPECT_EQ(QELBroadcastMapsController::ownersCount(), 2);
  EXPECT_EQ(first->broadcastMaps()->broadcastMapsController(), second->broadcastMaps()->broadcastMapsController());
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
  EXPECT_NE(second->mapImage(), nullptr);  // and TearDown sees both shares given back
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
