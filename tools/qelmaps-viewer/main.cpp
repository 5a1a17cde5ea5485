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
#include <QCommandLineParser>
#include <QTimer>
#include <cstdio>

#include "ViewerWindow.h"

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName("qelmaps-viewer");
  // The same look on every platform, including the offscreen one.
  QApplication::setStyle("Fusion");

  QCommandLineParser parser;
  parser.setApplicationDescription("Shows the broadcast moving map of the cabin network.");
  parser.addHelpOption();
  const QCommandLineOption host("host", "Cabin server host name or address.", "HOST");
  const QCommandLineOption port("port", "Cabin server port.", "PORT", "443");
  const QCommandLineOption caFile("ca-file", "CA certificate (PEM) to trust.", "FILE");
  const QCommandLineOption resolution("resolution", "Picture size to show first.", "WxH");
  const QCommandLineOption screenshot("screenshot", "Save the window to FILE and exit.", "FILE");
  const QCommandLineOption after("after", "Seconds to wait before the screenshot.", "SECONDS", "5");
  const QCommandLineOption logLevel("log-level", "Log threshold, 1 terse ... 5 chatty.", "N", "2");
  parser.addOptions({host, port, caFile, resolution, screenshot, after, logLevel});
  parser.process(app);

  bool portOk = false;
  const uint portNumber = parser.value(port).toUInt(&portOk);
  bool afterOk = false;
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

  qel::QtBroadcastMaps maps;
  if (size.isValid()) maps.setResolution(size);
  qelviewer::ViewerWindow window(maps);
  window.show();
  maps.start();

  int status = 0;
  if (parser.isSet(screenshot)) {
    QTimer::singleShot(static_cast<int>(afterSeconds * 1000), &window, [&] {
      const QString file = parser.value(screenshot);
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
