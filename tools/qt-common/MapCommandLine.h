// The command line the Qt tools share: where the cabin server is, the picture
// size to show first, and a screenshot to take. Parsing it also hands the
// connection settings to the core kit's configuration.
//
// Header-only, so that a tool built on its own against an installed QELMaps
// (tools/qelmaps-quick) takes it from the source tree as it is.
//
//   const auto options = qeltools::parseMapCommandLine(app, "Shows the map.");
//   if (!options) return 2;
#pragma once

#include <QELMaps/QELMaps.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSize>
#include <QString>
#include <cstdio>
#include <optional>

namespace qeltools {

struct MapCommandLine {
  QSize resolution;     // invalid when none was given
  QString screenshot;   // empty when none was asked for
  double afterSeconds = 5;
};

// Empty, with the help printed, when the arguments are not usable.
inline std::optional<MapCommandLine> parseMapCommandLine(const QCoreApplication& app, const QString& description) {
  QCommandLineParser parser;
  parser.setApplicationDescription(description);
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

  MapCommandLine options;
  bool portOk = false, afterOk = false;
  const uint portNumber = parser.value(port).toUInt(&portOk);
  options.afterSeconds = parser.value(after).toDouble(&afterOk);
  if (parser.isSet(resolution)) {
    const QStringList parts = parser.value(resolution).split('x');
    if (parts.size() == 2) options.resolution = QSize(parts[0].toInt(), parts[1].toInt());
  }
  if (!parser.isSet(host) || !portOk || portNumber == 0 || portNumber > 65535 || !afterOk ||
      (parser.isSet(resolution) && options.resolution.isEmpty())) {
    std::fputs(qPrintable(parser.helpText()), stderr);
    return std::nullopt;
  }
  if (parser.isSet(screenshot)) options.screenshot = parser.value(screenshot);

  qel::core::QELConfiguration configuration;
  configuration.host = parser.value(host).toStdString();
  configuration.port = static_cast<std::uint16_t>(portNumber);
  if (parser.isSet(caFile)) configuration.caFile = parser.value(caFile).toStdString();
  configuration.logThreshold = parser.value(logLevel).toInt();
  qel::core::QELConfiguration::set(configuration);
  return options;
}

}  // namespace qeltools
