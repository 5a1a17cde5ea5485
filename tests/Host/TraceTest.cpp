// The numbers for the people who run the cabin, against the simulator over
// real TLS: each picture's trace with its phases in order, a reused
// connection said to be reused, a failed download's kind, and a stats
// document whose counters are what happened.

#include <QELMaps/QELMaps.h>

#include "../Support/Simulator.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace qel {
namespace {

using namespace std::chrono_literals;
using Trace = QELBroadcastMapsTrace;

struct Traces : QELBroadcastMapsHostListener {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Trace> traces;
  int statsReports = 0;
  void pictureTraced(const Trace& trace) override {
    std::lock_guard lock(mutex);
    traces.push_back(trace);
    changed.notify_all();
  }
  void statsReported(const QELBroadcastMapsStats&) override {
    std::lock_guard lock(mutex);
    ++statsReports;
    changed.notify_all();
  }
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 20s, [&] { return traces.size() >= count; });
  }
};

// The phases a trace names, in the order they must have happened.
void expectInOrder(const Trace& trace) {
  const std::optional<Trace::TimePoint> phases[] = {trace.updateReceived, trace.queued,   trace.nameLookupDone,
                                                   trace.connected,      trace.tlsDone,  trace.firstByte,
                                                   trace.bodyDone,       trace.decoded, trace.shown};
  for (std::size_t i = 0; i < std::size(phases); ++i) {
    ASSERT_TRUE(phases[i].has_value()) << "phase " << i;
    if (i > 0) {
      EXPECT_LE(*phases[i - 1], *phases[i]) << "phase " << i;
    }
  }
}

TEST(TraceTest, EachPictureIsTracedPhaseByPhaseAndTheStatsCountWhatHappened) {
  cabinsim::ServerOptions options = testing::Simulator::ticked();
  options.faults.failImages = 0;
  testing::Simulator simulator(options);
  auto traces = std::make_shared<Traces>();
  QELBroadcastMapsHost::Options hostOptions;
  hostOptions.configuration = simulator.configuration();
  hostOptions.listener = traces;
  hostOptions.statsInterval = 50ms;
  auto host = QELBroadcastMapsHost::create(std::move(hostOptions));
  ASSERT_TRUE(host);
  host->setCurrentResolutionWithCGSize({400, 300});
  host->start();
  ASSERT_TRUE(traces->waitFor(1));
  ASSERT_TRUE(simulator.eventChannelUp());
  const auto png = simulator.call([](cabinsim::Server& s) { return s.currentPng({400, 300}); });

  // The next update, then one whose picture fails once.
  simulator.tick();
  ASSERT_TRUE(traces->waitFor(2));
  simulator.call([](cabinsim::Server& s) {
    cabinsim::FaultOptions faults;
    faults.failImages = 1'000'000;
    s.setFaults(faults);
  });
  simulator.tick();
  ASSERT_TRUE(traces->waitFor(3));
  std::vector<Trace> seen;
  {
    std::lock_guard lock(traces->mutex);
    seen = traces->traces;
  }

  const auto& first = seen[0];
  EXPECT_EQ(first.result, Trace::Result::Shown);
  EXPECT_EQ(first.source, "/maps/400x300/1.png");
  expectInOrder(first);
  EXPECT_EQ(first.bytesReceived, png.size());
  EXPECT_FALSE(first.httpVersion.empty());
  EXPECT_FALSE(first.revalidated);

  const auto& second = seen[1];
  EXPECT_EQ(second.result, Trace::Result::Shown);
  EXPECT_EQ(second.source, "/maps/400x300/2.png");
  expectInOrder(second);

  EXPECT_GT(*second.queued, *first.shown);

  const auto& failed = seen[2];
  EXPECT_EQ(failed.result, Trace::Result::Failed);
  ASSERT_TRUE(failed.failure);
  EXPECT_EQ(*failed.failure, core::FailureKind::HttpStatus);
  EXPECT_NE(failed.failureMessage.find("500"), std::string::npos);
  EXPECT_FALSE(failed.decoded || failed.shown);
  // The later downloads go over a kept connection (which one is curl's
  // choice, and a slow run may see one closed), and say so.
  EXPECT_TRUE(second.connectionReused || failed.connectionReused) << "no download reported a kept connection";

  // The document parses, and its counters are what happened here.
  {
    std::unique_lock lock(traces->mutex);
    ASSERT_TRUE(traces->changed.wait_for(lock, 20s, [&] { return traces->statsReports > 0; }));
  }
  const auto stats = host->stats();
  const auto document = boost::json::parse(stats->json()).as_object();
  EXPECT_EQ(document.at("qelmaps.picture.shown").to_number<int>(), 2);
  EXPECT_EQ(document.at("qelmaps.picture.failed").at("HTTP error status").to_number<int>(), 1);
  EXPECT_EQ(document.at("qelmaps.event_channel.connects").to_number<int>(), 1);
  EXPECT_GE(document.at("http.client.response.body.size").to_number<std::uint64_t>(), 2 * png.size() / 2);
  EXPECT_EQ(document.at("http.client.request.duration").at("count").to_number<int>(), 3);
  EXPECT_GE(document.at("qelmaps.picture.age").to_number<double>(), 0.0);
  EXPECT_GT(document.at("qelmaps.last_success").to_number<double>(), 1.7e9);

  // A drop is counted by its kind.
  simulator.stop();
  const auto dropped = [&] {
    const auto drops = boost::json::parse(host->stats()->json()).at("qelmaps.event_channel.drops").as_object();
    return !drops.empty();
  };
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (!dropped() && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(dropped());
}

}  // namespace
}  // namespace qel
