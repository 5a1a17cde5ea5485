// Restart to pixels: how soon an application that starts again has its map
// on screen, and what the restart costs the link.
//
// In one run, repeated:
//  - warm: a host made with a cache directory that holds the picture, the
//    server out of reach; timed from create() until a snapshot carries the
//    picture. Its floor is the decode of the cached bytes alone.
//  - cold: a host made without a cache against the simulator (in this
//    process, its own thread, real TLS over loopback); timed from create()
//    until a snapshot carries the live picture.
//  - revalidated: a host made with the warm cache against the same server,
//    which has nothing new; the picture bytes the server sent are counted on
//    its side (a 304 sends none).
//
//   restart_to_pixels [--runs N] [--resolution WxH]

#include <QELMaps/QELMaps.h>

#include <cabinsim/LocalServer.h>

#include <qel/Image.h>
#include <qel/core/QELLogging.h>

#include <sys/socket.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double milliseconds(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

std::uint16_t closedPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(fd);
  return ntohs(address.sin_port);
}

// A host made now, and the time until `shown` holds for a snapshot.
template <class Shown>
std::pair<std::unique_ptr<qel::QELBroadcastMapsHost>, Clock::duration> timeToPicture(
    const qel::core::QELConfiguration& configuration, std::optional<fs::path> cache, qel::CGSize resolution,
    Shown shown) {
  const auto start = Clock::now();
  qel::QELBroadcastMapsHost::Options options;
  options.configuration = configuration;
  options.cacheDirectory = std::move(cache);
  auto host = qel::QELBroadcastMapsHost::create(std::move(options));
  if (!host) {
    std::fprintf(stderr, "restart_to_pixels: no host\n");
    std::exit(1);
  }
  host->setCurrentResolutionWithCGSize(resolution);
  host->start();
  while (!shown(*host->snapshot())) {
    if (Clock::now() - start > 20s) {
      std::fprintf(stderr, "restart_to_pixels: no picture within 20 s\n");
      std::exit(1);
    }
    std::this_thread::yield();
  }
  return {std::move(host), Clock::now() - start};
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 15;
  qel::CGSize resolution{1024, 768};
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--runs") runs = std::max(1, std::atoi(argv[i + 1]));
    if (flag == "--resolution") std::sscanf(argv[i + 1], "%lfx%lf", &resolution.width, &resolution.height);
  }
  qel::core::QELLogging::setThreshold(1);

  cabinsim::ServerOptions serverOptions;
  serverOptions.intervalSeconds = 3600;
  cabinsim::LocalServer server(serverOptions);
  qel::core::QELConfiguration live;
  live.host = server.host();
  live.port = server.port();
  live.caFile = server.caFile();
  auto unreachable = live;
  unreachable.port = closedPort();

  const fs::path cache = fs::temp_directory_path() / ("qelmaps-restart-bench-" + std::to_string(::getpid()));
  fs::remove_all(cache);
  const auto isLive = [](const qel::QELBroadcastMapsSnapshot& s) {
    return s.image && !s.lastPicture.stale;
  };
  const auto hasPicture = [](const qel::QELBroadcastMapsSnapshot& s) { return s.lastPicture.image != nullptr; };

  // Fills the cache once.
  timeToPicture(live, cache, resolution, isLive);
  std::vector<std::uint8_t> cachedBytes;
  for (const auto& file : fs::directory_iterator(cache)) {
    std::ifstream stream(file.path(), std::ios::binary);
    std::string contents((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    const auto start = contents.find('\n', contents.find('\n') + 1) + 1;
    cachedBytes.assign(contents.begin() + static_cast<std::ptrdiff_t>(start), contents.end());
  }

  std::vector<double> warm, floor, cold, sentPerRestart;
  std::uint64_t notModified = 0;
  for (int run = 0; run < runs; ++run) {
    {
      const auto start = Clock::now();
      auto image = qel::Image::fromData(cachedBytes);
      floor.push_back(milliseconds(Clock::now() - start));
      if (!image) return 1;
    }
    warm.push_back(milliseconds(timeToPicture(unreachable, cache, resolution, hasPicture).second));
    cold.push_back(milliseconds(timeToPicture(live, std::nullopt, resolution, isLive).second));
    const auto before = server.call([](cabinsim::Server& s) { return s.imageBodyBytes(); });
    const auto confirmed = server.call([](cabinsim::Server& s) { return s.notModifiedAnswers(); });
    timeToPicture(live, cache, resolution, [](const qel::QELBroadcastMapsSnapshot& s) {
      return s.image && !s.lastPicture.stale && !s.lastPicture.fromCache;
    });
    sentPerRestart.push_back(
        static_cast<double>(server.call([](cabinsim::Server& s) { return s.imageBodyBytes(); }) - before));
    notModified += server.call([](cabinsim::Server& s) { return s.notModifiedAnswers(); }) - confirmed;
  }
  fs::remove_all(cache);

  std::printf("restart_to_pixels: %d runs, %gx%g, cached picture %zu bytes\n", runs, resolution.width,
              resolution.height, cachedBytes.size());
  std::printf("| measurement | median | min | max |\n|---|---|---|---|\n");
  const auto row = [](const char* name, const std::vector<double>& values, const char* unit) {
    std::printf("| %s | %.2f %s | %.2f %s | %.2f %s |\n", name, median(values), unit,
                *std::min_element(values.begin(), values.end()), unit, *std::max_element(values.begin(), values.end()),
                unit);
  };
  row("warm cache, server unreachable: create() to picture in the snapshot", warm, "ms");
  row("floor: decode of the cached bytes", floor, "ms");
  row("cold cache, simulator on loopback: create() to live picture", cold, "ms");
  row("picture bytes sent by the server per restart (warm cache, nothing new)", sentPerRestart, "B");
  std::printf("warm / floor: %.2f; cold / warm: %.1f; 304 answers: %llu of %d restarts\n",
              median(warm) / median(floor), median(cold) / median(warm), static_cast<unsigned long long>(notModified),
              runs);
  return 0;
}
