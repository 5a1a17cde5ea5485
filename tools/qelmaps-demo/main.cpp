// qelmaps-demo: a passenger application that shows the broadcast moving map.
//
// It configures where the cabin server is, creates the service on a thread
// of its own, chooses a resolution, starts, and prints one line per
// notification (the time since start, the notification, what it means) and
// one per change of status (why the map is or is not live). Each new map
// picture is saved to --out. This is the code an application starts from.
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
#include <thread>

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

// The part an application would keep: react to each change the host
// delivers, reading the snapshot that came with it.
class MapScreen {
 public:
  explicit MapScreen(std::optional<std::filesystem::path> out) : out_(std::move(out)) {}

  void show(qel::QELBroadcastMapsHostEvent event, const qel::QELBroadcastMapsHost::Snapshot& snapshot) {
    using Event = qel::QELBroadcastMapsHostEvent;
    std::string name(qel::QELBroadcastMapsHost::notificationName(event));
    std::string detail;
    switch (event) {
      case Event::AvailableResolutionsDidChange:
        detail = resolutionsText(*snapshot);
        break;
      case Event::ImageDidChange:
        detail = imageText(*snapshot);
        break;
      case Event::Error:
        detail = "no map data";
        // The map stays on screen meanwhile, with its age.
        if (snapshot->lastPicture.image) {
          const auto age = std::chrono::duration_cast<std::chrono::seconds>(snapshot->lastPicture.age());
          detail += "; showing the last picture, received " + std::to_string(age.count()) + " s ago";
        }
        break;
      case Event::StatusDidChange:
        // Why the map is or is not live, in words for people; a change the
        // words do not show (another channel's failure) is not news here.
        name = "status";
        detail = snapshot->status.describe();
        if (detail == lastStatus_) return;
        lastStatus_ = detail;
        break;
      case Event::StateDidChange:
        return;
      default:
        break;
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    std::printf("%8.3f %s %s\n", elapsed, name.c_str(), detail.c_str());
    std::fflush(stdout);
  }

 private:
  static std::string resolutionsText(const qel::QELBroadcastMapsSnapshot& snapshot) {
    if (snapshot.resolutions.empty()) return "none";
    std::string text;
    // Appended piece by piece: GCC 12 reports a bogus -Wrestrict inside
    // libstdc++ for "literal" + std::string when optimising (GCC bug 105329).
    for (const auto& size : snapshot.resolutions) {
      if (!text.empty()) text += ' ';
      text += qel::stringWithFormat("%@x%@", size.width, size.height);
    }
    return text;
  }

  std::string imageText(const qel::QELBroadcastMapsSnapshot& snapshot) {
    const auto& image = snapshot.image;
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

  std::optional<std::filesystem::path> out_;
  std::string lastStatus_;
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

  // The service on a thread of its own; without an executor the screen is
  // told on that thread, one change at a time.
  MapScreen screen(options->out);
  qel::QELBroadcastMapsHost::Options hostOptions;
  hostOptions.configuration = configuration;
  hostOptions.handler = [&screen](qel::QELBroadcastMapsHostEvent event, qel::QELBroadcastMapsHost::Snapshot snapshot) {
    screen.show(event, snapshot);
  };
  auto host = qel::QELBroadcastMapsHost::create(std::move(hostOptions));
  if (!host) {
    std::cerr << "qelmaps-demo: the maps service is not available\n";
    return 1;
  }
  if (options->resolution) host->setCurrentResolutionWithCGSize(*options->resolution);
  host->start();
  std::this_thread::sleep_for(std::chrono::duration<double>(options->duration));
  host.reset();
  return 0;
}
