// qelmaps-viewer: the broadcast moving map in a window.
//
// Connects like qelmaps-demo, shows the live map scaled to the window, lets
// the passenger pick a resolution and stop or start reception. With
// --screenshot it saves the window after --after seconds and exits, for
// tests and documentation.
//
//   qelmaps-viewer --host HOST --port PORT [--ca-file FILE] [--resolution WxH]
//                  [--screenshot FILE [--after SECONDS]] [--log-level N]

#include <QELMaps/QELMaps.h>
#include <QELMapsQt/QtBroadcastMaps.h>

#include <QApplication>
#include <QTimer>
#include <cstdio>

#include "MapCommandLine.h"
#include "ViewerWindow.h"

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName("qelmaps-viewer");
  // The same look on every platform, including the offscreen one.
  QApplication::setStyle("Fusion");

  const auto options = qeltools::parseMapCommandLine(app, "Shows the broadcast moving map of the cabin network.");
  if (!options) return 2;

  // A viewer on a laptop moves between networks: it follows them itself.
  qel::QtBroadcastMaps maps(qel::QtBroadcastMaps::Options{.watchNetwork = true});
  if (options->resolution.isValid()) maps.setResolution(options->resolution);
  qelviewer::ViewerWindow window(maps);
  window.show();
  maps.start();

  int status = 0;
  if (!options->screenshot.isEmpty()) {
    QTimer::singleShot(static_cast<int>(options->afterSeconds * 1000), &window, [&] {
      const QString file = options->screenshot;
      if (!window.grab().save(file)) {
        std::fprintf(stderr, "qelmaps-viewer: cannot save %s\n", qPrintable(file));
        status = 1;
      }
      app.quit();
    });
  }
  const int code = app.exec();
  return status != 0 ? status : code;
}
