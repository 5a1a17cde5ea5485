#include "qel/core/TransportMonitor.h"

#include "qel/core/net/NetworkError.h"

#include <algorithm>

namespace qel::core {

std::string_view failureKindName(FailureKind kind) {
  switch (kind) {
    case FailureKind::NameLookup:
      return "name lookup failed";
    case FailureKind::ConnectionRefused:
      return "connection refused";
    case FailureKind::Unreachable:
      return "server unreachable";
    case FailureKind::TlsHandshake:
      return "TLS handshake failed";
    case FailureKind::Certificate:
      return "certificate not trusted";
    case FailureKind::HttpStatus:
      return "HTTP error status";
    case FailureKind::MapDataRefused:
      return "map data refused";
    case FailureKind::PictureRefused:
      return "picture refused";
    case FailureKind::ClosedByServer:
      return "closed by the server";
    case FailureKind::Timeout:
      return "no answer in time";
    case FailureKind::ConnectionLost:
      return "connection lost";
  }
  return "unknown";
}

TransportFailure transportFailure(const Error& error, TransportChannel channel) {
  const FailureKind refused =
      channel == TransportChannel::Picture ? FailureKind::PictureRefused : FailureKind::MapDataRefused;
  if (error.domain == net::kHTTPStatusErrorDomain) {
    return {FailureKind::HttpStatus, error.code, error.localizedDescription};
  }
  if (error.domain != net::kNetworkErrorDomain) return {refused, 0, error.localizedDescription};
  using Code = net::NetworkErrorCode;
  FailureKind kind = FailureKind::ConnectionLost;
  switch (static_cast<Code>(error.code)) {
    case Code::InvalidURL:
    case Code::RefusedURL:
    case Code::TooLarge:
      kind = refused;
      break;
    case Code::TlsSetup:
    case Code::Certificate:
      kind = FailureKind::Certificate;
      break;
    case Code::Resolve:
      kind = FailureKind::NameLookup;
      break;
    case Code::Connect:
      kind = FailureKind::Unreachable;
      break;
    case Code::Refused:
      kind = FailureKind::ConnectionRefused;
      break;
    case Code::Handshake:
      kind = FailureKind::TlsHandshake;
      break;
    case Code::Timeout:
      kind = FailureKind::Timeout;
      break;
    case Code::Redirect:
      kind = FailureKind::HttpStatus;
      break;
    case Code::Io:
      kind = FailureKind::ConnectionLost;
      break;
  }
  return {kind, 0, error.localizedDescription};
}

TransportMonitor& TransportMonitor::current() {
  thread_local TransportMonitor monitor;
  return monitor;
}

void TransportMonitor::addObserver(const std::shared_ptr<TransportObserver>& observer) {
  observers_.push_back(observer);
}

void TransportMonitor::removeObserver(const TransportObserver* observer) {
  std::erase_if(observers_, [observer](const auto& weak) {
    auto strong = weak.lock();
    return !strong || strong.get() == observer;
  });
}

template <class Call>
void TransportMonitor::notify(Call call) {
  // A copy: an observer may add or remove observers while it is called. One
  // removed during the round is skipped once it is gone.
  const auto observers = observers_;
  for (const auto& weak : observers) {
    auto observer = weak.lock();
    if (!observer) continue;
    const bool stillAdded = std::any_of(observers_.begin(), observers_.end(),
                                        [&](const auto& w) { return w.lock() == observer; });
    if (stillAdded) call(*observer);
  }
}

void TransportMonitor::willConnect(TransportChannel channel) {
  notify([&](TransportObserver& observer) { observer.transportWillConnect(channel); });
}

void TransportMonitor::didSucceed(TransportChannel channel, const TransportAnswer& answer) {
  notify([&](TransportObserver& observer) { observer.transportDidSucceed(channel, answer); });
}

void TransportMonitor::didReceiveEvent() {
  notify([](TransportObserver& observer) { observer.transportDidReceiveEvent(); });
}

void TransportMonitor::didMeasureRoundTrip(std::chrono::steady_clock::duration roundTrip) {
  notify([&](TransportObserver& observer) { observer.transportDidMeasureRoundTrip(roundTrip); });
}

void TransportMonitor::didFail(TransportChannel channel, const TransportFailure& failure,
                               std::optional<TransportObserver::Clock::time_point> nextAttempt) {
  notify([&](TransportObserver& observer) { observer.transportDidFail(channel, failure, nextAttempt); });
}

void TransportMonitor::willRetry(TransportChannel channel, TransportObserver::Clock::time_point nextAttempt) {
  notify([&](TransportObserver& observer) { observer.transportWillRetry(channel, nextAttempt); });
}

}  // namespace qel::core
