// Fault soak: the simulator in this process misbehaves in every way it can
// (event connections dropped, map data and image requests failing, malformed
// events, slow images) while a few services receive updates every 0.2-0.5 s.
// After the given time the faults stop and one more update goes out: every
// service must then show exactly the picture the server serves for its
// resolution, and the last news it gave its application must be that picture.
// Leaks are for the sanitizer build or valgrind to find at exit.
//
//   qelmaps_soak [--seconds N] [--verbose]
//
// Exit status 0 when every service ended with the latest map.

#include <QELMaps/QELMaps.h>

#include "../Support/Simulator.h"

#include <qel/core/QELLogging.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

const std::vector<cabinsim::Resolution> kResolutions = {{320, 240}, {240, 180}, {160, 120}};

// One service and what its application was told.
struct Receiver : qel::Object {
  // Without a choice the server's first listed size is shown.
  Receiver(std::string label, std::optional<cabinsim::Resolution> choice)
      : name(std::move(label)),
        expected(choice.value_or(kResolutions.front())),
        maps(qel::QELBroadcastMapsV1::create()) {
    if (maps && choice) maps->setCurrentResolutionWithCGSize({double(choice->width), double(choice->height)});
  }

  void start() {
    qel::NotificationCenter::defaultCenter().addObserver(
        shared_from_this(), [this](const qel::Notification& n) { onNotification(n); }, {}, maps);
    maps->start();
  }
  void stop() {
    qel::NotificationCenter::defaultCenter().removeObserver(this);
    maps->stop();
  }

  void onNotification(const qel::Notification& n) {
    lastNotification = n.name();
    if (n.name() == qel::QELBroadcastMapsErrorNotification) ++errors;
    const auto image = maps->mapImage();
    if (n.name() != qel::QELBroadcastMapsImageDidChangeNotification || !image) return;
    ++pictures;
    if (image->width() != std::size_t(expected.width) || image->height() != std::size_t(expected.height)) ++wrongSizes;
  }

  std::string name;
  cabinsim::Resolution expected;
  std::shared_ptr<qel::QELBroadcastMapsV1> maps;
  std::string lastNotification;
  unsigned long long pictures = 0, errors = 0, wrongSizes = 0;  // as printf takes them
};

}  // namespace

// The soak silences stderr (see main); sanitizer reports go to stdout instead.
extern "C" const char* __asan_default_options() { return "log_path=stdout"; }
extern "C" const char* __ubsan_default_options() { return "log_path=stdout"; }

int main(int argc, char** argv) {
  double seconds = 25;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--seconds" && i + 1 < argc) {
      seconds = std::atof(argv[++i]);
    } else if (flag == "--verbose") {
      verbose = true;
    } else {
      std::fprintf(stderr, "usage: qelmaps_soak [--seconds N] [--verbose]\n");
      return 2;
    }
  }
  if (!verbose) {
    // The simulator and the framework log every request; a soak makes tens of
    // thousands. The verdict goes to stdout.
    qel::core::QELLogging::setThreshold(1);
    const int devNull = ::open("/dev/null", O_WRONLY);
    ::dup2(devNull, 2);
    ::close(devNull);
  }
  auto& loop = qel::RunLoop::current();
  int failures = 0;
  {
    cabinsim::ServerOptions options;
    options.intervalSeconds = 3600;  // the soak ticks, at irregular times
    options.resolutions = kResolutions;
    options.faults.dropEventsEverySeconds = 10;
    options.faults.failRestRate = 0.3;
    options.faults.failImagesRate = 0.25;
    options.faults.malformedEventsEvery = 7;
    options.faults.delayImagesMs = 150;
    qel::testing::Simulator simulator(options, /*ownThread=*/false);
    auto& server = simulator.server();
    simulator.configuration().logThreshold = verbose ? 4 : 1;
    qel::core::QELConfiguration::set(simulator.configuration());

    std::vector<std::shared_ptr<Receiver>> receivers = {
        std::make_shared<Receiver>("first listed", std::nullopt),
        std::make_shared<Receiver>("240x180", cabinsim::Resolution{240, 180}),
        std::make_shared<Receiver>("160x120", cabinsim::Resolution{160, 120}),
    };
    for (auto& r : receivers) {
      if (!r->maps) {
        std::printf("FAIL: the service could not be made\n");
        return 1;
      }
      r->start();
    }

    std::mt19937 random(11);
    std::uniform_int_distribution<int> gapMs(200, 500);
    std::shared_ptr<qel::ScheduledCall> nextTick;
    std::function<void()> tick = [&] {
      server.tick();
      nextTick = loop.schedule(std::chrono::milliseconds(gapMs(random)), tick);
    };
    nextTick = loop.schedule(std::chrono::milliseconds(gapMs(random)), tick);
    loop.runFor(std::chrono::duration_cast<qel::RunLoop::Duration>(std::chrono::duration<double>(seconds)));
    nextTick->cancel();
    const unsigned long long soakUpdates = server.sequence();

    // The faults end. Once the event channel is back (its backoff may have
    // grown to half a minute) and whatever was in flight has landed, one more
    // update goes out.
    server.setFaults({});
    if (!loop.runUntil([&] { return server.eventClientCount() >= 1; }, 60s)) {
      std::printf("FAIL: the event channel did not come back\n");
      ++failures;
    }
    loop.runFor(1s);
    for (auto& r : receivers) r->lastNotification.clear();
    server.tick();
    for (auto& r : receivers) {
      const auto png = server.currentPng(r->expected);
      const auto expected = qel::Image::fromData({reinterpret_cast<const std::uint8_t*>(png.data()), png.size()});
      const bool latest = loop.runUntil(
          [&] {
            const auto shown = r->maps->mapImage();
            return shown && *shown == *expected &&
                   r->lastNotification == qel::QELBroadcastMapsImageDidChangeNotification;
          },
          30s);
      std::printf("%-14s %s: %llu pictures, %llu no-data reports during %llu updates\n", r->name.c_str(),
                  latest ? "ends with the latest map" : "FAIL: does not end with the latest map", r->pictures,
                  r->errors, soakUpdates);
      if (!latest) ++failures;
      if (r->wrongSizes > 0) {
        std::printf("FAIL: %s was shown %llu pictures of another size\n", r->name.c_str(), r->wrongSizes);
        ++failures;
      }
    }

    for (auto& r : receivers) r->stop();
    receivers.clear();
    server.stop();
    loop.runFor(500ms);
  }
  qel::core::QELConfiguration::set({});
  std::printf("%s\n", failures == 0 ? "soak passed" : "soak FAILED");
  return failures == 0 ? 0 : 1;
}
