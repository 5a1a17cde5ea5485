// Push to pixels: how long after the cabin server sends an update the
// application holds the decoded new map, against the best the transport could
// do (one GET of the same picture on a warm connection, plus its decode) and
// against polling, in one run.
//
// The simulator runs in this process on a thread of its own, over loopback
// with real TLS. Its rendering happens inside tick(), before the send; the
// clock starts when tick() has returned, with the event frame handed to the
// socket. The client side (service, floor, poller) runs on the main thread's
// run loop.
//
// With --server-netns the server listens in that network namespace instead
// (at --server-address), so that the pictures cross a link made and shaped
// outside the program; bench/slow_link.sh runs it over a 2 Mbit/s link.
//
//   push_to_pixels [--updates N] [--poll-updates N] [--resolution WxH]
//                  [--server-netns NAME --server-address A] [--verbose]

#include "LoopbackCabin.h"


#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <random>

using namespace qelbench;

namespace {

struct Options {
  int updates = 200;
  int pollUpdates = 100;
  std::string resolution = "1024x768";
  std::string serverNetns;
  std::string serverAddress = "127.0.0.1";
  bool verbose = false;
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--verbose") {
      options.verbose = true;
    } else if (flag == "--updates" && i + 1 < argc) {
      options.updates = std::atoi(argv[++i]);
    } else if (flag == "--poll-updates" && i + 1 < argc) {
      options.pollUpdates = std::atoi(argv[++i]);
    } else if (flag == "--resolution" && i + 1 < argc) {
      options.resolution = argv[++i];
    } else if (flag == "--server-netns" && i + 1 < argc) {
      options.serverNetns = argv[++i];
    } else if (flag == "--server-address" && i + 1 < argc) {
      options.serverAddress = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: push_to_pixels [--updates N] [--poll-updates N] [--resolution WxH]\n"
                   "                      [--server-netns NAME --server-address A] [--verbose]\n");
      std::exit(2);
    }
  }
  const auto x = options.resolution.find('x');
  if (x == std::string::npos || std::atoi(options.resolution.c_str()) <= 0 ||
      std::atoi(options.resolution.c_str() + x + 1) <= 0) {
    std::fprintf(stderr, "push_to_pixels: --resolution takes WxH\n");
    std::exit(2);
  }
  return options;
}

cabinsim::Resolution resolutionOf(const std::string& text) {
  return {std::atoi(text.c_str()), std::atoi(text.c_str() + text.find('x') + 1)};
}

void require(bool condition, const char* what) {
  if (!condition) {
    std::printf("push_to_pixels: %s\n", what);
    std::exit(1);
  }
}

void print(const char* name, const Summary& s) {
  std::printf("%-40s n=%4zu  median %8.2f ms  p99 %8.2f ms  mean %8.2f ms\n", name, s.count, s.median, s.p99,
              s.mean);
}

// The server's side: its own io_context on its own thread, as a cabin server
// is its own machine. Rendering there cannot hold up the client's loop, so a
// poll that falls due while the server renders is answered with the old data,
// as it would be in the cabin.
//
// A socket belongs to the network namespace its creator was in when it was
// made, and accepted connections to that of the listening socket: entering
// the server's namespace just while the server starts listening puts the
// whole server there, whatever thread runs it later.
class NetnsScope {
 public:
  explicit NetnsScope(const std::string& name) {
    if (name.empty()) return;
    own_ = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = ::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    require(own_ >= 0 && target >= 0 && ::setns(target, CLONE_NEWNET) == 0,
            "cannot enter the server's network namespace (made with ip netns add; needs root)");
    ::close(target);
  }
  ~NetnsScope() {
    if (own_ < 0) return;
    require(::setns(own_, CLONE_NEWNET) == 0, "cannot return to the client's network namespace");
    ::close(own_);
  }
  NetnsScope(const NetnsScope&) = delete;
  NetnsScope& operator=(const NetnsScope&) = delete;

 private:
  int own_ = -1;
};

class ServerThread {
 public:
  struct Sent {
    std::uint64_t sequence = 0;
    Clock::time_point at;
    std::string source;  // of the measured resolution
  };

  ServerThread(const Options& options, int logThreshold)
      : resolution_(options.resolution), cabin_(startCabin(options, logThreshold)) {}

  // Renders and sends the next update there; `sent` runs on the client's
  // loop with the moment the event frame was handed to the socket. It is
  // posted before the server can answer any request for the new data.
  void tick(std::function<void(const Sent&)> sent) {
    auto& loop = qel::RunLoop::current();
    cabin_->post([this, &loop, sent = std::move(sent)](cabinsim::Server& server) {
      server.tick();
      Sent s{server.sequence(), Clock::now(), cabin_->currentSource(resolution_)};
      loop.post([sent, s] { sent(s); });
    });
  }

  std::size_t eventClientCount() {
    return cabin_->call([](cabinsim::Server& server) { return server.eventClientCount(); });
  }

 private:
  // The simulator's three sizes, and the measured one if it is another.
  static std::unique_ptr<LoopbackCabin> startCabin(const Options& options, int logThreshold) {
    std::vector<cabinsim::Resolution> sizes{{1024, 768}, {800, 600}, {400, 300}};
    const auto measured = resolutionOf(options.resolution);
    if (std::find(sizes.begin(), sizes.end(), measured) == sizes.end()) sizes.push_back(measured);
    NetnsScope inServerNamespace(options.serverNetns);
    return std::make_unique<LoopbackCabin>(sizes, logThreshold, /*ownThread=*/true, options.serverAddress);
  }

  std::string resolution_;
  std::unique_ptr<LoopbackCabin> cabin_;
};

// Polling, with the service gone: updates come at random moments, one to two
// seconds apart, so each lands at a random phase of the 1 s poll.
struct Polled {
  Summary summary;
  std::size_t missed = 0;
};

Polled pollingBaseline(ServerThread& server, const Options& options) {
  auto& loop = qel::RunLoop::current();
  // By sequence number, the last path component of the image source.
  auto sequenceOf = [](const std::string& source) {
    const auto slash = source.rfind('/');
    return std::strtoull(source.c_str() + (slash == std::string::npos ? 0 : slash + 1), nullptr, 10);
  };
  std::map<std::uint64_t, Clock::time_point> sentAt;
  std::vector<double> polled;
  std::size_t missed = 0;
  PollingClient poller(options.resolution, 1s, [&](const std::string& source, std::shared_ptr<const qel::Image>) {
    const auto found = sentAt.find(sequenceOf(source));
    if (found == sentAt.end()) return;  // the picture from before the first update
    polled.push_back(millisecondsBetween(found->second, Clock::now()));
    missed += static_cast<std::size_t>(std::distance(sentAt.begin(), found));
    sentAt.erase(sentAt.begin(), std::next(found));
  });
  std::mt19937 random(7);
  std::uniform_int_distribution<int> gapMs(1000, 2000);
  std::shared_ptr<qel::ScheduledCall> nextTick;
  std::function<void()> tickLater = [&] {
    server.tick([&](const ServerThread::Sent& s) { sentAt[s.sequence] = s.at; });
    nextTick = loop.schedule(std::chrono::milliseconds(gapMs(random)), tickLater);
  };
  poller.start();
  nextTick = loop.schedule(std::chrono::milliseconds(gapMs(random)), tickLater);
  require(loop.runUntil([&] { return polled.size() >= static_cast<std::size_t>(options.pollUpdates); },
                        std::chrono::seconds(5 * options.pollUpdates + 30)),
          "the polling client fell behind");
  nextTick->cancel();
  poller.stop();

  return {Summary::of(std::move(polled)), missed};
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  if (!options.verbose) silenceStderr();
  auto& loop = qel::RunLoop::current();
  ServerThread server(options, options.verbose ? 4 : 1);
  const auto measured = resolutionOf(options.resolution);

  auto maps = qel::QELBroadcastMapsV1::create();
  require(maps != nullptr, "no service");
  maps->setCurrentResolutionWithCGSize({static_cast<double>(measured.width), static_cast<double>(measured.height)});
  auto watcher = ImageWatcher::watch(maps);
  maps->start();
  require(loop.runUntil([&] { return watcher->pictures >= 1; }, 30s), "the service never got its first picture");
  for (int i = 0; i < 300 && server.eventClientCount() != 1; ++i) loop.runFor(100ms);
  require(server.eventClientCount() == 1, "the event channel did not connect");
  loop.runFor(200ms);  // the connect's own reload settles

  // Push, and the floor right after it on the connection the push left warm.
  constexpr int kWarmUp = 5;
  std::vector<double> push;
  std::vector<double> floor;
  std::size_t pictureBytes = 0;
  Getter getter;
  for (int i = 0; i < options.updates + kWarmUp; ++i) {
    const auto before = watcher->pictures;
    std::optional<ServerThread::Sent> sent;
    server.tick([&](const ServerThread::Sent& s) { sent = s; });
    require(loop.runUntil([&] { return watcher->pictures > before && sent; }, 10s),
            "a pushed update brought no picture");
    if (i >= kWarmUp) push.push_back(millisecondsBetween(sent->at, watcher->lastPictureAt));
    loop.runPending();

    std::shared_ptr<const qel::Image> fetched;
    bool done = false;
    const auto started = Clock::now();
    Clock::time_point decoded;
    getter.get(sent->source, [&](std::optional<qel::Data> png) {
      if (png) fetched = qel::Image::fromData(*png);
      if (png) pictureBytes += png->size();
      decoded = Clock::now();
      done = true;
    });
    require(loop.runUntil([&] { return done; }, 10s) && fetched, "the floor's GET failed");
    require(*fetched == *maps->mapImage(), "the service shows another picture than the server serves");
    if (i >= kWarmUp) floor.push_back(millisecondsBetween(started, decoded));
    loop.runPending();
  }

  maps->stop();
  maps.reset();
  const auto p = Summary::of(push);
  const auto f = Summary::of(floor);
  const double meanBytes = static_cast<double>(pictureBytes) / (options.updates + kWarmUp);
  std::printf("push to pixels, %s PNG (%.0f bytes on average), simulator on its own thread, TLS to %s\n",
              options.resolution.c_str(), meanBytes, options.serverAddress.c_str());
  print("push (event -> picture)", p);
  print("floor (warm GET + decode)", f);
  std::printf("ratio push/floor:   median %6.2f  p99 %6.2f\n", p.median / f.median, p.p99 / f.p99);
  if (options.pollUpdates > 0) {
    const auto b = pollingBaseline(server, options);
    print("polling every 1 s (update -> picture)", b.summary);
    std::printf("polling updates missed (superseded before a poll saw them): %zu\n", b.missed);
    std::printf("ratio polling/push: median %6.1f  p99 %6.1f\n", b.summary.median / p.median, b.summary.p99 / p.p99);
    std::printf("ratio polling/floor: median %6.1f\n", b.summary.median / f.median);
  }
  return 0;
}
