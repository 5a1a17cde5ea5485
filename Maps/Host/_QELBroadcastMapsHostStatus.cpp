#include "Host/_QELBroadcastMapsHostStatus.h"

#include "BroadcastMaps/_QELBroadcastMaps.h"

#include <QELMaps/QELBroadcastMapsV1.h>

#include <qel/Format.h>
#include <qel/Image.h>
#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>

#include <boost/json/parse.hpp>

#include <cmath>

namespace qel {

using core::FailureKind;
using core::TransportChannel;

namespace {

// What an application says about a failed channel, before any detail.
const char* headline(FailureKind kind) {
  switch (kind) {
    case FailureKind::NameLookup:
      return "Cabin server name not found";
    case FailureKind::ConnectionRefused:
      return "Cabin server refused the connection";
    case FailureKind::Unreachable:
      return "Cabin server unreachable";
    case FailureKind::TlsHandshake:
      return "Secure connection to the cabin server failed";
    case FailureKind::Certificate:
      return "Cannot verify the cabin server's certificate";
    case FailureKind::HttpStatus:
      return "Cabin server error";
    case FailureKind::MapDataRefused:
      return "Map data refused";
    case FailureKind::PictureRefused:
      return "Map picture refused";
    case FailureKind::ClosedByServer:
      return "Cabin server closed the connection";
    case FailureKind::Timeout:
      return "Cabin server stopped answering";
    case FailureKind::ConnectionLost:
      return "Connection to the cabin server lost";
  }
  return "Cabin server failed";
}

std::string describeFailure(const QELBroadcastMapsStatus::Failure& failure) {
  std::string text = headline(failure.kind);
  switch (failure.kind) {
    case FailureKind::HttpStatus:
      if (failure.code) text += " (status " + std::to_string(failure.code) + ")";
      break;
    case FailureKind::ClosedByServer:
      text += " (code " + std::to_string(failure.code) + ")";
      break;
    case FailureKind::Certificate:
    case FailureKind::TlsHandshake:
    case FailureKind::MapDataRefused:
    case FailureKind::PictureRefused:
      // The detail is what the user acts on here: the verifier's reason,
      // what was wrong with the answer.
      if (!failure.message.empty()) text += ": " + failure.message;
      break;
    default:
      break;
  }
  return text;
}

// The transports' clock is the steady one; people read the wall clock.
QELBroadcastMapsStatus::Clock::time_point onWallClock(core::TransportObserver::Clock::time_point when) {
  return QELBroadcastMapsStatus::Clock::now() + std::chrono::duration_cast<QELBroadcastMapsStatus::Clock::duration>(
                                                    when - core::TransportObserver::Clock::now());
}

std::string nextTry(std::optional<QELBroadcastMapsStatus::Clock::time_point> next,
                    QELBroadcastMapsStatus::Clock::time_point now) {
  if (!next) return {};
  const double seconds = std::chrono::duration<double>(*next - now).count();
  return ", next try in " + std::to_string(std::max<long>(0, std::lround(std::ceil(seconds)))) + " s";
}

// Why an answer of the cabin server's map data cannot be a record, or empty
// when nothing is visibly wrong with it.
std::string mapDataProblem(const Data& body) {
  boost::system::error_code error;
  const auto value =
      boost::json::parse(std::string_view(reinterpret_cast<const char*>(body.data()), body.size()), error);
  if (error) return "the answer is not JSON (" + error.message() + ")";
  const auto* object = value.if_object();
  if (!object) return "the answer is not a JSON object";
  const auto* images = object->if_contains("images");
  if (!images) return {};
  const auto* array = images->if_array();
  if (!array) return "\"images\" is not an array";
  for (const auto& image : *array) {
    if (!image.is_object()) return "an element of \"images\" is not an object";
  }
  const std::size_t limit = *core::QELConfiguration::current()->maxMapEntries;
  if (array->size() > limit) {
    return stringWithFormat("it lists %d pictures, more than the %d allowed", array->size(), limit);
  }
  return {};
}

// Why picture bytes would not decode, read from their header alone.
std::string pictureProblem(const Data& body) {
  // A budget of one pixel makes the decoder stop at the header and report
  // the size it declares.
  Image::Refusal header;
  if (Image::fromData(body, 1, &header)) return {};
  if (header.width == 0 || header.height == 0) return "the answer is not a PNG or JPEG picture";
  const std::uint64_t budget = *core::QELConfiguration::current()->maxPixels;
  const std::uint64_t pixels = std::uint64_t{header.width} * header.height;
  if (header.width > budget || pixels > budget) {
    return stringWithFormat("its header declares %dx%d pixels, more than the %d allowed", header.width,
                            header.height, budget);
  }
  return stringWithFormat("the %dx%d picture cannot be decoded (truncated or corrupt)", header.width, header.height);
}

}  // namespace

const std::optional<QELBroadcastMapsStatus::Failure>& QELBroadcastMapsStatus::failure(TransportChannel channel) const {
  switch (channel) {
    case TransportChannel::Events:
      return events;
    case TransportChannel::MapData:
      return mapData;
    case TransportChannel::Picture:
      break;
  }
  return picture;
}

const char* QELBroadcastMapsStatus::phaseName(Phase phase) {
  switch (phase) {
    case Phase::Stopped:
      return "stopped";
    case Phase::Connecting:
      return "connecting";
    case Phase::Live:
      return "live";
    case Phase::WaitingToRetry:
      return "waiting to retry";
    case Phase::NoMapData:
      return "no map data";
  }
  return "unknown";
}

std::string QELBroadcastMapsStatus::describe(Clock::time_point now) const {
  const auto current = [](const std::optional<Failure>& failure) { return failure && failure->consecutive > 0; };
  switch (phase) {
    case Phase::Stopped:
      return "Stopped";
    case Phase::Connecting:
      return "Connecting to the cabin server";
    case Phase::WaitingToRetry:
      return (events ? describeFailure(*events) : std::string("Cabin server unreachable")) + nextTry(nextAttempt, now);
    case Phase::NoMapData:
      if (current(mapData)) return "Connected; " + describeFailure(*mapData) + nextTry(nextAttempt, now);
      return "Connected; the server has no map yet";
    case Phase::Live:
      if (current(picture)) return "Live; " + describeFailure(*picture);
      return "Live";
  }
  return {};
}

namespace internal {

QELBroadcastMapsHostStatus::QELBroadcastMapsHostStatus(std::weak_ptr<QELBroadcastMapsV1> service,
                                                       std::function<void()> changed)
    : service_(std::move(service)), changed_(std::move(changed)) {}

QELBroadcastMapsStatus QELBroadcastMapsHostStatus::compose(const Inputs& inputs) {
  using Phase = QELBroadcastMapsStatus::Phase;
  QELBroadcastMapsStatus status;
  // A record with pictures is map data that works, however it came (an
  // event carries the record too).
  if (inputs.hasMapData && mapData_.failure && mapData_.failure->consecutive > 0) {
    mapData_.failure->consecutive = 0;
    mapData_.nextAttempt.reset();
  }
  const bool mapDataFailing = mapData_.failure && mapData_.failure->consecutive > 0;
  if (!inputs.receiving) {
    status.phase = Phase::Stopped;
  } else if (inputs.connected) {
    if (inputs.hasMapData) {
      status.phase = Phase::Live;
    } else if (inputs.hasMapRecord || mapDataFailing) {
      status.phase = Phase::NoMapData;
      if (mapDataFailing) status.nextAttempt = mapData_.nextAttempt;
    } else {
      status.phase = Phase::Connecting;  // the map data is on its way
    }
  } else if (events_.nextAttempt && events_.failure && events_.failure->consecutive > 0) {
    status.phase = Phase::WaitingToRetry;
    status.nextAttempt = events_.nextAttempt;
  } else {
    status.phase = Phase::Connecting;
  }
  if (status.phase != phase_) {
    phase_ = status.phase;
    since_ = QELBroadcastMapsStatus::Clock::now();
  }
  status.since = since_;
  status.events = events_.failure;
  status.mapData = mapData_.failure;
  status.picture = picture_.failure;
  return status;
}

QELBroadcastMapsHostStatus::ChannelState& QELBroadcastMapsHostStatus::state(TransportChannel channel) {
  switch (channel) {
    case TransportChannel::Events:
      return events_;
    case TransportChannel::MapData:
      return mapData_;
    case TransportChannel::Picture:
      break;
  }
  return picture_;
}

void QELBroadcastMapsHostStatus::transportWillConnect(TransportChannel channel) {
  auto& channelState = state(channel);
  if (!channelState.nextAttempt) return;
  channelState.nextAttempt.reset();
  changed_();
}

void QELBroadcastMapsHostStatus::transportDidSucceed(TransportChannel channel, const core::TransportAnswer& answer) {
  const Data* body = answer.body;
  auto service = service_.lock();
  if (channel == TransportChannel::Events) {
    recordSuccess(channel);
    return recomposeLater();
  }
  if (!body || !service) return recordSuccess(channel);
  // Whether the service took the answer shows once it has had it: the
  // queue hands it over right after this report.
  auto weakSelf = weak_from_this();
  if (channel == TransportChannel::MapData) {
    const void* before = service->broadcastMaps()->mapInfo().get();
    RunLoop::current().postAfterCallout([weakSelf, before, problem = mapDataProblem(*body)] {
      if (auto self = weakSelf.lock()) self->checkMapData(before, problem);
    });
  } else {
    RunLoop::current().postAfterCallout([weakSelf, problem = pictureProblem(*body)] {
      if (auto self = weakSelf.lock()) self->checkPicture(problem);
    });
  }
}

void QELBroadcastMapsHostStatus::transportDidFail(TransportChannel channel, const core::TransportFailure& failure,
                                                  std::optional<Clock::time_point> nextAttempt) {
  recordFailure(channel, failure, nextAttempt);
  if (channel == TransportChannel::Events) recomposeLater();
}

void QELBroadcastMapsHostStatus::recomposeLater() {
  // The event channel reports before the service hears of the connect or
  // the disconnect; the phase follows once it has.
  RunLoop::current().postAfterCallout([weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock()) self->changed_();
  });
}

void QELBroadcastMapsHostStatus::recordFailure(TransportChannel channel, const core::TransportFailure& failure,
                                               std::optional<Clock::time_point> nextAttempt) {
  auto& channelState = state(channel);
  QELBroadcastMapsStatus::Failure next;
  next.kind = failure.kind;
  next.code = failure.code;
  next.message = failure.message;
  next.at = QELBroadcastMapsStatus::Clock::now();
  next.consecutive = channelState.failure ? channelState.failure->consecutive + 1 : 1;
  channelState.failure = std::move(next);
  channelState.nextAttempt.reset();
  if (nextAttempt) channelState.nextAttempt = onWallClock(*nextAttempt);
  changed_();
}

void QELBroadcastMapsHostStatus::transportWillRetry(TransportChannel channel, Clock::time_point nextAttempt) {
  state(channel).nextAttempt = onWallClock(nextAttempt);
  changed_();
}

void QELBroadcastMapsHostStatus::recordSuccess(TransportChannel channel) {
  auto& channelState = state(channel);
  const bool wasFailing = channelState.failure && channelState.failure->consecutive > 0;
  if (!wasFailing && !channelState.nextAttempt) return;
  if (channelState.failure) channelState.failure->consecutive = 0;
  channelState.nextAttempt.reset();
  changed_();
}

void QELBroadcastMapsHostStatus::checkMapData(const void* recordBefore, std::optional<std::string> reason) {
  auto service = service_.lock();
  if (!service) return;
  // An accepted answer always becomes a record of its own.
  const bool accepted = service->broadcastMaps()->mapInfo().get() != recordBefore;
  if (accepted) return recordSuccess(TransportChannel::MapData);
  recordFailure(TransportChannel::MapData,
                {FailureKind::MapDataRefused, 0,
                 reason && !reason->empty() ? *reason : std::string("the answer was not taken as a record")},
                std::nullopt);
}

void QELBroadcastMapsHostStatus::checkPicture(std::string reasonIfRefused) {
  auto service = service_.lock();
  if (!service) return;
  if (service->mapImage() || reasonIfRefused.empty()) return recordSuccess(TransportChannel::Picture);
  recordFailure(TransportChannel::Picture, {FailureKind::PictureRefused, 0, std::move(reasonIfRefused)}, std::nullopt);
}

}  // namespace internal
}  // namespace qel
