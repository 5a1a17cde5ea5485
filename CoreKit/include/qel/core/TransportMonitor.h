#pragma once

#include "qel/core/RequestTransport.h"
#include "qel/core/ResponseCache.h"

#include <qel/Data.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qel::core {

// What the transports say about how reaching the cabin server goes, for
// whoever explains it to people: each attempt's outcome on each of the three
// ways to the server, with the failure's kind in terms a user can act on.
//
// The transports report; they do not wait for an answer and do not change
// what they do because someone listens. Observers are held weakly, called in
// the order they were added, and may remove themselves (or others) while
// being called.
//
// Threading: one monitor per thread (the run loop's); report and observe on
// that thread only.
//
//   class Status : public TransportObserver {
//     void transportDidFail(TransportChannel channel, const TransportFailure& failure,
//                           std::optional<Clock::time_point> next) override { show(failure.message); }
//   };
//   TransportMonitor::current().addObserver(status);

// The three ways to the server, which fail independently.
enum class TransportChannel { Events, MapData, Picture };

// Why a channel failed, in the groups a user tells apart: a Wi-Fi fault
// (lookup, unreachable), a server that is there but refuses (refused, HTTP
// status, closed), a trust problem (TLS, certificate), or content refused.
enum class FailureKind {
  NameLookup = 1,     // the server's name did not resolve
  ConnectionRefused,  // the address answered: nothing listens on the port
  Unreachable,        // no route to the server, or no answer to the connect
  TlsHandshake,       // TLS could not be agreed on
  Certificate,        // the server's certificate is not trusted or names another host
  HttpStatus,         // the server answered with an error status (the code)
  MapDataRefused,     // the map data is too large or malformed
  PictureRefused,     // too many pixels, not decodable, too large, another origin
  ClosedByServer,     // the server closed the event channel (the close code)
  Timeout,            // nothing arrived within the inactivity timeout
  ConnectionLost,     // an established connection broke
};

inline constexpr int kFailureKindCount = 11;

// "name lookup failed", "connection refused", ...: short, lower case, stable.
std::string_view failureKindName(FailureKind kind);

struct TransportFailure {
  FailureKind kind = FailureKind::ConnectionLost;
  // The HTTP status for HttpStatus, the close code for ClosedByServer, else 0.
  int code = 0;
  // For people: what went wrong, with the details that help (the verifier's
  // reason, the server's close reason). Server text in it is escaped.
  std::string message;
  // The request's URL, for a request; where its time went, when known.
  std::string url = {};
  std::optional<TransportTiming> timing = std::nullopt;
};

// An answer that reached the requester.
struct TransportAnswer {
  // The request's URL as the requester wrote it.
  std::string url;
  // The body (for a 304, the held body it stands for); null for the event
  // channel.
  const Data* body = nullptr;
  Validators validators;
  bool notModified = false;
  std::optional<TransportTiming> timing;
};

// The failure a transport error stands for on `channel`.
TransportFailure transportFailure(const Error& error, TransportChannel channel);

class TransportObserver {
 public:
  using Clock = std::chrono::steady_clock;

  virtual ~TransportObserver() = default;
  // An attempt to reach the server on `channel` begins.
  virtual void transportWillConnect(TransportChannel /*channel*/) {}
  // The channel works: the event channel is open, or a request was answered.
  virtual void transportDidSucceed(TransportChannel /*channel*/, const TransportAnswer& /*answer*/) {}
  // An event arrived on the event channel.
  virtual void transportDidReceiveEvent() {}
  // A ping on the event channel was answered after `roundTrip`.
  virtual void transportDidMeasureRoundTrip(std::chrono::steady_clock::duration /*roundTrip*/) {}
  // An attempt failed; `nextAttempt` is when the transport tries again by
  // itself, if it does.
  virtual void transportDidFail(TransportChannel /*channel*/, const TransportFailure& /*failure*/,
                                std::optional<Clock::time_point> /*nextAttempt*/) {}
  // The next attempt, due later, was brought forward to `nextAttempt` (the
  // device's network changed while the transport waited).
  virtual void transportWillRetry(TransportChannel /*channel*/, Clock::time_point /*nextAttempt*/) {}
};

class TransportMonitor {
 public:
  // This thread's monitor.
  static TransportMonitor& current();

  void addObserver(const std::shared_ptr<TransportObserver>& observer);
  void removeObserver(const TransportObserver* observer);

  void willConnect(TransportChannel channel);
  void didSucceed(TransportChannel channel, const TransportAnswer& answer = {});
  void didReceiveEvent();
  void didMeasureRoundTrip(std::chrono::steady_clock::duration roundTrip);
  void didFail(TransportChannel channel, const TransportFailure& failure,
               std::optional<TransportObserver::Clock::time_point> nextAttempt = std::nullopt);
  void willRetry(TransportChannel channel, TransportObserver::Clock::time_point nextAttempt);

 private:
  template <class Call>
  void notify(Call call);
  std::vector<std::weak_ptr<TransportObserver>> observers_;
};

}  // namespace qel::core
