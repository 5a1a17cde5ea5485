// Random sequences of what the cabin network and the application do, run
// against the framework (scripted transports, manual clock) and against the
// reference model in MapsModel.h, compared after every step: the record,
// every service's resolutions, choice, picture and reception state, the
// downloads sent (which source, for which engine, when), the map data
// requests, and every notification on the internal centre and at the
// application, with sender, order and coalescing.
//
//   QEL_MODEL_SEED=n       first sequence's seed (default: fixed)
//   QEL_MODEL_SEQUENCES=n  how many sequences (default 5000)
//   QEL_MODEL_SECONDS=n    long mode: new sequences for n seconds
//
// A failing sequence is shrunk (steps dropped while it still fails) and
// printed with its seed.

#include "MapsModel.h"
#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELMaps.h>

#include <qel/NotificationQueue.h>
#include <qel/core/QELNotifications.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <sstream>

namespace qel::testing {
namespace {

using internal::QELBroadcastMaps;
using internal::QELBroadcastMapsController;
using model::ImageSpec;
using model::Picture;
using model::World;

enum class Op {
  Create, Release, Start, Stop, ChooseNone, ChooseListed, ChooseNew, ChooseKnown, ChangeKnown, ChooseSize,
  Connect, Disconnect, Event, RestAnswer, RestFail, ImageAnswer, ImageFail, Advance, PostStop
};

// One step; indices are taken modulo what exists when it runs, so that any
// subsequence of a sequence is a sequence too.
struct Step {
  Op op;
  int a = 0, b = 0, c = 0;
  std::vector<ImageSpec> images;
};

constexpr double kSizes[] = {800, 600, 1024.5, 0.1, 300, 0, 16777216, 16777217};
constexpr std::int64_t kAdvances[] = {100, 500, 1000, 2000, 4900, 5000, 10000};
const Picture kPictures[] = {{8, 6, 1}, {8, 6, 2}, {4, 3, 1}};

const Data& bytesOf(const Picture& picture) {
  static std::map<int, Data> cache;
  auto& bytes = cache[picture.width * 1000 + picture.seed];
  if (bytes.empty())
    bytes = pngBytes(picture.width, picture.height, static_cast<std::uint8_t>(picture.seed));
  return bytes;
}

std::string describe(const Step& step) {
  static const char* const kNames[] = {
      "create", "release", "start", "stop", "chooseNone", "chooseListed", "chooseNew", "chooseKnown",
      "changeKnown", "chooseSize", "connect", "disconnect", "event", "restAnswer", "restFail",
      "imageAnswer", "imageFail", "advance", "postStop"};
  std::ostringstream out;
  out << kNames[static_cast<int>(step.op)] << "(" << step.a << "," << step.b << "," << step.c;
  for (const auto& image : step.images) out << " " << boost::json::serialize(image.wire());
  out << ")";
  return out.str();
}

// In a crowded sequence services come and go three times as often: engines
// that share the controller and the picture queue while one is released.
Step randomStep(std::mt19937& rng, bool crowded) {
  auto below = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  auto sizeIndex = [&] { return below(10) < 6 ? below(2) : below(10); };
  static const std::pair<Op, int> kWeights[] = {
      {Op::Create, 5}, {Op::Release, 3}, {Op::Start, 6}, {Op::Stop, 3}, {Op::ChooseNone, 1},
      {Op::ChooseListed, 3}, {Op::ChooseNew, 2}, {Op::ChooseKnown, 1}, {Op::ChangeKnown, 2},
      {Op::ChooseSize, 2}, {Op::Connect, 4}, {Op::Disconnect, 3}, {Op::Event, 8}, {Op::RestAnswer, 6},
      {Op::RestFail, 3}, {Op::ImageAnswer, 8}, {Op::ImageFail, 4}, {Op::Advance, 5}, {Op::PostStop, 2}};
  const auto weightOf = [&](Op op, int weight) {
    return crowded && (op == Op::Create || op == Op::Release || op == Op::Start) ? 3 * weight : weight;
  };
  int total = 0;
  for (const auto& [op, weight] : kWeights) total += weightOf(op, weight);
  int pick = below(total);
  Step step{Op::Create, 0, 0, 0, {}};
  for (const auto& [op, plain] : kWeights) {
    const int weight = weightOf(op, plain);
    if (pick < weight) {
      step.op = op;
      break;
    }
    pick -= weight;
  }
  step.a = below(1000);
  step.b = below(1000);
  step.c = below(1000);
  if (step.op == Op::Event || step.op == Op::RestAnswer) {
    const int count = below(5);
    for (int i = 0; i < count; ++i)
      step.images.push_back({sizeIndex(), sizeIndex(), below(10) < 7 ? below(3) : 3 + below(2), below(10)});
  }
  return step;
}

std::vector<Step> randomSequence(std::uint64_t seed) {
  std::mt19937 rng(static_cast<std::mt19937::result_type>(seed));
  std::vector<Step> steps(10 + rng() % 50);
  const bool crowded = rng() % 4 == 0;
  const std::vector<ImageSpec>* previous = nullptr;
  for (auto& step : steps) {
    step = randomStep(rng, crowded);
    if (step.op != Op::Event && step.op != Op::RestAnswer) continue;
    // One payload in four lists the last one's pictures again, shuffled:
    // independent draws seldom give the same pictures in another order.
    if (previous && rng() % 4 == 0) {
      step.images = *previous;
      std::shuffle(step.images.begin(), step.images.end(), rng);
    }
    previous = &step.images;
  }
  return steps;
}

// The framework and the model side by side for one sequence.
class Harness {
 public:
  Harness() {
    core::qelInternalCenter().addObserver(
        internalObserver_,
        [this](const Notification& n) {
          const int sender = senderId(n.sender().get());
          std::string state;
          if (sender >= 0) {
            const auto engine = engines_[sender].lock();
            state = std::string(engine->shouldDownloadImages() ? "receiving" : "idle") +
                    (engine->mapImage() ? "+picture" : "");
          }
          internal_.push_back({n.name(), sender, state});
          if (n.name() == model::kStop && ++stopPosts_ > World::kStopExchangeCap) throw World::StopExchangeCut{};
        },
        {});
    NotificationCenter::defaultCenter().addObserver(
        appObserver_, [this](const Notification& n) { app_.push_back({n.name(), serviceId(n.sender().get()), ""}); },
        {});
  }

  // Runs one step on both; returns what differs afterwards, if anything.
  std::string run(const Step& step) {
    apply(step);
    return compare();
  }

  ~Harness() { windDown(); }

  // Lets everything end: services released, pending retries run out.
  std::string finish() {
    windDown();
    auto difference = compare();
    if (difference.empty() && QELBroadcastMapsController::ownersCount() != 0) difference = "owners left at the end";
    return difference;
  }

 private:
  RunLoop& loop() { return RunLoop::current(); }
  void drain() { loop().runPending(); }

  // Nothing of this sequence may reach the next one: no service, no engine
  // kept by its retry, no request queue waiting to retry.
  void windDown() {
    for (int e : live()) {
      services_[e].reset();
      model_.releaseService(e);
      drain();
    }
    loop().advance(std::chrono::seconds(100));
    model_.advance(100000);
  }

  int senderId(const Object* sender) const {
    if (sender == outsider_.get()) return model::kOutsider;
    // The newest first: a new object may take a released one's address.
    for (auto e = engines_.size(); e-- > 0;)
      if (engineAddresses_[e] == sender) return static_cast<int>(e);
    return -2;
  }
  int serviceId(const Object* sender) const {
    for (auto e = serviceAddresses_.size(); e-- > 0;)
      if (serviceAddresses_[e] == sender) return static_cast<int>(e);
    return -2;
  }

  // The live services' numbers.
  std::vector<int> live() const {
    std::vector<int> result;
    for (std::size_t e = 0; e < services_.size(); ++e)
      if (services_[e]) result.push_back(static_cast<int>(e));
    return result;
  }

  // The size of a new choice. One in three keeps the current choice's width,
  // one in three its height: drawn apart, the two sides seldom repeat one,
  // and a size that differs on one side only is the one a decision may
  // mistake for the last.
  static model::Resolution newSize(const Step& step, const QELBroadcastMapsResolution* current) {
    model::Resolution size{kSizes[step.b % 8], kSizes[step.c % 8]};
    if (current && (step.b / 8) % 3 == 0) size.width = current->width();
    if (current && (step.b / 8) % 3 == 1) size.height = current->height();
    return size;
  }

  // The model's resolution record paired with the framework's.
  std::shared_ptr<model::Resolution> modelOf(const std::shared_ptr<QELBroadcastMapsResolution>& real) {
    if (!real) return nullptr;
    for (const auto& [r, m] : resolutions_)
      if (r == real) return m;
    auto made = std::make_shared<model::Resolution>(model::Resolution{real->width(), real->height()});
    resolutions_.emplace_back(real, made);
    return made;
  }

  // Whether a map data attempt is the live controller's.
  // The model's generation of the controller a map data request belongs to,
  // learnt at its first send (-1: not learnt).
  int generationOf(std::size_t attempt) {
    const auto& request = env_.requests().attempts()[attempt].request;
    for (const auto& [known, generation] : generations_)
      if (!known.owner_before(request) && !request.owner_before(known)) return generation;
    return -1;
  }

  std::vector<std::size_t> openOf(core::QELRequest::Kind kind) {
    std::vector<std::size_t> result;
    for (auto index : env_.requests().openAttempts())
      if (env_.requests().attempts()[index].kind == kind) result.push_back(index);
    return result;
  }

  void apply(const Step& step) {
    stopPosts_ = 0;
    const auto services = live();
    const bool needsService = step.op >= Op::Release && step.op <= Op::ChooseSize;
    if (needsService && services.empty()) return;
    const int e = services.empty() ? -1 : services[step.a % services.size()];
    QELBroadcastMapsV1* const service = e >= 0 ? services_[e].get() : nullptr;
    switch (step.op) {
      case Op::Create: {
        if (services.size() >= 3) return;
        auto created = QELBroadcastMapsV1::create();
        services_.push_back(created);
        serviceAddresses_.push_back(created.get());
        engines_.push_back(created->broadcastMaps());
        engineAddresses_.push_back(created->broadcastMaps().get());
        model_.createService();
        break;
      }
      case Op::Release:
        services_[e].reset();
        model_.releaseService(e);
        break;
      case Op::Start:
        service->start();
        model_.start(e);
        break;
      case Op::Stop:
        service->stop();
        model_.stop(e);
        break;
      case Op::ChooseNone:
        service->setCurrentResolution(nullptr);
        model_.setCurrentResolution(e, nullptr);
        break;
      case Op::ChooseListed: {
        auto list = service->availableResolutions();
        if (!list) return;
        const auto& chosen = (*list)[step.b % list->size()];
        service->setCurrentResolution(chosen);
        model_.setCurrentResolution(e, modelOf(chosen));
        break;
      }
      case Op::ChooseNew: {
        const auto size = newSize(step, service->currentResolution().get());
        auto chosen = QELBroadcastMapsResolution::create();
        chosen->setWidth(size.width);
        chosen->setHeight(size.height);
        service->setCurrentResolution(chosen);
        model_.setCurrentResolution(e, modelOf(chosen));
        break;
      }
      case Op::ChooseKnown: {
        if (resolutions_.empty()) return;
        const auto& [real, modelled] = resolutions_[step.b % resolutions_.size()];
        service->setCurrentResolution(real);
        model_.setCurrentResolution(e, modelled);
        break;
      }
      case Op::ChangeKnown: {  // the application changes a record it holds: one side, or both
        if (resolutions_.empty()) return;
        const auto& [real, modelled] = resolutions_[step.b % resolutions_.size()];
        const int sides = (step.c / 64) % 3;
        if (sides != 1) real->setWidth(kSizes[step.c % 8]);
        if (sides != 0) real->setHeight(kSizes[(step.c / 8) % 8]);
        *modelled = {real->width(), real->height()};
        break;
      }
      case Op::ChooseSize: {
        const auto size = newSize(step, service->currentResolution().get());
        service->setCurrentResolutionWithCGSize({size.width, size.height});
        resolutions_.emplace_back(service->currentResolution(), std::make_shared<model::Resolution>(size));
        model_.setCurrentResolution(e, resolutions_.back().second);
        break;
      }
      case Op::Connect:
        env_.events().connect();
        model_.connect();
        break;
      case Op::Disconnect:
        env_.events().disconnect();
        model_.disconnect();
        break;
      case Op::Event: {
        using Kind = World::EventKind;
        const auto kind = step.b % 3 ? Kind::Valid : static_cast<Kind>(step.c % 7);
        boost::json::array images;
        for (const auto& image : step.images) images.push_back(image.wire());
        const auto text = boost::json::serialize(images);
        switch (kind) {
          case Kind::Valid: env_.events().deliver("core.maps.map_update", updateInfo(images)); break;
          case Kind::NoImages: env_.events().deliver("core.maps.map_update", boost::json::object{{"other", text}}); break;
          case Kind::ImagesNotText: env_.events().deliver("core.maps.map_update", boost::json::object{{"images", images}}); break;
          case Kind::NotJSON: env_.events().deliver("core.maps.map_update", boost::json::object{{"images", text + "]"}}); break;
          case Kind::JSONObject: env_.events().deliver("core.maps.map_update", boost::json::object{{"images", "{}"}}); break;
          case Kind::ElementNotObject: env_.events().deliver("core.maps.map_update", boost::json::object{{"images", "[" + text + "]"}}); break;
          case Kind::NoData: env_.events().deliver("core.maps.map_update", UserInfo()); break;
        }
        model_.deliverEvent(kind, step.images);
        break;
      }
      case Op::RestAnswer: {
        const auto open = openOf(core::QELRequest::Kind::REST);
        if (open.empty()) return;
        using Kind = World::BodyKind;
        const auto kind = step.b % 3 ? Kind::Valid : static_cast<Kind>(step.c % 6);
        boost::json::array images;
        for (const auto& image : step.images) images.push_back(image.wire());
        std::string body;
        switch (kind) {
          case Kind::Valid: body = restBody(images); break;
          case Kind::EmptyObject: body = "{}"; break;
          case Kind::NotJSON: body = "<html>busy</html>"; break;
          case Kind::TopLevelArray: body = boost::json::serialize(images); break;
          case Kind::ImagesNull: body = R"({"images": null})"; break;
          case Kind::ElementNotObject: body = R"({"images": [{"width": 800, "height": 600}, 7]})"; break;
        }
        const int generation = generationOf(open.front());
        env_.requests().finish(open.front(), body);
        model_.answerRest(kind, step.images, generation);
        break;
      }
      case Op::RestFail: {
        const auto open = openOf(core::QELRequest::Kind::REST);
        if (open.empty()) return;
        const int generation = generationOf(open.front());
        env_.requests().fail(open.front());
        model_.failRest(generation);
        break;
      }
      case Op::ImageAnswer: {
        const auto open = openOf(core::QELRequest::Kind::ImageDownload);
        if (open.empty()) return;
        const auto& picture = kPictures[step.b % 3];
        Data bytes = bytesOf(picture);
        std::optional<Picture> decoded = picture;
        if (step.c % 3 == 1) bytes.insert(bytes.end(), 16, 0);  // the same picture in other bytes
        if (step.c % 3 == 2) bytes = Data(4, 'x'), decoded.reset();
        // The bytes of the picture shown are not decoded again: it stays the same object.
        if (const auto running = model_.runningDownload()) {
          const auto engine = engines_[running->engine].lock();
          auto& shown = shownBytes_[running->engine];
          if (engine && engine->mapImage() && shown == bytes) keptImage_ = engine->mapImage();
          shown = decoded ? bytes : Data();
        }
        env_.requests().finish(open.front(), bytes);
        model_.answerImage(decoded);
        break;
      }
      case Op::ImageFail: {
        const auto open = openOf(core::QELRequest::Kind::ImageDownload);
        if (open.empty()) return;
        env_.requests().fail(open.front());
        model_.failImage();
        break;
      }
      case Op::Advance: {
        const auto ms = kAdvances[step.b % 7];
        loop().advance(std::chrono::milliseconds(ms));
        model_.advance(ms);
        drain();
        // A retry waits a random time up to its bound, which the model takes
        // as the moment it is due: one the transport already sent is due.
        for (const auto attempt : openOf(core::QELRequest::Kind::REST)) {
          const int generation = generationOf(attempt);
          if (generation >= 0 && !std::count(model_.openRest().begin(), model_.openRest().end(), generation))
            model_.restRetryFired(generation);
        }
        break;
      }
      case Op::PostStop: {
        // From an outsider or from an engine of a live service.
        const bool fromEngine = !services.empty() && step.b % 2;
        try {
          core::qelInternalCenter().postNotificationName(model::kStop, fromEngine ? engines_[e].lock() : outsider_);
        } catch (const World::StopExchangeCut&) {
        }
        model_.postStop(fromEngine ? e : model::kOutsider);
        break;
      }
    }
    // The application hears of it once the current callout has ended, never
    // during the call that caused it.
    if (!app_.empty() && step.op != Op::Advance) synchronous_ = true;
    drain();
  }

  template <class T>
  static std::string show(const T& list) {
    std::ostringstream out;
    for (const auto& item : list) out << " " << item.name << "@" << item.sender << (item.state.empty() ? "" : "/") << item.state;
    return "[" + out.str() + " ]";
  }
  static std::string show(const std::vector<std::string>& list) {
    std::string out;
    for (const auto& item : list) out += " " + item;
    return "[" + out + " ]";
  }
  static std::string show(const std::vector<int>& list) {
    std::string out;
    for (const auto item : list) out += " " + std::to_string(item);
    return "[" + out + " ]";
  }

  std::string compare() {
    std::ostringstream diff;
    auto expect = [&](bool same, const std::string& what) {
      if (!same) diff << what << "\n";
    };
    expect(!std::exchange(synchronous_, false), "the application was notified during the call");
    if (const auto kept = std::exchange(keptImage_, nullptr)) {
      bool held = false;
      for (const auto& engine : engines_) held = held || (engine.lock() && engine.lock()->mapImage() == kept);
      expect(held, "the shown picture's own bytes were decoded again");
    }
    expect(internal_ == model_.internalLog,
           "internal centre: framework " + show(internal_) + " model " + show(model_.internalLog));
    expect(app_ == model_.appLog, "application: framework " + show(app_) + " model " + show(model_.appLog));
    internal_.clear(), app_.clear(), model_.internalLog.clear(), model_.appLog.clear();

    // A map data request sent for the first time belongs to the generation of
    // the model's first send in the same order; a retry to the one it had.
    std::vector<std::string> images;
    std::vector<int> rest, restModel;
    std::size_t firstSends = 0;
    const auto& attempts = env_.requests().attempts();
    for (; attemptsSeen_ < attempts.size(); ++attemptsSeen_) {
      if (attempts[attemptsSeen_].kind != core::QELRequest::Kind::REST) {
        images.push_back(attempts[attemptsSeen_].url);
        continue;
      }
      int generation = generationOf(attemptsSeen_);
      if (generation < 0) {
        while (firstSends < model_.restSent.size() && !model_.restSent[firstSends].first) ++firstSends;
        if (firstSends < model_.restSent.size()) generation = model_.restSent[firstSends++].generation;
        generations_.emplace_back(attempts[attemptsSeen_].request, generation);
      }
      rest.push_back(generation);
    }
    for (const auto& send : model_.restSent) restModel.push_back(send.generation);
    auto sorted = [](std::vector<int> list) {
      std::sort(list.begin(), list.end());
      return list;
    };
    expect(images == model_.imageAttempts,
           "downloads sent: framework " + show(images) + " model " + show(model_.imageAttempts));
    expect(sorted(rest) == sorted(restModel),
           "map data requests sent, by controller: framework " + show(sorted(rest)) + " model " + show(sorted(restModel)));
    model_.imageAttempts.clear(), model_.restSent.clear();
    std::vector<int> open;
    for (const auto attempt : openOf(core::QELRequest::Kind::REST)) open.push_back(generationOf(attempt));
    expect(sorted(open) == sorted(model_.openRest()),
           "open map data requests, by controller: framework " + show(sorted(open)) + " model " + show(sorted(model_.openRest())));

    const auto openImages = openOf(core::QELRequest::Kind::ImageDownload);
    const auto running = model_.runningDownload();
    expect(openImages.size() == (running ? 1u : 0u), "open downloads: framework " + std::to_string(openImages.size()));
    if (running && openImages.size() == 1) {
      const auto engine = engines_[running->engine].lock();
      const auto request = attempts[openImages[0]].request.lock();
      expect(engine && request && engine->imageRequest() == request,
             "the open download is not engine " + std::to_string(running->engine) + "'s");
    }

    expect(QELBroadcastMapsController::ownersCount() == model_.liveEngines(),
           "owners: framework " + std::to_string(QELBroadcastMapsController::ownersCount()));
    std::shared_ptr<QELBroadcastMaps> anyEngine;
    for (std::size_t e = 0; e < engines_.size(); ++e) {
      auto engine = engines_[e].lock();
      expect(bool(engine) == model_.engines[e].alive, "engine " + std::to_string(e) + " alive differs");
      if (engine && !anyEngine) anyEngine = engine;
    }
    if (anyEngine) diff << compareRecord(anyEngine->broadcastMapsController()->mapInfo());

    for (int e : live()) {
      const auto& service = services_[e];
      const auto& modelled = model_.engines[e];
      const auto engine = service->broadcastMaps();
      const std::string who = "service " + std::to_string(e) + ": ";
      const auto list = service->availableResolutions();
      const auto expected = model_.availableResolutions(e);
      bool sameList = list.has_value() == expected.has_value();
      if (sameList && list) {
        sameList = list->size() == expected->size();
        for (std::size_t i = 0; sameList && i < list->size(); ++i)
          sameList = (*list)[i]->width() == double((*expected)[i].first) &&
                     (*list)[i]->height() == double((*expected)[i].second);
      }
      expect(sameList, who + "available resolutions differ");
      if (list) expect(service->availableResolutions()->front() != list->front(), who + "the same list twice");
      const auto current = service->currentResolution();
      expect(modelOf(current) == modelled.currentResolution, who + "current resolution differs");
      if (current && modelled.currentResolution)
        expect(current->width() == modelled.currentResolution->width &&
                   current->height() == modelled.currentResolution->height,
               who + "current resolution's size differs");
      const auto image = service->mapImage();
      bool sameImage = bool(image) == modelled.mapImage.has_value();
      if (sameImage && image) sameImage = *image == *Image::fromData(bytesOf(*modelled.mapImage));
      expect(sameImage, who + "map image differs");
      expect(engine->shouldDownloadImages() == modelled.shouldDownloadImages, who + "receiving state differs");
      expect(engine->lastKnownImageURL() == modelled.lastKnownImageURL,
             who + "last source: framework " + engine->lastKnownImageURL().value_or("none") + " model " +
                 modelled.lastKnownImageURL.value_or("none"));
      expect(engine->lastKnownResolutions() == modelled.lastKnownResolutions, who + "last announced keys differ");
    }
    return diff.str();
  }

  std::string compareRecord(const internal::MapInfo& record) const {
    const auto& expected = model_.record;
    if (!record || !expected)
      return bool(record) == expected.has_value() ? "" : std::string("record: one is nil, the other is not\n");
    std::ostringstream diff;
    std::vector<std::string> keys, expectedKeys;
    for (const auto& item : *record) keys.emplace_back(item.key());
    for (const auto& entry : *expected) expectedKeys.push_back(entry.key);
    if (keys != expectedKeys) return "record keys: framework " + show(keys) + " model " + show(expectedKeys) + "\n";
    for (const auto& entry : *expected)
      if (record->at(entry.key) != entry.spec.entry())
        diff << "record entry " << entry.key << ": framework " << boost::json::serialize(record->at(entry.key))
             << " model " << boost::json::serialize(entry.spec.entry()) << "\n";
    return diff.str();
  }

  core::testing::ScriptedEnvironment env_;
  World model_;
  std::shared_ptr<Object> internalObserver_ = std::make_shared<NotificationRecorder>();
  std::shared_ptr<Object> appObserver_ = std::make_shared<NotificationRecorder>();
  std::shared_ptr<Object> outsider_ = std::make_shared<NotificationRecorder>();
  std::vector<model::Posted> internal_, app_;
  int stopPosts_ = 0;
  bool synchronous_ = false;
  std::map<int, Data> shownBytes_;  // per engine: the bytes its picture was decoded from
  std::shared_ptr<const Image> keptImage_;
  std::size_t attemptsSeen_ = 0;
  std::vector<std::pair<std::weak_ptr<const core::QELRequest>, int>> generations_;
  std::vector<std::shared_ptr<QELBroadcastMapsV1>> services_;
  std::vector<const Object*> serviceAddresses_;
  std::vector<std::weak_ptr<QELBroadcastMaps>> engines_;
  std::vector<const Object*> engineAddresses_;
  std::vector<std::pair<std::shared_ptr<QELBroadcastMapsResolution>, std::shared_ptr<model::Resolution>>> resolutions_;
};

// The first difference of a sequence, with the step it followed.
std::optional<std::string> firstDifference(const std::vector<Step>& steps) {
  configureHost(kCabinHost);
  Harness harness;
  std::string difference;
  std::size_t i = 0;
  for (; i < steps.size() && difference.empty(); ++i) {
    try {
      difference = harness.run(steps[i]);
    } catch (const std::exception& e) {
      difference = std::string("exception: ") + e.what();
    }
  }
  if (difference.empty()) {
    difference = harness.finish();
    if (!difference.empty()) difference = "at the end:\n" + difference;
  } else {
    difference = "after step " + std::to_string(i - 1) + " " + describe(steps[i - 1]) + ":\n" + difference;
  }
  core::QELConfiguration::set({});
  if (difference.empty()) return std::nullopt;
  return difference;
}

// Drops steps one at a time while the sequence still fails.
std::vector<Step> shrink(std::vector<Step> steps) {
  for (bool progress = true; progress;) {
    progress = false;
    for (std::size_t i = 0; i < steps.size();) {
      auto shorter = steps;
      shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(i));
      if (firstDifference(shorter)) {
        steps = std::move(shorter);
        progress = true;
      } else {
        ++i;
      }
    }
  }
  return steps;
}

std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

TEST(ModelTest, RandomSequencesBehaveAsTheModelSays) {
  const auto firstSeed = environmentNumber("QEL_MODEL_SEED", 20261125);
  const auto sequences = environmentNumber("QEL_MODEL_SEQUENCES", 5000);
  const auto seconds = environmentNumber("QEL_MODEL_SECONDS", 0);
  const auto began = std::chrono::steady_clock::now();
  std::uint64_t count = 0;
  for (auto seed = firstSeed;; ++seed, ++count) {
    if (seconds ? std::chrono::steady_clock::now() - began > std::chrono::seconds(seconds) : count >= sequences) break;
    const auto steps = randomSequence(seed);
    if (!firstDifference(steps)) continue;
    const auto shortest = shrink(steps);
    std::ostringstream report;
    report << "QEL_MODEL_SEED=" << seed << " QEL_MODEL_SEQUENCES=1 fails; shrunk from " << steps.size() << " to "
           << shortest.size() << " steps:\n";
    for (const auto& step : shortest) report << "  " << describe(step) << "\n";
    report << firstDifference(shortest).value_or("(passes when run again)");
    FAIL() << report.str();
  }
  std::cout << "[model] " << count << " sequences from seed " << firstSeed << "\n";
}

}  // namespace
}  // namespace qel::testing
