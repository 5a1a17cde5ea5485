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
//   1700000000.456 error          no map data (connection lost, reload failed)
//
// Library log lines of level 2 and below go to standard error.
//
//   passenger --host HOST --port PORT --ca-file FILE [--resolution 400x300]

#include <QELMaps/QELMaps.h>
#include <qel/core/QELLogging.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include <unistd.h>

namespace {

// What observes the service: the notification centre holds observers weakly.
struct Screen : qel::Object {};

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
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const std::string value = argv[i + 1];
    if (flag == "--host") {
      configuration.host = value;
    } else if (flag == "--port") {
      configuration.port = static_cast<std::uint16_t>(std::atoi(value.c_str()));
    } else if (flag == "--ca-file") {
      configuration.caFile = value;
    } else if (flag == "--resolution" && value.find('x') != std::string::npos) {
      resolution = {std::atof(value.c_str()), std::atof(value.c_str() + value.find('x') + 1)};
    } else {
      std::cerr << "usage: passenger --host HOST --port PORT --ca-file FILE [--resolution WxH]\n";
      return 2;
    }
  }

  // The picture's update is known only from the URL it was downloaded from:
  // the transport's level-4 line for each finished download names it, and
  // the image-changed notification follows that download's line.
  long lastDownloaded = -1;
  long lastBytes = 0;
  configuration.logThreshold = 4;
  qel::core::QELConfiguration::set(configuration);
  qel::core::QELLogging::setSink([&](int level, std::string_view domain, std::string_view message) {
    if (message.starts_with("GET ") && message.find("/maps/") != std::string_view::npos) {
      const auto colon = message.find(": 200, ");
      if (colon != std::string_view::npos) {
        lastDownloaded = updateOf(message.substr(4, colon - 4));
        lastBytes = std::strtol(std::string(message.substr(colon + 7, 20)).c_str(), nullptr, 10);
      }
    } else if (level <= 2) {
      std::fprintf(stderr, "%d %.*s %.*s\n", level, static_cast<int>(domain.size()), domain.data(),
                   static_cast<int>(message.size()), message.data());
    }
  });

  std::printf("%.3f started %ld\n", wallClock(), residentKiB());
  std::fflush(stdout);
  auto maps = qel::QELBroadcastMapsV1::create();
  if (!maps) {
    std::cerr << "passenger: the maps service is not available\n";
    return 1;
  }
  maps->setCurrentResolutionWithCGSize(resolution);
  auto screen = std::make_shared<Screen>();
  auto& center = qel::NotificationCenter::defaultCenter();
  center.addObserver(
      screen,
      [&](const qel::Notification&) {
        if (maps->mapImage()) std::printf("%.3f picture %ld %ld\n", wallClock(), lastDownloaded, lastBytes);
        std::fflush(stdout);
      },
      qel::QELBroadcastMapsImageDidChangeNotification, maps);
  center.addObserver(
      screen,
      [](const qel::Notification&) {
        std::printf("%.3f error\n", wallClock());
        std::fflush(stdout);
      },
      qel::QELBroadcastMapsErrorNotification, maps);

  maps->start();
  // Until the harness ends it with SIGTERM: run() has no timeout to wake for.
  qel::RunLoop::current().run();
  return 0;
}
