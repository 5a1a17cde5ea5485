// qelmaps-demo: a passenger application that shows the broadcast moving map.
//
// It configures where the cabin server is, creates the service, chooses a
// resolution, starts, and prints one line per notification: the time since
// start, the notification, and what it means. Each new map picture is saved
// to --out. This is the code an application starts from.
//
//   qelmaps-demo --host HOST --port PORT [--ca-file FILE] [--resolution WxH]
//                [--out DIR] [--duration SECONDS] [--log-level N]

#include <QELMaps/QELMaps.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>

namespace {

struct Options {
  std::string host;
  std::uint16_t port = 443;
  std::optional<std::string> caFile;
  std::optional<qel::CGSize> resolution;
  std::optional<std::filesystem::path> out;
  double duration = 20;
  int logLevel = 2;
};

void usage() {
  std::cerr << "usage: qelmaps-demo --host HOST --port PORT [--ca-file FILE] [--resolution WxH]\n"
               "                    [--out DIR] [--duration SECONDS] [--log-level N]\n";
}

std::optional<Options> parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help") return std::nullopt;
    if (i + 1 >= argc) return std::nullopt;
    const std::string value = argv[++i];
    try {
      if (flag == "--host") options.host = value;
      else if (flag == "--port") options.port = static_cast<std::uint16_t>(std::stoul(value));
      else if (flag == "--ca-file") options.caFile = value;
      else if (flag == "--out") options.out = value;
      else if (flag == "--duration") options.duration = std::stod(value);
      else if (flag == "--log-level") options.logLevel = std::stoi(value);
      else if (flag == "--resolution") {
        const auto x = value.find('x');
        if (x == std::string::npos) return std::nullopt;
        options.resolution = qel::CGSize{std::stod(value.substr(0, x)), std::stod(value.substr(x + 1))};
      } else {
        return std::nullopt;
      }
    } catch (const std::exception&) {
      return std::nullopt;
    }
  }
  if (options.host.empty()) return std::nullopt;
  return options;
}

// The part an application would keep: observe the service, react to each
// notification.
class MapScreen : public qel::Object {
 public:
  MapScreen(std::shared_ptr<qel::QELBroadcastMapsV1> maps, std::optional<std::filesystem::path> out)
      : maps_(std::move(maps)), out_(std::move(out)) {}

  void onNotification(const qel::Notification& notification) {
    std::string detail;
    if (notification.name() == qel::QELBroadcastMapsAvailableResolutionsDidChangeNotification) {
      detail = resolutionsText();
    } else if (notification.name() == qel::QELBroadcastMapsImageDidChangeNotification) {
      detail = imageText();
    } else if (notification.name() == qel::QELBroadcastMapsErrorNotification) {
      detail = "no map data";
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    std::printf("%8.3f %s %s\n", elapsed, notification.name().c_str(), detail.c_str());
    std::fflush(stdout);
  }

 private:
  std::string resolutionsText() const {
    const auto resolutions = maps_->availableResolutions();
    if (!resolutions) return "none";
    std::string text;
    // Appended piece by piece: GCC 12 reports a bogus -Wrestrict inside
    // libstdc++ for "literal" + std::string when optimising (GCC bug 105329).
    for (const auto& r : *resolutions) {
      if (!text.empty()) text += ' ';
      text += qel::stringWithFormat("%@x%@", r->width(), r->height());
    }
    return text;
  }

  std::string imageText() {
    const auto image = maps_->mapImage();
    if (!image) return "cleared";
    std::string text = std::to_string(image->width()) + "x" + std::to_string(image->height());
    if (out_) {
      char name[32];
      std::snprintf(name, sizeof name, "map-%04d.png", ++saved_);
      const auto path = *out_ / name;
      const auto png = image->pngRepresentation();
      std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(png.data()),
                                                  static_cast<std::streamsize>(png.size()));
      std::filesystem::copy_file(path, *out_ / "latest.png",
                                 std::filesystem::copy_options::overwrite_existing);
      text += ' ';
      text += path.string();
    }
    return text;
  }

  std::shared_ptr<qel::QELBroadcastMapsV1> maps_;
  std::optional<std::filesystem::path> out_;
  std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  int saved_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const auto options = parse(argc, argv);
  if (!options) {
    usage();
    return 2;
  }
  if (options->out) std::filesystem::create_directories(*options->out);

  qel::core::QELConfiguration configuration;
  configuration.host = options->host;
  configuration.port = options->port;
  configuration.caFile = options->caFile;
  configuration.logThreshold = options->logLevel;
  qel::core::QELConfiguration::set(configuration);

  auto maps = qel::QELBroadcastMapsV1::create();
  if (!maps) {
    std::cerr << "qelmaps-demo: the maps service is not available\n";
    return 1;
  }
  if (options->resolution) maps->setCurrentResolutionWithCGSize(*options->resolution);

  auto screen = std::make_shared<MapScreen>(maps, options->out);
  for (const char* name : {qel::QELBroadcastMapsAvailableResolutionsDidChangeNotification,
                           qel::QELBroadcastMapsImageDidChangeNotification,
                           qel::QELBroadcastMapsErrorNotification,
                           qel::QELBroadcastMapsImageDidStopReceivingImageNotification,
                           qel::internal::QELBroadcastMapsImageDidStartReceivingImageNotification}) {
    qel::NotificationCenter::defaultCenter().addObserver(
        screen, [raw = screen.get()](const qel::Notification& n) { raw->onNotification(n); }, name, maps);
  }

  maps->start();
  qel::RunLoop::current().runFor(std::chrono::duration_cast<qel::RunLoop::Duration>(
      std::chrono::duration<double>(options->duration)));
  maps->stop();
  return 0;
}
