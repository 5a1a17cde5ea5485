// qelmaps-quick: the broadcast moving map in a Qt Quick window (main.qml).
//
// With --screenshot it saves the window after --after seconds and exits:
// status 0 when a map picture was on screen, 1 when none was.
//
//   qelmaps-quick --host HOST --port PORT [--ca-file FILE] [--resolution WxH]
//                 [--screenshot FILE [--after SECONDS]] [--log-level N]

#include <QELMaps/QELMaps.h>
#include <QELMapsQt/QtMapItem.h>

#include <QCommandLineParser>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>

int main(int argc, char** argv) {
  // Drawn by the CPU where there is no GPU, such as the offscreen platform.
  if (qEnvironmentVariable("QT_QPA_PLATFORM") == "offscreen") {
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
  }
  QGuiApplication app(argc, argv);
  QGuiApplication::setApplicationName("qelmaps-quick");

  QCommandLineParser parser;
  parser.setApplicationDescription("Shows the broadcast moving map of the cabin network (Qt Quick).");
  parser.addHelpOption();
  const QCommandLineOption host("host", "Cabin server host name or address.", "HOST");
  const QCommandLineOption port("port", "Cabin server port.", "PORT", "443");
  const QCommandLineOption caFile("ca-file", "CA certificate (PEM) to trust.", "FILE");
  const QCommandLineOption resolution("resolution", "Picture size to show.", "WxH");
  const QCommandLineOption screenshot("screenshot", "Save the window to FILE and exit.", "FILE");
  const QCommandLineOption after("after", "Seconds to wait before the screenshot.", "SECONDS", "5");
  const QCommandLineOption logLevel("log-level", "Log threshold, 1 terse ... 5 chatty.", "N", "2");
  parser.addOptions({host, port, caFile, resolution, screenshot, after, logLevel});
  parser.process(app);

  bool portOk = false, afterOk = false;
  const uint portNumber = parser.value(port).toUInt(&portOk);
  const double afterSeconds = parser.value(after).toDouble(&afterOk);
  QSize size;
  if (parser.isSet(resolution)) {
    const QStringList parts = parser.value(resolution).split('x');
    if (parts.size() == 2) size = QSize(parts[0].toInt(), parts[1].toInt());
  }
  if (!parser.isSet(host) || !portOk || portNumber == 0 || portNumber > 65535 || !afterOk ||
      (parser.isSet(resolution) && size.isEmpty())) {
    std::fputs(qPrintable(parser.helpText()), stderr);
    return 2;
  }

  qel::core::QELConfiguration configuration;
  configuration.host = parser.value(host).toStdString();
  configuration.port = static_cast<std::uint16_t>(portNumber);
  if (parser.isSet(caFile)) configuration.caFile = parser.value(caFile).toStdString();
  configuration.logThreshold = parser.value(logLevel).toInt();
  qel::core::QELConfiguration::set(configuration);

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
  if (size.isValid()) maps->setResolution(size);
  maps->start();

  int status = 0;
  if (parser.isSet(screenshot)) {
    QTimer::singleShot(static_cast<int>(afterSeconds * 1000), window, [&] {
      const QString file = parser.value(screenshot);
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
