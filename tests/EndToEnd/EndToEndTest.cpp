// The framework against the cabin server simulator over real HTTPS and a
// real secure WebSocket on loopback: what a passenger application receives
// when things go right, and when the server or the link misbehaves.

#include <QELMaps/QELMaps.h>

#include "../Support/Simulator.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qel {
namespace {

using namespace std::chrono_literals;

constexpr const char* kError = "BROADCAST_MAPS_ERROR";

// What the application sees: notification names in order.
struct Application : Object {
  std::vector<std::string> received;
  std::size_t count(std::string_view name) const { return std::ranges::count(received, name); }
};

class EndToEndTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (auto& service : services_) service->stop();
    services_.clear();
    server_.reset();
    // Let closing connections finish before the next test's objects appear.
    RunLoop::current().runFor(100ms);
    core::QELConfiguration::set({});
  }

  // Starts the simulator on this loop with no periodic updates (the test
  // ticks it), and points the core kit at it (as `host`, else its address).
  cabinsim::Server& startServer(cabinsim::ServerOptions options = {}, std::optional<std::string> host = {}) {
    server_ = std::make_unique<testing::Simulator>(testing::Simulator::ticked(options), /*ownThread=*/false);
    if (host) server_->configuration().host = *host;
    core::QELConfiguration::set(server_->configuration());
    return server();
  }
  cabinsim::Server& server() { return server_->server(); }

  std::shared_ptr<QELBroadcastMapsV1> startService(std::optional<CGSize> resolution = std::nullopt) {
    auto service = QELBroadcastMapsV1::create();
    NotificationCenter::defaultCenter().addObserver(
        app_, [this](const Notification& n) { app_->received.push_back(n.name()); }, {}, service);
    if (resolution) service->setCurrentResolutionWithCGSize(*resolution);
    service->start();
    services_.push_back(service);
    return service;
  }

  static bool waitFor(const std::function<bool()>& condition) { return RunLoop::current().runUntil(condition, 15s); }

  std::unique_ptr<testing::Simulator> server_;
  std::shared_ptr<Application> app_ = std::make_shared<Application>();
  std::vector<std::shared_ptr<QELBroadcastMapsV1>> services_;
};

// Over IPv6, the cabin host in either spelling: the first map data by REST
// after a failed answer (within the retries: nobody hears of it), a path-only
// picture at the chosen size, and the next one by push. (A change of
// resolution with the next update is the Qt viewer test's.)
TEST_F(EndToEndTest, AnIPv6CabinHostGivesMapDataPicturesAndPushes) {
  for (const char* spelling : {"[::1]", "::1"}) {
    SCOPED_TRACE(spelling);
    cabinsim::ServerOptions options;
    options.host = "::1";
    options.faults.failRest = 1;
    startServer(options, spelling);
    auto maps = startService(CGSize{800, 600});
    ASSERT_TRUE(waitFor([&] { return maps->mapImage() && server().eventClientCount() == 1; })) << "no first picture";
    EXPECT_EQ(maps->mapImage()->width(), 800u);
    EXPECT_EQ(maps->availableResolutions()->size(), 3u);
    const auto first = maps->mapImage();
    server().tick();
    ASSERT_TRUE(waitFor([&] { return maps->mapImage() != first; })) << "the push brought nothing";
    EXPECT_FALSE(*maps->mapImage() == *first) << "the plane moved";
    EXPECT_EQ(app_->count(kError), 0u);
    maps.reset();
    TearDown();  // everything of this server gone before the next one
  }
}

// The cabin's name lists 1,265 loopback addresses where nothing listens
// before its own, and the process may open only 128 files: a failed attempt
// gives its descriptor back at once, so both channels still connect soon.
TEST_F(EndToEndTest, ANameWithManyRefusingAddressesCostsFewDescriptorsAndSeconds) {
  startServer({}, "localhost");
  std::string addresses;
  for (int round = 0; round < 5; ++round) {
    for (int last = 2; last < 255; ++last) addresses += "127.0.0." + std::to_string(last) + ",";
  }
  server_->configuration().resolve = {"localhost:" + std::to_string(server_->port()) + ":" + addresses + "127.0.0.1"};
  core::QELConfiguration::set(server_->configuration());

  constexpr rlim_t kLimit = 128;
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit lowered = saved;
  lowered.rlim_cur = std::min(saved.rlim_cur, kLimit);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  const auto started = std::chrono::steady_clock::now();
  auto maps = startService();
  std::ptrdiff_t peak = 0;
  const bool connected = RunLoop::current().runUntil(
      [&] {
        std::error_code error;  // no descriptor left to list them: at the limit
        std::filesystem::directory_iterator open("/proc/self/fd", error);
        peak = std::max(peak, error ? static_cast<std::ptrdiff_t>(kLimit) : std::distance(open, {}));
        return maps->mapImage() && server().eventClientCount() == 1;
      },
      15s);
  const auto took = std::chrono::steady_clock::now() - started;
  setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_TRUE(connected) << "map " << (maps->mapImage() != nullptr) << ", event channel "
                         << server().eventClientCount();
  EXPECT_LT(took, 5s);
  EXPECT_LT(peak, static_cast<std::ptrdiff_t>(kLimit));
}

}  // namespace
}  // namespace qel
