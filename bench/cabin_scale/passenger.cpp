// passenger: one headless passenger device for the whole-cabin harness
// (run.py next to it). It chooses a resolution, starts the maps service and
// runs until it is killed, printing one line per notification that matters
// to the harness, with the wall-clock time (seconds since the epoch, so that
// lines from many processes and the simulator's log share one clock):
//
//   1700000000.001 started 5120   before the service exists: resident KiB
//   1700000000.123 picture 17 31044
//                                 a new map picture is shown: the update it
//                                 was rendered for (from its URL), its bytes
//   1700000000.123 trace 17 U Q C T F B D S R
//                                 where that picture's time went: update
//                                 received, queued, connected, TLS done, first
//                                 byte, body done, decoded, shown (wall clock,
//                                 0 when not reached), connection reused (1/0)
//   1700000000.456 error          no map data (connection lost, reload failed)
//   1700000000.789 phase live     the status's phase changed: stopped,
//                                 connecting, live, waiting to retry, no map data
//
// Library log lines of level 2 and below go to standard error.
//
//   passenger --host HOST --port PORT --ca-file FILE [--resolution 400x300] [--watch-network]
//
// --watch-network: the host follows the device's links, addresses and routes
// and reconnects at once when they change.

#include <QELMaps/QELMaps.h>
#include <qel/core/QELLogging.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include <unistd.h>

namespace {


double wallClock() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

long residentKiB() {
  long pages = 0;
  long resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The update number of an image URL the simulator serves ("/maps/WxH/N.png"),
// or -1.
long updateOf(std::string_view url) {
  const auto slash = url.rfind('/');
  const auto dot = url.rfind(".png");
  if (slash == std::string_view::npos || dot == std::string_view::npos || dot <= slash + 1) return -1;
  return std::strtol(std::string(url.substr(slash + 1, dot - slash - 1)).c_str(), nullptr, 10);
}

}  // namespace

int main(int argc, char** argv) {
  qel::core::QELConfiguration configuration;
  qel::CGSize resolution{400, 300};
  bool watchNetwork = false;
  for (int i = 1; i < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--watch-network") {
      watchNetwork = true;
      --i;
      continue;
    }
    const std::string value = i + 1 < argc ? argv[i + 1] : "";
    if (flag == "--host") {
      configuration.host = value;
    } else if (flag == "--port") {
      configuration.port = static_cast<std::uint16_t>(std::atoi(value.c_str()));
    } else if (flag == "--ca-file") {
      configuration.caFile = value;
    } else if (flag == "--resolution" && value.find('x') != std::string::npos) {
      resolution = {std::atof(value.c_str()), std::atof(value.c_str() + value.find('x') + 1)};
    } else {
      std::cerr << "usage: passenger --host HOST --port PORT --ca-file FILE [--resolution WxH] [--watch-network]\n";
      return 2;
    }
  }

  // Level 2 unless QEL_LOG_LEVEL says otherwise (a closer look at one run).
  if (!std::getenv("QEL_LOG_LEVEL")) configuration.logThreshold = 2;
  qel::core::QELLogging::setSink([](int level, std::string_view domain, std::string_view message) {
    std::fprintf(stderr, "%d %.*s %.*s\n", level, static_cast<int>(domain.size()), domain.data(),
                 static_cast<int>(message.size()), message.data());
  });
  std::printf("%.3f started %ld\n", wallClock(), residentKiB());
  std::fflush(stdout);

  // The picture's update comes from its trace (the source it was downloaded
  // from), with where the time went, each phase on the wall clock.
  struct Traces : qel::QELBroadcastMapsHostListener {
    void pictureTraced(const qel::QELBroadcastMapsTrace& trace) override {
      if (trace.result != qel::QELBroadcastMapsTrace::Result::Shown) return;
      const double wallNow = wallClock();
      const auto steadyNow = std::chrono::steady_clock::now();
      const auto at = [&](const std::optional<qel::QELBroadcastMapsTrace::TimePoint>& phase) {
        return phase ? wallNow - std::chrono::duration<double>(steadyNow - *phase).count() : 0.0;
      };
      std::printf("%.3f picture %ld %llu\n", at(trace.shown), updateOf(trace.source),
                  static_cast<unsigned long long>(trace.bytesReceived));
      std::printf("%.3f trace %ld %.4f %.4f %.4f %.4f %.4f %.4f %.4f %.4f %d\n", at(trace.shown),
                  updateOf(trace.source), at(trace.updateReceived), at(trace.queued), at(trace.connected),
                  at(trace.tlsDone), at(trace.firstByte), at(trace.bodyDone), at(trace.decoded), at(trace.shown),
                  trace.connectionReused ? 1 : 0);
      std::fflush(stdout);
    }
  };
  qel::QELBroadcastMapsHost::Options options;
  options.configuration = configuration;
  options.listener = std::make_shared<Traces>();
  options.watchNetwork = watchNetwork;
  // The handler runs on the host's thread, one call at a time.
  options.handler = [phase = std::optional<qel::QELBroadcastMapsStatus::Phase>()](
                        qel::QELBroadcastMapsHostEvent event, const qel::QELBroadcastMapsHost::Snapshot& snapshot) mutable {
    if (event == qel::QELBroadcastMapsHostEvent::Error) std::printf("%.3f error\n", wallClock());
    if (snapshot->status.phase != phase) {
      phase = snapshot->status.phase;
      std::printf("%.3f phase %s\n", wallClock(), qel::QELBroadcastMapsStatus::phaseName(*phase));
    }
    std::fflush(stdout);
  };
  auto host = qel::QELBroadcastMapsHost::create(std::move(options));
  if (!host) {
    std::cerr << "passenger: the maps service is not available\n";
    return 1;
  }
  host->setCurrentResolutionWithCGSize(resolution);
  host->start();
  // Until the harness ends it with SIGTERM.
  pause();
  return 0;
}
