// qelmaps-quick: the broadcast moving map in a Qt Quick window (main.qml).
//
// With --screenshot it saves the window after --after seconds and exits:
// status 0 when a map picture was on screen, 1 when none was.
//
//   qelmaps-quick --host HOST --port PORT [--ca-file FILE] [--resolution WxH]
//                 [--screenshot FILE [--after SECONDS]] [--log-level N]

#include <QELMaps/QELMaps.h>
#include <QELMapsQt/QtMapItem.h>

#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>

#include "MapCommandLine.h"

int main(int argc, char** argv) {
  // Drawn by the CPU where there is no GPU, such as the offscreen platform.
  if (qEnvironmentVariable("QT_QPA_PLATFORM") == "offscreen") {
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
  }
  QGuiApplication app(argc, argv);
  QGuiApplication::setApplicationName("qelmaps-quick");

  const auto options =
      qeltools::parseMapCommandLine(app, "Shows the broadcast moving map of the cabin network (Qt Quick).");
  if (!options) return 2;

  qel::QtMapItem::registerQmlTypes();
  QQmlApplicationEngine engine;
  engine.load(QUrl("qrc:/main.qml"));
  if (engine.rootObjects().isEmpty()) return 1;
  auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().first());
  auto* maps = window->findChild<qel::QtBroadcastMaps*>("maps");
  auto* map = window->findChild<qel::QtMapItem*>("map");
  if (!maps || !map || !maps->isValid()) {
    std::fputs("qelmaps-quick: the map service could not be made\n", stderr);
    return 1;
  }
  if (options->resolution.isValid()) maps->setResolution(options->resolution);
  maps->start();

  int status = 0;
  if (!options->screenshot.isEmpty()) {
    QTimer::singleShot(static_cast<int>(options->afterSeconds * 1000), window, [&] {
      const QString file = options->screenshot;
      if (!window->grabWindow().save(file)) {
        std::fprintf(stderr, "qelmaps-quick: cannot save %s\n", qPrintable(file));
        status = 1;
      } else if (!map->hasPicture()) {
        std::fputs("qelmaps-quick: no map picture was shown\n", stderr);
        status = 1;
      }
      app.quit();
    });
  }
  const int code = app.exec();
  return status != 0 ? status : code;
}
