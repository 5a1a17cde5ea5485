// The host against the simulator over real TLS. The map stays up: the last
// picture across a restart from the disk cache (before any connection),
// revalidated with the server instead of downloaded again, and whatever is
// wrong with the cache costing a log line and nothing else. And the numbers
// for the people who run the cabin: each picture's trace with its phases in
// order, a reused connection said to be reused, a failed download's kind,
// and a stats document whose counters are what happened.

#include <QELMaps/QELMaps.h>
#include <qel/core/QELLogging.h>

#include "../Support/Simulator.h"
#include "../Support/Sockets.h"
#include "../Support/WaitUntil.h"

#include <gtest/gtest.h>

#include <boost/json/parse.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Trace = QELBroadcastMapsTrace;
using testing::waitUntil;

bool waitFor(QELBroadcastMapsHost& host, const std::function<bool(const QELBroadcastMapsSnapshot&)>& condition) {
  return waitUntil([&] { return condition(*host.snapshot()); });
}

bool live(const QELBroadcastMapsSnapshot& snapshot) {
  return snapshot.image && snapshot.lastPicture.image == snapshot.image && !snapshot.lastPicture.stale;
}

// A directory of its own for each test, gone afterwards.
struct TemporaryDirectory {
  inline static int count = 0;
  fs::path path =
      fs::temp_directory_path() / ("qelmaps-cache-" + std::to_string(::getpid()) + "-" + std::to_string(count++));
  TemporaryDirectory() { fs::remove_all(path); }
  ~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
};

// The log lines written while it lives.
struct CapturedLog {
  std::mutex mutex;
  std::vector<std::string> lines;
  CapturedLog() {
    core::QELLogging::setSink([this](int, std::string_view, std::string_view message) {
      std::lock_guard lock(mutex);
      lines.emplace_back(message);
    });
  }
  ~CapturedLog() { core::QELLogging::setSink(nullptr); }
  bool has(std::string_view part) {
    std::lock_guard lock(mutex);
    for (const auto& line : lines) {
      if (line.find(part) != std::string::npos) return true;
    }
    return false;
  }
};

// A host showing the 400x300 map, started.
std::unique_ptr<QELBroadcastMapsHost> hostFor(const core::QELConfiguration& configuration,
                                              std::optional<fs::path> cache,
                                              std::shared_ptr<QELBroadcastMapsHostListener> listener = nullptr) {
  QELBroadcastMapsHost::Options options;
  options.configuration = configuration;
  options.cacheDirectory = std::move(cache);
  options.listener = std::move(listener);
  options.statsInterval = 50ms;
  auto host = QELBroadcastMapsHost::create(std::move(options));
  if (host) {
    host->setCurrentResolutionWithCGSize({400, 300});
    host->start();
  }
  return host;
}

// How the last picture outlives an outage is the C API's resolution test's
// (its last picture once the server is gone).
TEST(LastPictureTest, ComesBackFromTheCacheBeforeAnyConnectionThenRevalidates) {
  TemporaryDirectory cache;
  testing::Simulator simulator;
  QELBroadcastMapsLastPicture shown;
  {
    auto host = hostFor(simulator.configuration(), cache.path);
    ASSERT_TRUE(host);
    ASSERT_TRUE(waitFor(*host, live));
    shown = host->snapshot()->lastPicture;
    EXPECT_FALSE(shown.fromCache);
    EXPECT_EQ(shown.source, "/maps/400x300/1.png");
    // Kept once the service has shown it, a turn of the loop after the snapshot.
    EXPECT_TRUE(waitFor(*host, [&](const auto&) { return fs::is_regular_file(cache.path / "map-400x300.entry"); }));
  }

  // An hour later (as the entry tells it), a new run with the server out of
  // reach: the picture is there from the first snapshot, an hour old.
  {
    const auto file = cache.path / "map-400x300.entry";
    std::ifstream in(file, std::ios::binary);
    std::string contents{std::istreambuf_iterator<char>(in), {}};
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(shown.receivedAt.time_since_epoch());
    const auto stamp = "\"receivedAt\":" + std::to_string(ms.count());
    const auto at = contents.find(stamp);
    ASSERT_NE(at, std::string::npos) << contents.substr(0, contents.find('\n', 20));
    contents.replace(at, stamp.size(), "\"receivedAt\":" + std::to_string((ms - 1h).count()));
    std::ofstream(file, std::ios::binary) << contents;
  }
  auto unreachable = simulator.configuration();
  unreachable.port = testing::closedPort();
  {
    auto host = hostFor(unreachable, cache.path);
    ASSERT_TRUE(host);
    const auto first = host->snapshot()->lastPicture;
    ASSERT_TRUE(first.image) << "the cached picture was not shown at once";
    EXPECT_TRUE(first.fromCache && first.stale);
    EXPECT_TRUE(*first.image == *shown.image);
    EXPECT_LE(std::chrono::abs(first.receivedAt - (shown.receivedAt - 1h)), 1ms);
    const auto now = std::chrono::steady_clock::now();
    EXPECT_LE(std::chrono::abs(first.age(now) - (shown.age(now) + 1h)), 5ms);
  }

  // The server still shows the same update: a new run asks whether the
  // picture changed and is told it did not; no picture byte crosses.
  const auto sent = simulator.call([](cabinsim::Server& s) { return s.imageBodyBytes(); });
  const auto current = simulator.call([](cabinsim::Server& s) { return s.notModifiedAnswers(); });
  {
    auto host = hostFor(simulator.configuration(), cache.path);
    ASSERT_TRUE(host);
    EXPECT_TRUE(host->snapshot()->lastPicture.fromCache);
    ASSERT_TRUE(waitFor(*host, live));
    EXPECT_FALSE(host->snapshot()->lastPicture.fromCache);
  }
  EXPECT_EQ(simulator.call([](cabinsim::Server& s) { return s.imageBodyBytes(); }), sent);
  EXPECT_EQ(simulator.call([](cabinsim::Server& s) { return s.notModifiedAnswers(); }), current + 1);
}

// Whatever is wrong with the cache: one log line, no picture from it, and
// the map comes from the server as without a cache.
TEST(LastPictureTest, ABrokenCacheCostsALogLineAndTheMapStillComes) {
  testing::Simulator simulator;
  const auto png = simulator.call([](cabinsim::Server& s) { return s.currentPng({400, 300}); });
  const auto entry = [&](std::string_view header, std::string_view bytes) {
    return std::string("QELMAPS-CACHE 1\n") + std::string(header) + "\n" + std::string(bytes);
  };
  const auto header = [](std::size_t bytes) {
    return R"({"source":"/maps/400x300/1.png","etag":"","lastModified":"","receivedAt":1,"width":400,)"
           R"("height":300,"record":"","bytes":)" +
           std::to_string(bytes) + "}";
  };
  struct Case {
    const char* name;
    std::function<void(const fs::path& directory)> spoil;
    const char* logged;
    bool keeps = true;  // a good entry is written once the map comes
  };
  const Case cases[] = {
      {"another version", [](const fs::path& d) { std::ofstream(d / "map-400x300.entry") << "QELMAPS-CACHE 2\n{}\n"; },
       "not an entry of this version"},
      {"truncated",
       [&](const fs::path& d) {
         std::ofstream(d / "map-400x300.entry", std::ios::binary)
             << entry(header(png.size()), std::string_view(png).substr(0, png.size() / 2));
       },
       "truncated"},
      {"bytes that are no picture",
       [&](const fs::path& d) {
         std::ofstream(d / "map-400x300.entry", std::ios::binary) << entry(header(png.size()), std::string(png.size(), 'x'));
       },
       "its picture does not decode"},
      {"oversized",
       [](const fs::path& d) {
         std::ofstream(d / "map-400x300.entry") << "QELMAPS-CACHE 1\n";
         fs::resize_file(d / "map-400x300.entry", 17ull * 1024 * 1024 + 1);
       },
       "more than an entry may have"},
      {"a directory where an entry belongs", [](const fs::path& d) { fs::create_directories(d / "map-400x300.entry"); },
       "a directory where an entry belongs", false},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.name);
    TemporaryDirectory cache;
    fs::create_directories(cache.path);
    testCase.spoil(cache.path);
    // What a crash in the middle of a write leaves goes at the start.
    std::ofstream(cache.path / ".map-400x300-1.tmp") << "half";
    CapturedLog log;
    auto host = hostFor(simulator.configuration(), cache.path);
    ASSERT_TRUE(host);
    EXPECT_FALSE(host->snapshot()->lastPicture.image);
    EXPECT_TRUE(log.has(testCase.logged));
    EXPECT_FALSE(fs::exists(cache.path / ".map-400x300-1.tmp"));
    ASSERT_TRUE(waitFor(*host, live)) << host->snapshot()->status.describe();
    host.reset();
    // Nothing half-written is left; the entry is good now, or still what
    // stood in its place.
    for (const auto& file : fs::directory_iterator(cache.path)) {
      EXPECT_FALSE(file.path().filename().string().ends_with(".tmp")) << file.path();
    }
    if (testCase.keeps) {
      auto again = hostFor(simulator.configuration(), cache.path);
      EXPECT_TRUE(again->snapshot()->lastPicture.fromCache);
    } else {
      EXPECT_TRUE(log.has("could not be kept"));
    }
  }

  // A cache path that is a file cannot be a cache: the map runs without.
  {
    TemporaryDirectory cache;
    std::ofstream(cache.path) << "a file";
    CapturedLog log;
    auto host = hostFor(simulator.configuration(), cache.path);
    ASSERT_TRUE(host);
    EXPECT_TRUE(log.has("running without a cache"));
    EXPECT_TRUE(waitFor(*host, live));
    host.reset();
    fs::remove(cache.path);
  }

  // A write that fails part-way (here: the file size limit, as a full disk
  // would) leaves nothing behind and is said once.
  {
    TemporaryDirectory cache;
    CapturedLog log;
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit previous{};
    ::getrlimit(RLIMIT_FSIZE, &previous);
    rlimit small = previous;
    small.rlim_cur = 1024;
    ::setrlimit(RLIMIT_FSIZE, &small);
    auto host = hostFor(simulator.configuration(), cache.path);
    ASSERT_TRUE(host);
    EXPECT_TRUE(waitFor(*host, live));
    EXPECT_TRUE(waitFor(*host, [&](const auto&) { return log.has("the picture could not be kept"); }));
    host.reset();
    ::setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previousHandler);
    EXPECT_TRUE(fs::is_empty(cache.path));
  }
}

struct Traces : QELBroadcastMapsHostListener {
  std::mutex mutex;
  std::vector<Trace> traces;
  std::atomic<int> statsReports{0};
  void pictureTraced(const Trace& trace) override {
    std::lock_guard lock(mutex);
    traces.push_back(trace);
  }
  void statsReported(const QELBroadcastMapsStats&) override { ++statsReports; }
  bool waitFor(std::size_t count) {
    return waitUntil([&] {
      std::lock_guard lock(mutex);
      return traces.size() >= count;
    });
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
  testing::Simulator simulator;
  auto traces = std::make_shared<Traces>();
  auto host = hostFor(simulator.configuration(), std::nullopt, traces);
  ASSERT_TRUE(host);
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
  ASSERT_TRUE(waitUntil([&] { return traces->statsReports > 0; }));
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
  EXPECT_TRUE(waitUntil([&] {
    return !boost::json::parse(host->stats()->json()).at("qelmaps.event_channel.drops").as_object().empty();
  }));
}

}  // namespace
}  // namespace qel
