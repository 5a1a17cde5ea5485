#pragma once

// What the map data fuzzers share: a scripted network for one input, a live
// controller with one observing engine, and the record put into the state
// the input asks for before the fuzzed bytes arrive.
//
// Everything an input creates is gone when its harness is: the environment
// restores the transports and the log sink, the engine frees its share of
// the controller, and the run loop is drained, so no state leaks from one
// input into the next (libFuzzer reports it as a leak or a crash otherwise).

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <qel/Image.h>
#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>
#include <qel/core/QELRequest.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace qel::fuzzing {

inline constexpr const char* kMapUpdateEvent = "core.maps.map_update";
inline constexpr std::string_view kFullBody =
    R"({"images":[{"width":1024,"height":768,"src":"/maps/1024x768/1.png"},)"
    R"({"width":800,"height":600,"src":"/maps/800x600/1.png"},)"
    R"({"width":640,"height":480,"src":"/maps/640x480/1.png"}]})";

// The state of the record when the fuzzed bytes arrive.
enum class Prior : std::uint8_t {
  Nil,           // the first load is still unanswered
  Empty,         // loaded, the server listed no images
  Full,          // loaded with three resolutions
  LostAfterFull  // loaded, then the event channel dropped (nil again)
};

// The first byte of an input is its mode: bits 0-1 the prior state, bit 2
// whether the engine is started (and so downloads), bit 3 whether the
// engine chose a resolution. The rest is the payload.
struct Mode {
  Prior prior;
  bool started;
  bool resolutionChosen;

  static Mode fromByte(std::uint8_t byte) {
    return {static_cast<Prior>(byte & 3), (byte & 4) != 0, (byte & 8) != 0};
  }
};

class MapsFuzzHarness {
 public:
  explicit MapsFuzzHarness(Mode mode) {
    core::QELConfiguration::set({.host = "cabin.example"});
    // Every level on, so that the descriptions of whatever the input holds
    // are formatted too; the records themselves are not kept.
    core::QELLogging::setThreshold(5);
    core::QELLogging::setSink([](int, std::string_view, std::string_view) {});

    engine_ = internal::QELBroadcastMaps::create();
    if (mode.resolutionChosen) engine_->setCurrentResolutionWithCGSize({800, 600});
    if (mode.started) engine_->start();
    drain();

    if (mode.prior != Prior::Nil) env_.requests().finishNext(mode.prior == Prior::Empty ? "{}" : kFullBody);
    drain();
    if (mode.prior == Prior::LostAfterFull) env_.events().disconnect();
    answerDownloads();
  }

  ~MapsFuzzHarness() {
    engine_->stop();
    engine_.reset();
    drain();
    // The last owner is gone: the class must hold no controller any more.
    if (internal::QELBroadcastMapsController::ownersCount() != 0) {
      std::fprintf(stderr, "map data controller still owned after teardown\n");
      std::abort();
    }
  }

  MapsFuzzHarness(const MapsFuzzHarness&) = delete;
  MapsFuzzHarness& operator=(const MapsFuzzHarness&) = delete;

  core::testing::ScriptedEnvironment& env() { return env_; }
  const std::shared_ptr<internal::QELBroadcastMapsController>& controller() const {
    return engine_->broadcastMapsController();
  }

  void drain() { RunLoop::current().runPending(); }

  // Answers the open requests of one kind, or only the oldest of them.
  void finishOpen(core::QELRequest::Kind kind, const Data& data, bool onlyOne = false) {
    drain();
    auto& requests = env_.requests();
    for (auto index : requests.openAttempts()) {
      if (requests.attempts()[index].kind != kind) continue;
      requests.finish(index, data);
      if (onlyOne) break;
    }
    drain();
  }
  // Answers whatever image download the engine has open, so that the
  // decision path through decoding and comparing runs too.
  void answerDownloads() {
    static const auto png = Image::fromRGBA(1, 1, {0, 0, 0, 255})->pngRepresentation();
    finishOpen(core::QELRequest::Kind::ImageDownload, png);
  }

 private:
  // Declared first: it must outlive the engine and the controller.
  core::testing::ScriptedEnvironment env_;
  std::shared_ptr<internal::QELBroadcastMaps> engine_;
};

}  // namespace qel::fuzzing
