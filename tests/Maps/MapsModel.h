#pragma once

// A reference model of what the broadcast maps framework does, as an
// application and the cabin network see it: the shared map record, each
// engine's resolutions, choice of source, downloads, retries and picture,
// the notifications on the internal centre and the ones relayed to the
// application (coalesced), and the core kit's queues and clock as far as
// they shape that. Written for clarity, not speed: lists and linear scans.
//
// Times are milliseconds since the model began. Engines and services are
// numbered in creation order; an engine and its service share the number.

#include <boost/json.hpp>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qel::testing::model {

inline constexpr const char* kStart = "BROADCAST_MAPS_IMAGE_DID_START_RECEIVING_IMAGE";
inline constexpr const char* kImage = "BROADCAST_MAPS_IMAGE_DID_CHANGE";
inline constexpr const char* kResolutions = "BROADCAST_MAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE";
inline constexpr const char* kError = "BROADCAST_MAPS_ERROR";
inline constexpr const char* kStop = "BROADCAST_MAPS_IMAGE_DID_STOP_RECEIVING_IMAGE";
inline constexpr int kOutsider = -1;  // a sender that is no engine

// A width or height as the server may send it, with how the framework must
// render it in a key ("%@") and read it as a size (single precision).
struct SizeValue {
  std::optional<boost::json::value> json;  // none: the field is missing
  std::string description;
  float number;
};

inline const std::vector<SizeValue>& sizeValues() {
  static const std::vector<SizeValue> values = {
      {boost::json::value(800), "800", 800.0f},
      {boost::json::value(600), "600", 600.0f},
      {boost::json::value(1024.5), "1024.5", 1024.5f},
      {boost::json::value(0.1), "0.1", 0.1f},
      {boost::json::value("300"), "300", 300.0f},
      {boost::json::value(16777217), "16777217", 16777216.0f},
      {boost::json::value(16777216), "16777216", 16777216.0f},
      {boost::json::value("abc"), "abc", 0.0f},
      {boost::json::value(nullptr), "(null)", 0.0f},
      {std::nullopt, "(null)", 0.0f},
  };
  return values;
}

inline const std::vector<std::optional<boost::json::value>>& sourceValues() {
  static const std::vector<std::optional<boost::json::value>> values = {
      boost::json::value("/a.png"), boost::json::value("/b.png"), boost::json::value("/c.png"),
      boost::json::value(nullptr), std::nullopt};
  return values;
}

// One image object of a payload, by indices into the pools above.
struct ImageSpec {
  int width = 0;
  int height = 0;
  int src = 0;
  // Fields the framework does not know, to be kept: 0 adds one, 1 enough
  // of them for an object larger than a handful of fields, others none.
  int extra = -1;

  boost::json::object wire() const {
    boost::json::object object;
    if (const auto& w = sizeValues()[width].json) object["width"] = *w;
    if (const auto& h = sizeValues()[height].json) object["height"] = *h;
    if (const auto& s = sourceValues()[src]) object["src"] = *s;
    if (extra == 0 || extra == 1) object["format"] = "png";
    if (extra == 1)
      for (const char* field : {"alt", "title", "layer", "zoom", "crs", "license"}) object[field] = field;
    return object;
  }
  // The record entry: the image object without its null width, height, src.
  boost::json::object entry() const {
    auto object = wire();
    for (const char* field : {"width", "height", "src"}) {
      if (object.contains(field) && object.at(field).is_null()) object.erase(field);
    }
    return object;
  }
  std::string key() const { return sizeValues()[width].description + "x" + sizeValues()[height].description; }
  float widthNumber() const { return sizeValues()[width].number; }
  float heightNumber() const { return sizeValues()[height].number; }
  std::optional<std::string> source() const {
    const auto& s = sourceValues()[src];
    if (!s || !s->is_string()) return std::nullopt;
    return std::string(s->get_string());
  }
};

// The record: entries in the record's own order. None: no map data.
struct Entry {
  std::string key;
  ImageSpec spec;
};
using Record = std::optional<std::vector<Entry>>;

// A decoded picture; two are equal when size and pixels are.
struct Picture {
  int width = 0, height = 0, seed = 0;
  bool operator==(const Picture&) const = default;
};

// An application's resolution record; shared by reference like the real one.
struct Resolution {
  double width = 0, height = 0;
};

// What the application receives, and what the internal centre carries.
struct Posted {
  std::string name;
  int sender;  // engine number (internal) or service number (application)
  // What an observer of the internal centre reads of the sending engine at
  // that moment: receiving or not, and whether it holds a picture.
  std::string state;
  bool operator==(const Posted&) const = default;
};

struct Timer {
  std::int64_t due;
  std::uint64_t sequence;
};

class World {
 public:
  struct Engine {
    bool alive = true;
    bool serviceAlive = true;  // false: an engine kept alive by its pending retry
    Record mapInfo;
    std::shared_ptr<Resolution> currentResolution;
    std::optional<std::vector<std::string>> lastKnownResolutions;
    std::optional<std::string> lastKnownImageURL;
    std::optional<int> imageRequest;  // id of its download in the image queue
    std::optional<Picture> mapImage;
    std::optional<Timer> retryTimer;  // valid and pending
    bool shouldDownloadImages = false;
  };
  struct Download {
    int id;
    int engine;
    std::string url;
    bool started = false;
  };
  struct RestRequest {
    int controller;  // generation of the controller that sent it
    enum Phase { Waiting, Running, BackingOff } phase = Waiting;
    int failures = 0;
    std::optional<Timer> retry;
    std::int64_t earliest = 0;
  };
  // Thrown by the internal centre's first observer when a stop exchange has
  // gone on long enough to show that it does not end by itself.
  struct StopExchangeCut {};
  static constexpr int kStopExchangeCap = 6;

  // What an action produced; the driver compares it with the framework's.
  std::vector<Posted> internalLog, appLog;
  std::vector<std::string> imageAttempts;  // URLs, in the order they were sent
  // Map data requests sent since the driver last looked: the generation of
  // the controller each belongs to, and whether it is the request's first
  // send (a retry resends a request already sent).
  struct RestSend {
    int generation;
    bool first;
  };
  std::vector<RestSend> restSent;

  // MARK: State the driver reads

  std::vector<Engine> engines;
  int controller = 0;  // generation; 0: none
  Record record;
  bool connected = false;
  std::int64_t now = 0;

  int liveEngines() const {
    int count = 0;
    for (const auto& engine : engines) count += engine.alive;
    return count;
  }
  std::optional<std::vector<std::pair<float, float>>> availableResolutions(int e) const {
    const auto& info = engines[e].mapInfo;
    if (!info || info->empty()) return std::nullopt;
    std::vector<std::pair<float, float>> list;
    for (const auto& entry : *info) list.emplace_back(entry.spec.widthNumber(), entry.spec.heightNumber());
    return list;
  }
  // The engine whose download the transport runs, and its URL.
  std::optional<Download> runningDownload() const {
    if (!images_.empty() && images_.front().started) return images_.front();
    return std::nullopt;
  }
  // Generations of the map data requests open on the transport (one at most
  // per generation: a controller's requests take turns).
  const std::vector<int>& openRest() const { return openRest_; }

  // MARK: What the application does

  int createService() {
    const int e = static_cast<int>(engines.size());
    engines.push_back(Engine{});
    if (!controller) createController();
    ++owners_;
    engines[e].mapInfo = record;
    downloadImage(e);  // not started: clears nothing, downloads nothing
    registrations_.push_back({Registration::EngineStop, e});
    registrations_.push_back({Registration::Relay, e});
    settle();
    return e;
  }

  void releaseService(int e) {
    engines[e].serviceAlive = false;
    // A pending retry holds the engine; it goes once that is over.
    if (!engines[e].retryTimer) destroyEngine(e);
    settle();
  }

  void start(int e) {
    post(kStart, e);
    engines[e].shouldDownloadImages = true;
    downloadImage(e);
    settle();
  }
  void stop(int e) {
    stopEngine(e);
    settle();
  }
  void setCurrentResolution(int e, std::shared_ptr<Resolution> resolution) {
    engines[e].currentResolution = std::move(resolution);
  }

  // Anyone posting the stop name on the internal centre.
  void postStop(int sender) {
    stopPosts_ = 0;
    try {
      post(kStop, sender);
    } catch (const StopExchangeCut&) {
    }
    settle();
  }

  // MARK: What the cabin network does

  void connect() {
    if (!controller || connected) return;
    connected = true;
    reloadData();
    settle();
  }
  void disconnect() {
    if (!connected) return;
    connected = false;
    setRecord(std::nullopt);
    settle();
  }

  enum class EventKind { Valid, NoImages, ImagesNotText, NotJSON, JSONObject, ElementNotObject, NoData };
  void deliverEvent(EventKind kind, const std::vector<ImageSpec>& images) {
    if (!controller) return;
    if (kind == EventKind::Valid) {
      // Merged into the current record; with none, there is nothing to
      // merge into and the update's own entries are lost.
      std::vector<Entry> merged;
      if (record) {
        merged = *record;
        for (const auto& image : images) put(merged, image);
      }
      setRecord(std::move(merged));
    }
    settle();
  }

  enum class BodyKind { Valid, EmptyObject, NotJSON, TopLevelArray, ImagesNull, ElementNotObject };
  // Answers the open map data request of a generation's controller (the
  // core kit's random retry waits decide which of several the transport sent
  // first, so the driver says which one it answered).
  void answerRest(BodyKind kind, const std::vector<ImageSpec>& images, int generation) {
    finishRest(generation);
    if (generation == controller) {
      if (kind == BodyKind::Valid || kind == BodyKind::EmptyObject) {
        std::vector<Entry> replaced;
        if (kind == BodyKind::Valid)
          for (const auto& image : images) put(replaced, image);
        setRecord(std::move(replaced));
      }
    }
    settle();
  }
  void failRest(int generation) {
    const auto open = std::find(openRest_.begin(), openRest_.end(), generation);
    if (open == openRest_.end()) return;  // the driver reports the open requests' difference
    auto& queue = restQueues_[generation];
    openRest_.erase(open);
    auto& head = queue.front();
    if (head.failures < 3) {
      ++head.failures;
      head.phase = RestRequest::BackingOff;
      // The core kit waits a random time between three quarters of a bound
      // and the bound (2, 10, 30 s): due at the bound, possibly earlier.
      const std::int64_t bound = std::min<std::int64_t>(2000 * (head.failures == 1 ? 1 : head.failures == 2 ? 5 : 15), 30000);
      head.retry = schedule(bound);
      head.earliest = now + bound * 3 / 4;
    } else {
      const int generation = head.controller;
      queue.pop_front();
      pumpRest(generation);
      if (generation == controller) setRecord(std::nullopt);
    }
    settle();
  }

  void answerImage(std::optional<Picture> decoded) {
    const auto download = takeRunningDownload();
    if (engines[download.engine].alive) setMapImage(download.engine, decoded);
    settle();
  }
  void failImage() {
    const auto download = takeRunningDownload();
    const int e = download.engine;
    if (engines[e].alive) {
      engines[e].retryTimer.reset();  // invalidated
      if (connected) engines[e].retryTimer = schedule(5000);
    }
    settle();
  }

  // A generation's map data retry whose random wait may have ended: the
  // driver saw that it did.
  void restRetryFired(int generation) {
    for (auto& request : restQueues_[generation])
      if (request.retry && request.earliest <= now) return retryRest(generation, request);
  }

  // Fires every timer due within `ms`, earliest first.
  void advance(std::int64_t ms) {
    const std::int64_t target = now + ms;
    for (;;) {
      std::optional<Timer> next;
      int engine = -1, restGeneration = 0;
      auto consider = [&](const std::optional<Timer>& timer) {
        if (!timer || timer->due > target) return false;
        if (next && (timer->due > next->due || (timer->due == next->due && timer->sequence > next->sequence)))
          return false;
        next = timer;
        return true;
      };
      for (std::size_t e = 0; e < engines.size(); ++e)
        if (engines[e].alive && consider(engines[e].retryTimer)) engine = static_cast<int>(e), restGeneration = 0;
      for (auto& [generation, queue] : restQueues_)
        for (auto& request : queue)
          if (consider(request.retry)) engine = -1, restGeneration = generation;
      if (!next) break;
      now = std::max(now, next->due);
      if (engine >= 0) {
        engines[engine].retryTimer.reset();
        downloadImage(engine);
        if (!engines[engine].serviceAlive) destroyEngine(engine);
      } else {
        for (auto& request : restQueues_[restGeneration])
          if (request.retry && request.retry->sequence == next->sequence) retryRest(restGeneration, request);
      }
      settle();
    }
    now = target;
  }

 private:
  struct Registration {
    enum Kind { EngineStop, Relay } kind;
    int engine;
  };

  // MARK: The controller

  void createController() {
    controller = ++generations_;
    record = std::nullopt;
    reloadData();
  }
  void reloadData() { restQueues_[controller].push_back(RestRequest{controller, RestRequest::Waiting, 0, std::nullopt, 0}); }

  static void put(std::vector<Entry>& entries, const ImageSpec& image) {
    const auto key = image.key();
    for (auto& entry : entries) {
      if (entry.key == key) {
        entry.spec = image;
        return;
      }
    }
    entries.push_back({key, image});
  }

  // Every assignment reaches every engine, in the order they began observing.
  void setRecord(Record value) {
    record = std::move(value);
    for (std::size_t e = 0; e < engines.size(); ++e) {
      if (!engines[e].alive) continue;
      recordDidChange(static_cast<int>(e));
      if (!engines[e].serviceAlive && !engines[e].retryTimer) destroyEngine(static_cast<int>(e));
    }
  }

  // MARK: One engine

  static std::optional<std::vector<std::string>> keysOf(const Record& info) {
    if (!info) return std::nullopt;
    std::vector<std::string> keys;
    for (const auto& entry : *info) keys.push_back(entry.key);
    return keys;
  }

  std::optional<std::string> imageURLForResolution(int e) const {
    const auto& engine = engines[e];
    if (!engine.mapInfo || engine.mapInfo->empty()) return std::nullopt;
    const auto& first = engine.mapInfo->front().spec;
    if (!engine.currentResolution) return first.source();
    for (const auto& entry : *engine.mapInfo) {
      if (static_cast<double>(entry.spec.widthNumber()) != engine.currentResolution->width) continue;
      if (static_cast<double>(entry.spec.heightNumber()) == engine.currentResolution->height) {
        if (auto source = entry.spec.source()) return source;
        break;
      }
    }
    return first.source();
  }

  void recordDidChange(int e) {
    auto& engine = engines[e];
    engine.mapInfo = record;
    const auto keys = keysOf(engine.mapInfo);
    const bool same = keys && engine.lastKnownResolutions && *keys == *engine.lastKnownResolutions;
    if (!same && (keys || engine.lastKnownResolutions)) {
      engine.lastKnownResolutions = keys;
      post(kResolutions, e);
    }
    const auto url = imageURLForResolution(e);
    if (engine.lastKnownImageURL ? url != engine.lastKnownImageURL : url.has_value()) downloadImage(e);
    if (!record) post(kError, e);
  }

  void downloadImage(int e) {
    auto& engine = engines[e];
    if (engine.imageRequest) cancelDownload(*engine.imageRequest);
    engine.imageRequest.reset();
    engine.retryTimer.reset();
    if (!engine.shouldDownloadImages) return;
    if (!engine.mapInfo || engine.mapInfo->empty()) {
      setMapImage(e, std::nullopt);
      return;
    }
    const auto url = imageURLForResolution(e);
    if (!url) return;
    engine.lastKnownImageURL = url;
    engine.imageRequest = nextDownload_;
    images_.push_back({nextDownload_++, e, *url});
  }

  void setMapImage(int e, std::optional<Picture> picture) {
    const auto old = std::exchange(engines[e].mapImage, picture);
    if (old == picture) return;
    post(kImage, e);
  }

  void stopEngine(int e) {
    auto& engine = engines[e];
    engine.retryTimer.reset();
    engine.shouldDownloadImages = false;
    if (engine.imageRequest) cancelDownload(*engine.imageRequest);
    engine.imageRequest.reset();
  }

  void destroyEngine(int e) {
    auto& engine = engines[e];
    engine.alive = false;
    if (engine.imageRequest) cancelDownload(*engine.imageRequest);
    if (--owners_ == 0) {
      controller = 0;
      record = std::nullopt;
      connected = false;  // no subscriber left: the event channel closes
    }
  }

  // MARK: The internal centre and the application's queue

  void post(const char* name, int sender) {
    internalLog.push_back({name, sender, stateOf(sender)});
    // The first observer: the driver's recorder, which cuts endless exchanges.
    if (std::string(name) == kStop && ++stopPosts_ > kStopExchangeCap) throw StopExchangeCut{};
    const auto snapshot = registrations_;
    for (const auto& registration : snapshot) {
      auto& engine = engines[registration.engine];
      if (registration.kind == Registration::EngineStop) {
        if (!engine.alive || std::string(name) != kStop || sender == registration.engine) continue;
        stopEngine(registration.engine);
        struct Release {
          World* world;
          int e;
          ~Release() {
            auto& engine = world->engines[e];
            if (engine.alive && !engine.serviceAlive && !engine.retryTimer) world->destroyEngine(e);
          }
        } release{this, registration.engine};
        post(kStop, registration.engine);
      } else if (engine.serviceAlive && sender == registration.engine) {
        const Posted relayed{name, registration.engine, ""};
        bool waiting = false;
        for (const auto& queued : appQueue_) waiting = waiting || queued == relayed;
        if (!waiting) appQueue_.push_back(relayed);
      }
    }
  }

  std::string stateOf(int sender) const {
    if (sender < 0) return "";
    return std::string(engines[sender].shouldDownloadImages ? "receiving" : "idle") +
           (engines[sender].mapImage ? "+picture" : "");
  }

  // MARK: Queues and the clock

  Timer schedule(std::int64_t delay) { return Timer{now + delay, sequence_++}; }

  void cancelDownload(int id) {
    std::erase_if(images_, [id](const Download& d) { return d.id == id; });
  }
  Download takeRunningDownload() {
    auto download = images_.front();
    images_.pop_front();
    return download;
  }

  // A generation's open map data request finishes; its queue starts the next.
  void retryRest(int generation, RestRequest& request) {
    request.retry.reset();
    request.phase = RestRequest::Running;
    openRest_.push_back(generation);
    restSent.push_back({generation, false});
  }
  void finishRest(int generation) {
    const auto open = std::find(openRest_.begin(), openRest_.end(), generation);
    if (open == openRest_.end()) return;  // the driver reports the open requests' difference
    openRest_.erase(open);
    restQueues_[generation].pop_front();
    pumpRest(generation);
  }
  void pumpRest(int generation) {
    auto& queue = restQueues_[generation];
    if (!queue.empty() && queue.front().phase == RestRequest::Waiting) {
      queue.front().phase = RestRequest::Running;
      openRest_.push_back(generation);
      restSent.push_back({generation, true});
    }
  }

  // What the run loop does once the current callout has ended: queues start
  // what they may, and the application's notifications go out.
  void settle() {
    for (auto& [generation, queue] : restQueues_) pumpRest(generation);
    if (!images_.empty() && !images_.front().started) {
      images_.front().started = true;
      imageAttempts.push_back(images_.front().url);
    }
    appLog.insert(appLog.end(), appQueue_.begin(), appQueue_.end());
    appQueue_.clear();
  }

  int owners_ = 0;
  int generations_ = 0;
  int stopPosts_ = 0;
  int nextDownload_ = 0;
  std::uint64_t sequence_ = 0;
  std::vector<Registration> registrations_;
  std::vector<Posted> appQueue_;
  std::deque<Download> images_;
  std::map<int, std::deque<RestRequest>> restQueues_;
  std::vector<int> openRest_;
};

}  // namespace qel::testing::model
