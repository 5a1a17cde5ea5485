#pragma once

// What the end-to-end benchmarks share: the cabin server simulator in this
// process on the run loop's own io_context (real TLS over loopback), plain
// GETs through the core kit's transport, and a polling client as an
// application without the event channel would write it.

#include <QELMaps/QELMaps.h>

#include <cabinsim/LocalServer.h>

#include <qel/core/QELRequest.h>
#include <qel/core/QELRequestQueue.h>

#include <boost/json/parse.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qelbench {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

inline constexpr const char* kFlightMapPath = "/skelion/services/maps/v1/flight_map";

// The simulator logs every request to stderr; at benchmark rates that is
// I/O the measurement should not contain. Results go to stdout.
inline void silenceStderr() {
  const int devNull = ::open("/dev/null", O_WRONLY);
  if (devNull >= 0) {
    ::dup2(devNull, 2);
    ::close(devNull);
  }
}

// The simulator with no periodic updates (the benchmark ticks it), and the
// core kit pointed at it, logging up to `logThreshold`. The server runs on
// the current run loop, or with `ownThread` on a thread of its own, where
// only call() and post() reach it. `host` is the address the server binds
// and its certificate names.
class LoopbackCabin : public cabinsim::LocalServer {
 public:
  LoopbackCabin(std::vector<cabinsim::Resolution> resolutions, int logThreshold, bool ownThread = false,
                const std::string& host = "127.0.0.1")
      : LocalServer(options(std::move(resolutions), host), ownThread ? nullptr : &qel::RunLoop::current().context()),
        ownThread_(ownThread) {
    qel::core::QELConfiguration configuration;
    configuration.host = host;
    configuration.port = port();
    configuration.caFile = caFile();
    configuration.logThreshold = logThreshold;
    qel::core::QELConfiguration::set(configuration);
  }
  ~LoopbackCabin() {
    if (ownThread_) return;
    // Lets the client see its connections close before the server goes.
    server().stop();
    qel::RunLoop::current().runFor(100ms);
  }

  // The image source the server lists now for `resolution`; where it runs.
  std::string currentSource(const std::string& resolution) {
    return sourceIn(server().flightMapJson(), resolution).value_or("");
  }

  // The "src" of the entry of `resolution` ("1024x768") in a map data body.
  static std::optional<std::string> sourceIn(std::string_view body, const std::string& resolution) {
    boost::system::error_code ec;
    const auto value = boost::json::parse(body, ec);
    if (ec || !value.is_object()) return std::nullopt;
    const auto* images = value.as_object().if_contains("images");
    if (!images || !images->is_array()) return std::nullopt;
    for (const auto& entry : images->as_array()) {
      const auto* object = entry.if_object();
      if (!object) continue;
      const auto* w = object->if_contains("width");
      const auto* h = object->if_contains("height");
      const auto* src = object->if_contains("src");
      if (!w || !h || !src || !src->is_string() || !w->is_int64() || !h->is_int64()) continue;
      if (std::to_string(w->as_int64()) + "x" + std::to_string(h->as_int64()) == resolution) {
        return std::string(src->as_string());
      }
    }
    return std::nullopt;
  }

 private:
  static cabinsim::ServerOptions options(std::vector<cabinsim::Resolution> resolutions, const std::string& host) {
    cabinsim::ServerOptions options;
    options.host = host;
    options.intervalSeconds = 3600;
    options.resolutions = std::move(resolutions);
    return options;
  }

  bool ownThread_;
};

// One GET at a time through a request queue of its own on the shared
// transport (verified HTTPS with its keep-alive pool), as the framework
// itself fetches.
class Getter {
 public:
  using Done = std::function<void(std::optional<qel::Data>)>;

  Getter() : queue_(qel::core::QELRequestQueue::create()), delegate_(std::make_shared<Delegate>()) {
    queue_->setMaxConcurrentOperationCount(1);
  }

  // `path` on the configured cabin server. The image request type is only
  // the carrier: it is a plain GET that accepts a large body.
  void get(const std::string& path, Done done) {
    delegate_->done = std::move(done);
    queue_->addRequest(qel::core::QELImageDownloadRequest::initWithImageURL(path, delegate_));
  }

 private:
  struct Delegate : qel::core::QELRequestDelegate {
    Done done;
    void requestDidFinish(const std::shared_ptr<qel::core::QELRequest>&, const qel::Data& data) override {
      std::exchange(done, {})(data);
    }
    void requestDidFail(const std::shared_ptr<qel::core::QELRequest>&, const qel::Error&) override {
      std::exchange(done, {})(std::nullopt);
    }
  };

  std::shared_ptr<qel::core::QELRequestQueue> queue_;
  std::shared_ptr<Delegate> delegate_;
};

// The usual alternative to the event channel: GET the map data every
// `period`, and the picture when its source changed.
class PollingClient {
 public:
  using OnPicture = std::function<void(const std::string& source, std::shared_ptr<const qel::Image>)>;

  PollingClient(std::string resolution, qel::RunLoop::Duration period, OnPicture onPicture)
      : resolution_(std::move(resolution)), period_(period), onPicture_(std::move(onPicture)) {}
  ~PollingClient() { stop(); }

  void start() {
    next_ = Clock::now();
    poll();
  }
  void stop() {
    if (timer_) timer_->cancel();
    timer_ = nullptr;
    stopped_ = true;
  }
  std::uint64_t polls() const { return polls_; }

 private:
  void poll() {
    if (stopped_) return;
    // A fixed rate, as a timer-driven client has, independent of fetch times.
    next_ += period_;
    timer_ = qel::RunLoop::current().schedule(std::max<qel::RunLoop::Duration>(next_ - Clock::now(), {}),
                                              [this] { poll(); });
    if (busy_) return;
    busy_ = true;
    ++polls_;
    getter_.get(kFlightMapPath, [this](std::optional<qel::Data> body) {
      const auto source =
          body ? LoopbackCabin::sourceIn(std::string_view(reinterpret_cast<const char*>(body->data()), body->size()),
                                         resolution_)
               : std::nullopt;
      if (!source || *source == lastSource_) {
        busy_ = false;
        return;
      }
      getter_.get(*source, [this, source = *source](std::optional<qel::Data> png) {
        busy_ = false;
        auto image = png ? qel::Image::fromData(*png) : nullptr;
        if (!image) return;
        lastSource_ = source;
        if (!stopped_) onPicture_(source, std::move(image));
      });
    });
  }

  std::string resolution_;
  qel::RunLoop::Duration period_;
  OnPicture onPicture_;
  Getter getter_;
  std::shared_ptr<qel::ScheduledCall> timer_;
  Clock::time_point next_;
  std::string lastSource_;
  std::uint64_t polls_ = 0;
  bool busy_ = false;
  bool stopped_ = false;
};

// Order statistics of a set of durations, in milliseconds.
struct Summary {
  double median = 0;
  double p99 = 0;
  double mean = 0;
  std::size_t count = 0;

  static Summary of(std::vector<double> ms) {
    Summary s;
    s.count = ms.size();
    if (ms.empty()) return s;
    std::sort(ms.begin(), ms.end());
    auto at = [&](double q) {
      const auto index = static_cast<std::size_t>(q * static_cast<double>(ms.size() - 1) + 0.5);
      return ms[std::min(index, ms.size() - 1)];
    };
    s.median = at(0.5);
    s.p99 = at(0.99);
    double sum = 0;
    for (double v : ms) sum += v;
    s.mean = sum / static_cast<double>(ms.size());
    return s;
  }
};

inline double millisecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

// The application side: counts image-changed notifications of one service
// that came with a picture, and when the last one arrived.
class ImageWatcher : public qel::Object {
 public:
  static std::shared_ptr<ImageWatcher> watch(const std::shared_ptr<qel::QELBroadcastMapsV1>& maps) {
    auto watcher = std::shared_ptr<ImageWatcher>(new ImageWatcher);
    qel::NotificationCenter::defaultCenter().addObserver(
        watcher,
        [raw = watcher.get(), weak = std::weak_ptr(maps)](const qel::Notification&) {
          const auto service = weak.lock();
          if (!service || !service->mapImage()) return;
          ++raw->pictures;
          raw->lastPictureAt = Clock::now();
        },
        qel::QELBroadcastMapsImageDidChangeNotification, maps);
    return watcher;
  }
  ~ImageWatcher() override { qel::NotificationCenter::defaultCenter().removeObserver(this); }

  std::uint64_t pictures = 0;
  Clock::time_point lastPictureAt;

 private:
  ImageWatcher() = default;
};

}  // namespace qelbench
