// An application built against an installed QELMaps: it receives the moving
// map from the cabin server until one picture has arrived, then returns from
// main.
//
// The service lives in a global on purpose, as applications often keep
// theirs: it is still started when main returns and goes only with the
// process's static objects, after the library's own per-thread state.
//
//   qelmaps-consumer --host 127.0.0.1 --port 8443 --ca-file ca.pem [--seconds 20]
//
// Exit status 0 once a picture arrived, 1 when none did in time, 2 on bad usage.

#include <QELMaps/QELMaps.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

std::shared_ptr<qel::QELBroadcastMapsV1> gMaps;

class Screen : public qel::Object {
 public:
  bool received = false;
};

}  // namespace

int main(int argc, char** argv) {
  qel::core::QELConfiguration configuration;
  double seconds = 20;
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
  }
  if (!configuration.host || argc % 2 == 0) {
    std::fprintf(stderr, "usage: qelmaps-consumer --host HOST --port PORT [--ca-file FILE] [--seconds N]\n");
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
  qel::RunLoop::current().runUntil([&] { return screen->received; }, std::chrono::duration_cast<qel::RunLoop::Duration>(
                                                                         std::chrono::duration<double>(seconds)));
  std::printf("QELMaps %g: %s\n", QELMapsVersionNumber, screen->received ? "received the map" : "no picture");
  return screen->received ? 0 : 1;
}
