// Update processing: one map update, pushed as an event or answered over
// REST, from its arrival at the controller until the last observing engine
// has made its change decision; against the same JSON text parsed alone.

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <qel/GccWarnings.h>
#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>
#include <qel/core/RequestTransport.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <benchmark/benchmark.h>
#include <boost/json.hpp>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace {

using qel::internal::QELBroadcastMaps;
using qel::internal::QELBroadcastMapsController;

constexpr const char* kMapUpdateEvent = "core.maps.map_update";

// `count` distinct resolutions as the simulator lists them; `sequence` is
// the picture number in every source, so two sequences differ in every src.
boost::json::array imageEntries(int count, int sequence) {
  boost::json::array entries;
  for (int i = 0; i < count; ++i) {
    const int width = 320 + 16 * i;
    const int height = 240 + 12 * i;
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    entries.push_back(boost::json::object{
        {"width", width}, {"height", height},
        {"src", "/maps/" + size + "/" + std::to_string(sequence) + ".png"}});
  }
  return entries;
}

std::string imagesText(int count, int sequence) {
  return boost::json::serialize(imageEntries(count, sequence));
}

std::string restBody(int count, int sequence) {
  return boost::json::serialize(boost::json::object{{"images", imageEntries(count, sequence)}});
}

// Accepts downloads and never answers them: a started engine enqueues its
// download at every new source, and the run must not pile up answers or a
// record of attempts.
class SilentRequestTransport : public qel::core::RequestTransport {
  struct Operation : qel::core::TransportOperation {
    void cancel() override {}
  };

 public:
  std::shared_ptr<qel::core::TransportOperation> start(const qel::core::QELRequest&,
                                                       Completion) override {
    return std::make_shared<Operation>();
  }
};

// One controller with `engineCount` observing engines, the record loaded
// with the first of two alternating payloads. Engines choose resolutions
// spread over the list, so that their lookups do not all stop at the first
// entry.
class UpdateRig {
 public:
  UpdateRig(int entryCount, int engineCount, bool started) {
    qel::core::QELConfiguration configuration;
    configuration.host = "cabin.example";
    qel::core::QELConfiguration::set(configuration);
    // As in production: the default threshold. The records that pass it go
    // to a sink that drops them, so that a terminal does not time the run.
    qel::core::QELLogging::setThreshold(3);
    qel::core::QELLogging::setSink([](int, std::string_view, std::string_view) {});

    const auto entries = imageEntries(entryCount, 1);
    for (int i = 0; i < engineCount; ++i) {
      auto engine = QELBroadcastMaps::create();
      const auto& entry = entries[static_cast<std::size_t>(i * 7 % entryCount)].as_object();
      engine->setCurrentResolutionWithCGSize(
          {static_cast<qel::CGFloat>(entry.at("width").as_int64()),
           static_cast<qel::CGFloat>(entry.at("height").as_int64())});
      engines_.push_back(std::move(engine));
    }
    drain();
    env_.requests().finishNext(restBody(entryCount, 1));
    drain();
    if (started) {
      qel::core::RequestTransport::setShared(std::make_shared<SilentRequestTransport>());
      for (auto& engine : engines_) engine->start();
      drain();
    }
    for (int sequence : {1, 2}) {
      const auto index = static_cast<std::size_t>(sequence - 1);
      updates_[index] = std::make_shared<const boost::json::object>(
          boost::json::object{{"images", imagesText(entryCount, sequence)}});
      const auto body = restBody(entryCount, sequence);
      bodies_[index] = qel::Data(body.begin(), body.end());
    }
  }

  ~UpdateRig() {
    for (auto& engine : engines_) engine->stop();
    engines_.clear();
    drain();
    qel::core::QELConfiguration::set({});
  }

  static void drain() { qel::RunLoop::current().runPending(); }

  QELBroadcastMapsController& controller() { return *engines_.front()->broadcastMapsController(); }
  qel::core::testing::ScriptedEventTransport& events() { return env_.events(); }
  const qel::UserInfo& update(std::size_t index) const { return updates_[index]; }
  const qel::Data& body(std::size_t index) const { return bodies_[index]; }

  // Whether every engine followed the last payload to its own source.
  // GCC 12 bug 105329: a bogus -Wrestrict inside libstdc++ when optimising
  // "literal" + std::string.
  QEL_GCC_IGNORE_BEGIN("-Wrestrict")
  bool enginesFollowed(int sequence) const {
    const std::string suffix = "/" + std::to_string(sequence) + ".png";
    for (const auto& engine : engines_) {
      const auto url = engine->imageURLForResolution();
      if (!url || !url->ends_with(suffix)) return false;
    }
    return true;
  }
  QEL_GCC_IGNORE_END

 private:
  qel::core::testing::ScriptedEnvironment env_;  // outlives the engines
  std::vector<std::shared_ptr<QELBroadcastMaps>> engines_;
  std::array<qel::UserInfo, 2> updates_;
  std::array<qel::Data, 2> bodies_;
};

void setCounters(benchmark::State& state, std::size_t bytes) {
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

// Args: entries, engines, started (0: engines stopped, 1: started).
void BM_UpdateEvent(benchmark::State& state) {
  const int entries = static_cast<int>(state.range(0));
  UpdateRig rig(entries, static_cast<int>(state.range(1)), state.range(2) != 0);
  std::size_t next = 1;  // the record holds payload 0 already
  for (auto _ : state) {
    rig.events().deliver(kMapUpdateEvent, rig.update(next));
    UpdateRig::drain();
    next ^= 1;
  }
  if (!rig.enginesFollowed(next == 1 ? 1 : 2)) state.SkipWithError("an engine missed the update");
  setCounters(state, rig.update(0)->at("images").as_string().size());
}

void BM_UpdateRest(benchmark::State& state) {
  const int entries = static_cast<int>(state.range(0));
  UpdateRig rig(entries, static_cast<int>(state.range(1)), state.range(2) != 0);
  std::size_t next = 1;
  for (auto _ : state) {
    rig.controller().requestDidFinish(nullptr, rig.body(next));
    UpdateRig::drain();
    next ^= 1;
  }
  if (!rig.enginesFollowed(next == 1 ? 1 : 2)) state.SkipWithError("an engine missed the update");
  setCounters(state, rig.body(0).size());
}

// The floors: the same texts, parsed alone, alternating as above.
void BM_ParseFloorEvent(benchmark::State& state) {
  const int entries = static_cast<int>(state.range(0));
  const std::array<std::string, 2> texts{imagesText(entries, 1), imagesText(entries, 2)};
  std::size_t next = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(boost::json::parse(texts[next]));
    next ^= 1;
  }
  setCounters(state, texts[0].size());
}

void BM_ParseFloorRest(benchmark::State& state) {
  const int entries = static_cast<int>(state.range(0));
  const std::array<std::string, 2> texts{restBody(entries, 1), restBody(entries, 2)};
  std::size_t next = 1;
  for (auto _ : state) {
    benchmark::DoNotOptimize(boost::json::parse(texts[next]));
    next ^= 1;
  }
  setCounters(state, texts[0].size());
}

void processingArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"entries", "engines", "started"});
  for (int started : {0, 1}) {
    for (int engines : {1, 8, 64}) {
      for (int entries : {3, 16, 64}) b->Args({entries, engines, started});
    }
  }
}

void floorArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"entries"});
  for (int entries : {3, 16, 64}) b->Args({entries});
}

BENCHMARK(BM_ParseFloorEvent)->Apply(floorArgs);
BENCHMARK(BM_UpdateEvent)->Apply(processingArgs);
BENCHMARK(BM_ParseFloorRest)->Apply(floorArgs);
BENCHMARK(BM_UpdateRest)->Apply(processingArgs);

}  // namespace

BENCHMARK_MAIN();
