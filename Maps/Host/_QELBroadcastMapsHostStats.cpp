#include "Host/_QELBroadcastMapsHostStats.h"

#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELBroadcastMapsV1.h>

#include <qel/RunLoop.h>

#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include <algorithm>
#include <vector>

namespace qel {

namespace {

constexpr std::size_t kKeptSamples = 101;

double seconds(std::chrono::steady_clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

double medianOf(const std::deque<double>& samples) {
  if (samples.empty()) return 0;
  std::vector<double> sorted(samples.begin(), samples.end());
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2), sorted.end());
  return sorted[sorted.size() / 2];
}

void keep(std::deque<double>& samples, double value) {
  samples.push_back(value);
  if (samples.size() > kKeptSamples) samples.pop_front();
}

boost::json::object counted(const std::map<std::string, std::uint64_t>& byKind) {
  boost::json::object object;
  for (const auto& [kind, count] : byKind) object[kind] = count;
  return object;
}

}  // namespace

std::string QELBroadcastMapsStats::json() const {
  boost::json::object document;
  document["qelmaps.picture.shown"] = picturesShown;
  document["qelmaps.picture.failed"] = counted(picturesFailed);
  document["qelmaps.picture.revalidated"] = picturesRevalidated;
  document["http.client.response.body.size"] = pictureBytes;
  document["http.client.request.duration"] = {{"count", requestCount},
                                              {"sum", requestSecondsSum},
                                              {"last", requestSecondsLast},
                                              {"median", requestSecondsMedian}};
  document["qelmaps.map_data.loads"] = mapDataLoads;
  document["qelmaps.event_channel.connects"] = eventConnects;
  document["qelmaps.event_channel.drops"] = counted(eventDrops);
  document["qelmaps.event_channel.reconnect_attempts"] = reconnectAttempts;
  document["qelmaps.event_channel.round_trip"] = {{"last", roundTripLast}, {"median", roundTripMedian}};
  document["qelmaps.picture.age"] = pictureAge;
  document["qelmaps.last_success"] = lastSuccess;
  return boost::json::serialize(document);
}

namespace internal {

using core::TransportChannel;

QELBroadcastMapsHostStats::QELBroadcastMapsHostStats(std::weak_ptr<QELBroadcastMapsV1> service,
                                                     std::function<void(const QELBroadcastMapsTrace&)> traced,
                                                     std::function<void()> changed)
    : service_(std::move(service)), traced_(std::move(traced)), changed_(std::move(changed)) {}

QELBroadcastMapsStats QELBroadcastMapsHostStats::stats(const QELBroadcastMapsSnapshot& snapshot) const {
  auto stats = counters_;
  stats.requestSecondsMedian = medianOf(requestSeconds_);
  stats.roundTripMedian = medianOf(roundTrips_);
  if (snapshot.lastPicture.image) stats.pictureAge = seconds(snapshot.lastPicture.age());
  return stats;
}

void QELBroadcastMapsHostStats::transportWillConnect(TransportChannel channel) {
  if (channel != TransportChannel::Events) return;
  if (connectedOnce_) ++counters_.reconnectAttempts;
}

void QELBroadcastMapsHostStats::transportDidReceiveEvent() { updateArrived(); }

void QELBroadcastMapsHostStats::updateArrived() {
  updates_.push_back(std::chrono::steady_clock::now());
  if (updates_.size() > 16) updates_.pop_front();
}

void QELBroadcastMapsHostStats::transportDidMeasureRoundTrip(Clock::duration roundTrip) {
  counters_.roundTripLast = seconds(roundTrip);
  keep(roundTrips_, counters_.roundTripLast);
  changed_();
}

QELBroadcastMapsTrace QELBroadcastMapsHostStats::traceOf(const std::string& url,
                                                         const std::optional<core::TransportTiming>& timing) const {
  QELBroadcastMapsTrace trace;
  trace.source = url;
  if (!updates_.empty()) trace.updateReceived = updates_.back();
  if (!timing) return trace;
  // An update that came after the request was queued did not cause it.
  if (timing->queued) {
    trace.updateReceived.reset();
    for (auto it = updates_.rbegin(); it != updates_.rend(); ++it) {
      if (*it <= *timing->queued) {
        trace.updateReceived = *it;
        break;
      }
    }
  }
  trace.queued = timing->queued;
  trace.nameLookupDone = timing->nameLookupDone;
  trace.connected = timing->connected;
  trace.tlsDone = timing->tlsDone;
  trace.firstByte = timing->firstByte;
  trace.bodyDone = timing->done;
  trace.bytesReceived = timing->bytesReceived;
  trace.httpVersion = timing->httpVersion;
  trace.connectionReused = timing->connectionReused;
  return trace;
}

void QELBroadcastMapsHostStats::countRequest(const QELBroadcastMapsTrace& trace) {
  if (!trace.queued) return;
  const auto end = trace.bodyDone.value_or(std::chrono::steady_clock::now());
  const double duration = seconds(end - *trace.queued);
  ++counters_.requestCount;
  counters_.requestSecondsSum += duration;
  counters_.requestSecondsLast = duration;
  keep(requestSeconds_, duration);
}

void QELBroadcastMapsHostStats::transportDidSucceed(TransportChannel channel, const core::TransportAnswer& answer) {
  if (channel == TransportChannel::Events) {
    connectedOnce_ = true;
    ++counters_.eventConnects;
    return changed_();
  }
  if (channel == TransportChannel::MapData) {
    ++counters_.mapDataLoads;
    counters_.lastSuccess = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    updateArrived();
    return changed_();
  }
  auto trace = traceOf(answer.url, answer.timing);
  trace.revalidated = answer.notModified;
  if (answer.notModified) {
    ++counters_.picturesRevalidated;
    trace.bytesReceived = 0;
  }
  counters_.pictureBytes += trace.bytesReceived;
  countRequest(trace);
  auto service = service_.lock();
  const void* before = service ? service->mapImage().get() : nullptr;
  // The service takes the bytes right after this report; what it made of
  // them shows once this callout has ended, before its notification of it
  // reaches the host.
  RunLoop::current().postAfterCallout([weakSelf = weak_from_this(), trace = std::move(trace), before]() mutable {
    if (auto self = weakSelf.lock()) self->afterService(std::move(trace), before);
  });
}

void QELBroadcastMapsHostStats::afterService(QELBroadcastMapsTrace trace, const void* imageBefore) {
  auto service = service_.lock();
  if (!service) return;
  trace.decoded = std::chrono::steady_clock::now();
  const auto& image = service->mapImage();
  if (!image) {
    trace.result = QELBroadcastMapsTrace::Result::Failed;
    trace.failure = core::FailureKind::PictureRefused;
    trace.failureMessage = "the picture was not taken (not decodable, or over the pixel budget)";
    ++counters_.picturesFailed[std::string(core::failureKindName(*trace.failure))];
    return finish(std::move(trace));
  }
  if (image.get() == imageBefore) {
    trace.result = QELBroadcastMapsTrace::Result::SamePicture;
    return finish(std::move(trace));
  }
  // Shown once a snapshot carries it.
  pending_ = std::move(trace);
}

void QELBroadcastMapsHostStats::published(const QELBroadcastMapsSnapshot& snapshot) {
  if (!pending_ || !snapshot.image) return;
  auto service = service_.lock();
  if (!service || service->mapImage() != snapshot.image) return;
  auto trace = std::move(*pending_);
  pending_.reset();
  trace.shown = std::chrono::steady_clock::now();
  trace.result = QELBroadcastMapsTrace::Result::Shown;
  ++counters_.picturesShown;
  counters_.lastSuccess = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  finish(std::move(trace));
}

void QELBroadcastMapsHostStats::transportDidFail(TransportChannel channel, const core::TransportFailure& failure,
                                                 std::optional<Clock::time_point>) {
  const std::string kind(core::failureKindName(failure.kind));
  if (channel == TransportChannel::Events) {
    ++counters_.eventDrops[kind];
    return changed_();
  }
  if (channel != TransportChannel::Picture) return;
  auto trace = traceOf(failure.url, failure.timing);
  trace.result = QELBroadcastMapsTrace::Result::Failed;
  trace.failure = failure.kind;
  trace.failureMessage = failure.message;
  counters_.pictureBytes += trace.bytesReceived;
  countRequest(trace);
  ++counters_.picturesFailed[kind];
  finish(std::move(trace));
}

void QELBroadcastMapsHostStats::finish(QELBroadcastMapsTrace trace) {
  changed_();
  if (traced_) traced_(trace);
}

}  // namespace internal
}  // namespace qel
