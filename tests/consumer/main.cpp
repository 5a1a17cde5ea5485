// An application built against an installed QELMaps: it receives the moving
// map from the cabin server until one picture has arrived, then returns from
// main.
//
// The service lives in a global on purpose, as applications often keep
// theirs: it is still started when main returns and goes only with the
// process's static objects, after the library's own per-thread state.
// "--exit-when downloading" returns earlier, with a second service in a
// global too: once the resolutions are known, the first download under way
// and the second waiting behind it.
//
//   qelmaps-consumer --host 127.0.0.1 --port 8443 --ca-file ca.pem [--seconds 20]
//                    [--exit-when picture|downloading]
//
// Exit status 0 once that point was reached, 1 when it was not in time, 2 on
// bad usage.

#include <QELMaps/QELMaps.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

std::shared_ptr<qel::QELBroadcastMapsV1> gMaps;
std::shared_ptr<qel::QELBroadcastMapsV1> gSecondMaps;

class Screen : public qel::Object {
 public:
  bool received = false;
  bool listed = false;
};

}  // namespace

int main(int argc, char** argv) {
  qel::core::QELConfiguration configuration;
  double seconds = 20;
  std::string exitWhen = "picture";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--host")
      configuration.host = argv[i + 1];
    else if (flag == "--port")
      configuration.port = static_cast<std::uint16_t>(std::atoi(argv[i + 1]));
    else if (flag == "--ca-file")
      configuration.caFile = argv[i + 1];
    else if (flag == "--seconds")
      seconds = std::atof(argv[i + 1]);
    else if (flag == "--exit-when")
      exitWhen = argv[i + 1];
  }
  if (!configuration.host || argc % 2 == 0 || (exitWhen != "picture" && exitWhen != "downloading")) {
    std::fprintf(stderr,
                 "usage: qelmaps-consumer --host HOST --port PORT [--ca-file FILE] [--seconds N]"
                 " [--exit-when picture|downloading]\n");
    return 2;
  }
  configuration.logThreshold = 1;
  qel::core::QELConfiguration::set(configuration);

  gMaps = qel::QELBroadcastMapsV1::create();
  if (!gMaps) return 1;
  auto screen = std::make_shared<Screen>();
  qel::NotificationCenter::defaultCenter().addObserver(
      screen,
      [raw = screen.get()](const qel::Notification&) {
        if (const auto image = gMaps->mapImage()) {
          std::printf("picture %zux%zu\n", image->width(), image->height());
          raw->received = true;
        }
      },
      qel::QELBroadcastMapsImageDidChangeNotification, gMaps);
  gMaps->start();
  const bool downloading = exitWhen == "downloading";
  if (downloading) {
    qel::NotificationCenter::defaultCenter().addObserver(
        screen, [raw = screen.get()](const qel::Notification&) { raw->listed = true; },
        qel::QELBroadcastMapsAvailableResolutionsDidChangeNotification, gMaps);
    gSecondMaps = qel::QELBroadcastMapsV1::create();
    gSecondMaps->start();
  }
  auto& loop = qel::RunLoop::current();
  loop.runUntil([&] { return downloading ? screen->listed : screen->received; },
                std::chrono::duration_cast<qel::RunLoop::Duration>(std::chrono::duration<double>(seconds)));
  if (downloading) {
    // What is ready now and no more: the first download starts, the second
    // waits, and no answer has had the time to come back.
    loop.runPending();
    std::printf("QELMaps %g: %s\n", QELMapsVersionNumber, screen->listed ? "leaving with downloads under way" : "no map data");
    return screen->listed ? 0 : 1;
  }
  std::printf("QELMaps %g: %s\n", QELMapsVersionNumber, screen->received ? "received the map" : "no picture");
  return screen->received ? 0 : 1;
}
