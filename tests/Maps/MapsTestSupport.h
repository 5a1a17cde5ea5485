#pragma once

// Shared fixtures for the framework's tests: scripted transports, a manual
// clock, captured logs, notification recording and real PNG bytes.

#include <qel/Image.h>
#include <qel/NotificationCenter.h>
#include <qel/Object.h>
#include <qel/RunLoop.h>
#include <qel/core/QELEventManager.h>
#include <qel/core/QELHostname.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace qel::testing {

inline constexpr const char* kCabinHost = "cabin.example";
inline constexpr const char* kFlightMapURL = "https://cabin.example/skelion/services/maps/v1/flight_map";

// Records the notifications a centre delivers, in order.
struct NotificationRecorder : Object {
  struct Entry {
    std::string name;
    const Object* sender;  // not owned: recording must not keep senders alive
  };

  static std::shared_ptr<NotificationRecorder> observe(NotificationCenter& center,
                                                       const std::shared_ptr<Object>& sender = nullptr) {
    auto recorder = std::make_shared<NotificationRecorder>();
    center.addObserver(
        recorder,
        [raw = recorder.get()](const Notification& n) { raw->entries.push_back({n.name(), n.sender().get()}); },
        {}, sender);
    return recorder;
  }

  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& entry : entries) result.push_back(entry.name);
    return result;
  }

  std::vector<Entry> entries;
};

inline void configureHost(const char* host) {
  core::QELConfiguration configuration;
  configuration.host = host;
  core::QELConfiguration::set(configuration);
}

// One image object as the cabin server lists it.
inline boost::json::object imageEntry(boost::json::value width, boost::json::value height,
                                      boost::json::value src) {
  return {{"width", std::move(width)}, {"height", std::move(height)}, {"src", std::move(src)}};
}

inline std::string restBody(const boost::json::array& images) {
  return boost::json::serialize(boost::json::object{{"images", images}});
}

// The user information of a map update event: "images" holds JSON text.
inline boost::json::object updateInfo(const boost::json::array& images) {
  return {{"images", boost::json::serialize(images)}};
}

// A real PNG of the given size whose pixels depend on `seed`.
inline std::vector<std::uint8_t> pngBytes(std::uint32_t width, std::uint32_t height, std::uint8_t seed) {
  std::vector<std::uint8_t> rgba(std::size_t(width) * height * 4);
  for (std::size_t i = 0; i < rgba.size(); ++i) rgba[i] = static_cast<std::uint8_t>(i * 7 + seed * 31);
  return Image::fromRGBA(width, height, std::move(rgba))->pngRepresentation();
}

// Base fixture: scripted network, manual clock, captured logs, the cabin host
// configured. Checks that a test leaves no map data owner behind.
class MapsTest : public ::testing::Test {
 protected:
  MapsTest() { configureHost(kCabinHost); }
  ~MapsTest() override { core::QELConfiguration::set({}); }

  core::testing::ScriptedRequestTransport& requests() { return env_.requests(); }
  core::testing::ScriptedEventTransport& events() { return env_.events(); }
  RunLoop& loop() { return RunLoop::current(); }

  // Lets every posted callout run (request completions, queued notifications).
  void drain() { loop().runPending(); }
  void advance(double seconds) {
    loop().advance(std::chrono::round<RunLoop::Duration>(std::chrono::duration<double>(seconds)));
  }

  // Open attempts of one kind, oldest first, once queued requests had the
  // chance to start.
  std::vector<std::size_t> open(core::QELRequest::Kind kind) {
    drain();
    std::vector<std::size_t> result;
    for (auto index : requests().openAttempts()) {
      if (requests().attempts()[index].kind == kind) result.push_back(index);
    }
    return result;
  }

  // Answers the oldest open request of one kind with `body` (text or bytes),
  // or fails it when `body` is std::nullopt.
  template <class Body>
  void answer(core::QELRequest::Kind kind, const Body& body) {
    auto pending = open(kind);
    ASSERT_FALSE(pending.empty()) << "no request of that kind is open";
    if constexpr (std::is_same_v<Body, std::nullopt_t>)
      requests().fail(pending.front());
    else
      requests().finish(pending.front(), body);
    drain();
  }
  void answerRest(const boost::json::array& images) { answer(core::QELRequest::Kind::REST, restBody(images)); }
  void answerImage(const Data& bytes) { answer(core::QELRequest::Kind::ImageDownload, bytes); }
  void failImage() { answer(core::QELRequest::Kind::ImageDownload, std::nullopt); }

  std::vector<std::string> messages(int level) const {
    std::vector<std::string> result;
    for (const auto& record : env_.logs())
      if (record.level == level) result.push_back(record.message);
    return result;
  }
  // Lines of exactly this level and text.
  std::size_t logged(int level, std::string_view message) const { return std::ranges::count(messages(level), message); }

  core::testing::ScriptedEnvironment env_;
};

}  // namespace qel::testing
