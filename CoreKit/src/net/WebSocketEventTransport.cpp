#include "qel/core/net/WebSocketEventTransport.h"

#include "qel/core/QELLogging.h"
#include "qel/core/TransportMonitor.h"
#include "qel/core/net/Resolver.h"
#include "qel/core/net/TlsContext.h"

#include <qel/RunLoop.h>

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <random>
#include <sstream>

namespace qel::core::net {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::string_view kDomain = qel::lastPathComponent(__FILE__);
constexpr std::size_t kReadChunk = 64 * 1024;

std::string seconds(Clock::duration duration) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3g s", std::chrono::duration<double>(duration).count());
  return text;
}

struct Target {
  std::string host;
  std::uint16_t port = 443;
  std::string path;
  std::string hostHeader;
  std::string url() const {
    const bool ipv6 = host.find(':') != std::string::npos;
    return "wss://" + (ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port) + path;
  }
};

}  // namespace

// What outlives each connection: the manager to report to, the backoff, the
// current session and the pending reconnect. It owns no I/O object, so it
// may be destroyed after the loop without touching it.
class WebSocketEventTransport::Channel : public std::enable_shared_from_this<Channel> {
 public:
  explicit Channel(Options options) : options_(std::move(options)), random_(std::random_device{}()) {}
  ~Channel() { stop(); }

  void start(QELEventManager& manager);
  void stop();
  void networkChanged();
  int attempts() const { return attempts_; }

  // Reports from the current session.
  void sessionConnected(const Session* session);
  void sessionEnded(const Session* session, bool wasConnected, const TransportFailure& failure);
  void sessionReceived(const Session* session, std::shared_ptr<QELEvent> event);

 private:
  void connect();
  // When the next attempt starts (none when stopped). After a change of
  // network it starts within networkChangeSpread, the backoff reset.
  std::optional<Clock::time_point> scheduleReconnect(bool networkChanged = false);
  // The options' backoff, else the configuration's.
  Backoff backoff() const;
  bool isCurrent(const Session* session) const;

  Options options_;
  QELEventManager* manager_ = nullptr;
  bool running_ = false;
  bool toldNoHost_ = false;
  int attempts_ = 0;
  int backoffStep_ = 0;
  Clock::time_point connectedAt_{};
  // Until when the server's announced restart (1012, 1013) sets the pace.
  std::optional<Clock::time_point> plannedUntil_;
  int plannedAttempts_ = 0;
  Clock::time_point attemptStartedAt_{};
  std::mt19937 random_;
  std::weak_ptr<Session> session_;
  std::weak_ptr<asio::steady_timer> reconnectTimer_;
};

// One connection: resolve, connect, TLS handshake, WebSocket handshake, then
// read frames until it ends. It lives through its pending operations.
class WebSocketEventTransport::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(asio::io_context& ioContext, std::shared_ptr<asio::ssl::context> tlsContext, Target target,
          const Options& options, Resolver::Options resolverOptions, std::weak_ptr<Channel> channel)
      : tlsContext_(std::move(tlsContext)),
        target_(std::move(target)),
        options_(options),
        channel_(std::move(channel)),
        ioContext_(ioContext),
        resolver_(ioContext, std::move(resolverOptions)),
        resolveTimer_(ioContext),
        staggerTimer_(ioContext),
        pingTimer_(ioContext),
        checkTimer_(ioContext),
        ws_(ioContext, *tlsContext_) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void run();
  // Ends the connection without reporting anything.
  void close();
  // A ping now, when connected.
  void ping();
  bool isConnected() const { return connected_ && !ended_; }
  // After a change of network: a ping that must be answered within
  // `deadline`, or the connection is taken for lost.
  void check(Clock::duration deadline);
  // Whether the session ended because such a check went unanswered.
  bool failedCheck() const { return failedCheck_; }

 private:
  beast::tcp_stream& tcp() { return beast::get_lowest_layer(ws_); }
  void onResolve(const std::string& error, Resolver::Endpoints endpoints);
  void startAttempt();
  void onAttempt(std::size_t index, const beast::error_code& error);
  void closeAttempt(std::size_t index);
  void closeAttempts();
  void onResolveTimeout(const beast::error_code& error);
  void onConnect(const beast::error_code& error);
  void onTlsHandshake(const beast::error_code& error);
  void onHandshake(const beast::error_code& error);
  void readMore();
  // Pings now and then; the pong's delay is the round trip.
  void schedulePing();
  void onPingTimer(const beast::error_code& error);
  void onRead(const beast::error_code& error, std::size_t bytes);
  void handleMessage();
  // Logs `why` and reports the failure, with `message` for people when the
  // log's words are not theirs.
  void end(FailureKind kind, const std::string& why, int code = 0, std::string message = {});

  std::shared_ptr<asio::ssl::context> tlsContext_;
  Target target_;
  Options options_;
  std::weak_ptr<Channel> channel_;
  asio::io_context& ioContext_;
  Resolver resolver_;
  // Bounds the lookup, then the whole connect race.
  asio::steady_timer resolveTimer_;
  asio::steady_timer staggerTimer_;
  asio::steady_timer pingTimer_;
  asio::steady_timer checkTimer_;
  Resolver::Endpoints endpoints_;
  std::vector<std::unique_ptr<tcp::socket>> attempts_;
  std::size_t nextAttempt_ = 0;
  std::size_t oldestAttempt_ = 0;  // no open attempt before this one
  int attemptsOpen_ = 0;
  std::string lastConnectError_;
  bool lastConnectRefused_ = false;
  websocket::stream<TlsStream> ws_;
  websocket::response_type handshakeResponse_;
  beast::flat_buffer buffer_;
  std::size_t messageSize_ = 0;
  bool oversized_ = false;
  // A server may send frames to drop as fast as it likes.
  QELRepeatedLines droppedFrames_;
  bool connected_ = false;
  bool ended_ = false;
  bool pinging_ = false;
  bool failedCheck_ = false;
};

// --- Channel -----------------------------------------------------------------

void WebSocketEventTransport::Channel::start(QELEventManager& manager) {
  if (running_) return;
  manager_ = &manager;
  running_ = true;
  backoffStep_ = 0;
  connect();
}

void WebSocketEventTransport::Channel::networkChanged() {
  if (!running_) return;
  if (auto session = session_.lock()) {
    // The connection may have gone with the old network without a word:
    // ask the server, briefly.
    if (session->isConnected()) return session->check(options_.checkDeadline);
    // An attempt of the last second is kept: its handshake's first
    // retransmission comes sooner than a new attempt would, and one change
    // often arrives as several bursts (a link, then its addresses).
    if (Clock::now() - attemptStartedAt_ < std::chrono::seconds(1)) return;
    // An attempt begun on the network that was: begin again on this one.
    QELLogging::log("The network changed: connecting the event channel again", 3, kDomain);
    session->close();
    session_.reset();
  } else if (auto timer = reconnectTimer_.lock()) {
    // An attempt already due within the spread (an earlier burst of the same
    // change drew it) stays as it is: drawing again would only put it later.
    if (timer->expiry() - Clock::now() <= options_.networkChangeSpread) {
      backoffStep_ = 0;
      return;
    }
    // Waiting to reconnect: the network that failed is not the one there now.
    QELLogging::log("The network changed: reconnecting the event channel now", 3, kDomain);
    timer->cancel();
    reconnectTimer_.reset();
  } else {
    return;
  }
  // Whoever shows when the next attempt comes must not go on showing the
  // backoff's.
  if (const auto next = scheduleReconnect(true)) TransportMonitor::current().willRetry(TransportChannel::Events, *next);
}

void WebSocketEventTransport::Channel::stop() {
  running_ = false;
  manager_ = nullptr;
  if (auto timer = reconnectTimer_.lock()) timer->cancel();
  reconnectTimer_.reset();
  if (auto session = session_.lock()) session->close();
  session_.reset();
}

bool WebSocketEventTransport::Channel::isCurrent(const Session* session) const {
  return running_ && manager_ && session_.lock().get() == session;
}

void WebSocketEventTransport::Channel::connect() {
  attemptStartedAt_ = Clock::now();
  const auto resolved = options_.configuration ? nullptr : QELConfiguration::current();
  const QELConfiguration& configuration = options_.configuration ? *options_.configuration : *resolved;
  if (!configuration.host || configuration.host->empty()) {
    if (!toldNoHost_) {
      toldNoHost_ = true;
      QELLogging::log("No cabin server host configured; the event channel stays disconnected.", 2, kDomain);
    }
    return;
  }
  Target target;
  // An IPv6 host may be configured in brackets, as URLs carry it.
  target.host = Resolver::unbracketed(*configuration.host);
  target.port = configuration.port.value_or(443);
  target.path = configuration.eventPath.value_or("/skelion/events");
  const bool ipv6 = target.host.find(':') != std::string::npos;
  target.hostHeader = ipv6 ? "[" + target.host + "]" : target.host;
  if (target.port != 443) target.hostHeader += ":" + std::to_string(target.port);

  std::string why;
  std::optional<std::string> trust;
  std::shared_ptr<boost::asio::ssl::context> tlsContext;
  if (TlsContext::trustedPem(configuration, trust, &why)) tlsContext = TlsContext::forTrust(trust, &why);
  if (!tlsContext) {
    QELLogging::log("Event channel to %s not opened: %s", 2, kDomain, target.url(), why);
    const auto next = scheduleReconnect();
    TransportMonitor::current().didFail(TransportChannel::Events, {FailureKind::Certificate, 0, why}, next);
    return;
  }
  ++attempts_;
  TransportMonitor::current().willConnect(TransportChannel::Events);
  QELLogging::log("Opening the event channel to %s", 4, kDomain, target.url());
  Resolver::Options resolverOptions;
  resolverOptions.fixedHosts = configuration.resolve;
  resolverOptions.servers = configuration.dnsServers;
  auto session = std::make_shared<Session>(RunLoop::current().context(), std::move(tlsContext), std::move(target),
                                           options_, std::move(resolverOptions), weak_from_this());
  session_ = session;
  session->run();
}

std::optional<Clock::time_point> WebSocketEventTransport::Channel::scheduleReconnect(bool networkChanged) {
  if (!running_) return std::nullopt;
  if (networkChanged) {
    // The devices that saw the same change (a cabin's access point came
    // back) spread their attempts over a moment instead of arriving as one.
    backoffStep_ = 0;
    plannedUntil_.reset();
  }
  const bool planned = plannedUntil_ && Clock::now() < *plannedUntil_;
  if (plannedUntil_ && !planned) {
    // The announced restart took longer than announced: back to the backoff.
    plannedUntil_.reset();
    backoffStep_ = 0;
  }
  const Clock::duration delay =
      networkChanged ? Clock::duration(std::uniform_int_distribution<Clock::rep>(
                           0, std::max<Clock::rep>(0, options_.networkChangeSpread.count()))(random_))
      : planned      ? plannedDelay(plannedAttempts_++, options_, random_)
                     : backoff().draw(backoffStep_++, random_);
  QELLogging::log("Reconnecting the event channel in %s%s", 4, kDomain, seconds(delay),
                  planned ? " (the server announced a restart)" : "");

  auto timer = std::make_shared<asio::steady_timer>(RunLoop::current().context(), delay);
  reconnectTimer_ = timer;
  timer->async_wait([weakChannel = weak_from_this(), timer](const beast::error_code& error) {
    auto channel = weakChannel.lock();
    if (error || !channel || channel->reconnectTimer_.lock() != timer || !channel->running_) return;
    channel->reconnectTimer_.reset();
    channel->connect();
  });
  return Clock::now() + delay;
}

Clock::duration WebSocketEventTransport::plannedDelay(int attempt, const Options& options, std::mt19937& random) {
  const Clock::rep every = options.plannedEvery.count();
  // The first wait puts each device at its own point of the interval; then
  // it keeps its pace, so the server finds the cabin's attempts spread evenly
  // and each device tries at least once in any interval after it is back.
  // The few per cent of jitter keep devices from locking together.
  std::uniform_int_distribution<Clock::rep> distribution(attempt == 0 ? 0 : every - every / 20,
                                                          attempt == 0 ? every : every + every / 20);
  return Clock::duration(distribution(random));
}

Backoff WebSocketEventTransport::Channel::backoff() const {
  if (options_.backoff) return *options_.backoff;
  if (options_.configuration) return options_.configuration->reconnect.value_or(ReconnectPolicy{}).events;
  return QELConfiguration::current()->reconnect.value_or(ReconnectPolicy{}).events;
}

void WebSocketEventTransport::Channel::sessionConnected(const Session* session) {
  if (!isCurrent(session)) return;
  connectedAt_ = Clock::now();
  plannedUntil_.reset();
  TransportMonitor::current().didSucceed(TransportChannel::Events);
  if (!isCurrent(session)) return;
  manager_->transportDidConnect();
}

void WebSocketEventTransport::Channel::sessionEnded(const Session* session, bool wasConnected,
                                                   const TransportFailure& failure) {
  if (!isCurrent(session)) return;
  session_.reset();
  if (wasConnected && Clock::now() - connectedAt_ >= options_.healthyAfter) backoffStep_ = 0;
  // Keep ourselves alive: the manager's targets may stop or replace us.
  auto self = shared_from_this();
  const bool announced = failure.kind == FailureKind::ClosedByServer &&
                         (failure.code == static_cast<int>(websocket::close_code::service_restart) ||
                          failure.code == static_cast<int>(websocket::close_code::try_again_later));
  if (announced && !plannedUntil_) {
    plannedUntil_ = Clock::now() + options_.plannedWindow;
    plannedAttempts_ = 0;
  }
  // The reason is out before the disconnect, so that whoever reacts to the
  // disconnect can already tell why; a stop from within the disconnect
  // cancels the reconnect again.
  const auto next = scheduleReconnect(session->failedCheck());
  TransportMonitor::current().didFail(TransportChannel::Events, failure, next);
  if (wasConnected && running_ && manager_) manager_->transportDidDisconnect();
}

void WebSocketEventTransport::Channel::sessionReceived(const Session* session, std::shared_ptr<QELEvent> event) {
  if (!isCurrent(session)) return;
  auto self = shared_from_this();
  TransportMonitor::current().didReceiveEvent();
  if (!isCurrent(session)) return;
  manager_->transportDidReceiveEvent(event);
}

// --- Session -----------------------------------------------------------------

void WebSocketEventTransport::Session::run() {
  resolveTimer_.expires_after(options_.connectTimeout);
  resolveTimer_.async_wait(beast::bind_front_handler(&Session::onResolveTimeout, shared_from_this()));
  resolver_.resolve(target_.host, target_.port, beast::bind_front_handler(&Session::onResolve, shared_from_this()));
}

void WebSocketEventTransport::Session::close() {
  if (ended_) return;
  ended_ = true;
  resolver_.cancel();
  resolveTimer_.cancel();
  pingTimer_.cancel();
  checkTimer_.cancel();
  closeAttempts();
  if (connected_) {
    // Say goodbye properly; the close has its own timeout, and the read
    // still pending ends with it.
    ws_.async_close(websocket::close_code::going_away, [self = shared_from_this()](const beast::error_code&) {});
  } else {
    tcp().close();
  }
}

void WebSocketEventTransport::Session::onResolveTimeout(const beast::error_code& error) {
  if (error || ended_) return;
  resolver_.cancel();
  if (endpoints_.empty()) {
    return end(FailureKind::NameLookup,
               "resolving " + target_.host + " took longer than " + seconds(options_.connectTimeout));
  }
  end(lastConnectRefused_ ? FailureKind::ConnectionRefused : FailureKind::Unreachable, "no connection within " + seconds(options_.connectTimeout) +
      (lastConnectError_.empty() ? std::string() : " (" + lastConnectError_ + ")"));
}

void WebSocketEventTransport::Session::onResolve(const std::string& error, Resolver::Endpoints endpoints) {
  if (ended_) return;
  resolveTimer_.cancel();
  if (!error.empty()) return end(FailureKind::NameLookup, error);
  endpoints_ = std::move(endpoints);
  resolveTimer_.expires_after(options_.connectTimeout);
  resolveTimer_.async_wait(beast::bind_front_handler(&Session::onResolveTimeout, shared_from_this()));
  startAttempt();
}

// A connect race over the addresses: each gets a head start of
// attemptDelay before the next one joins, a failure lets the next join at
// once, and the first to connect wins. A dead first address then costs a
// fraction of a second instead of the whole connect timeout.
//
// A name may list many dead addresses: a failed attempt gives its descriptor
// back at once, at most maximumAttempts run together (beyond that the oldest
// gives way to the next), and the connect timeout bounds the race as a whole
// and with it the addresses tried.
void WebSocketEventTransport::Session::startAttempt() {
  if (ended_ || nextAttempt_ >= endpoints_.size()) return;
  if (attemptsOpen_ >= std::max(1, options_.maximumAttempts)) {
    while (!attempts_[oldestAttempt_]) ++oldestAttempt_;
    closeAttempt(oldestAttempt_);
  }
  const std::size_t index = nextAttempt_++;
  auto& socket = *attempts_.emplace_back(std::make_unique<tcp::socket>(ioContext_));
  ++attemptsOpen_;
  socket.async_connect(endpoints_[index], beast::bind_front_handler(&Session::onAttempt, shared_from_this(), index));
  if (nextAttempt_ >= endpoints_.size()) return;
  staggerTimer_.expires_after(options_.attemptDelay);
  staggerTimer_.async_wait([self = shared_from_this()](const beast::error_code& error) {
    if (!error) self->startAttempt();
  });
}

void WebSocketEventTransport::Session::closeAttempt(std::size_t index) {
  if (!attempts_[index]) return;
  // Its handler still runs, aborted, and finds the slot empty.
  beast::error_code ignored;
  attempts_[index]->close(ignored);
  attempts_[index].reset();
  --attemptsOpen_;
}

void WebSocketEventTransport::Session::onAttempt(std::size_t index, const beast::error_code& error) {
  if (ended_ || attempts_.size() <= index || !attempts_[index]) return;
  if (error) {
    std::ostringstream endpoint;
    endpoint << endpoints_[index];
    lastConnectError_ = endpoint.str() + ": " + error.message();
    lastConnectRefused_ = error == asio::error::connection_refused;
    QELLogging::log("Event channel: cannot connect to %s", 4, kDomain, lastConnectError_);
    closeAttempt(index);
    if (nextAttempt_ < endpoints_.size()) return startAttempt();
    if (attemptsOpen_ == 0) {
      return end(lastConnectRefused_ ? FailureKind::ConnectionRefused : FailureKind::Unreachable,
                 "cannot connect: " + lastConnectError_);
    }
    return;
  }
  resolveTimer_.cancel();
  staggerTimer_.cancel();
  tcp().socket() = std::move(*attempts_[index]);
  attempts_[index].reset();
  --attemptsOpen_;
  closeAttempts();
  onConnect({});
}

void WebSocketEventTransport::Session::closeAttempts() {
  staggerTimer_.cancel();
  for (std::size_t index = oldestAttempt_; index < attempts_.size(); ++index) closeAttempt(index);
}

void WebSocketEventTransport::Session::onConnect(const beast::error_code& error) {
  if (ended_) return;
  if (error == beast::error::timeout) {
    return end(FailureKind::Unreachable, "no connection within " + seconds(options_.connectTimeout));
  }
  if (error) {
    const bool refused = error == asio::error::connection_refused;
    return end(refused ? FailureKind::ConnectionRefused : FailureKind::Unreachable, "cannot connect: " + error.message());
  }
  std::string why;
  if (!TlsContext::prepare(ws_.next_layer(), target_.host, &why)) return end(FailureKind::TlsHandshake, why);
  tcp().expires_after(options_.connectTimeout);
  ws_.next_layer().async_handshake(asio::ssl::stream_base::client,
                                   beast::bind_front_handler(&Session::onTlsHandshake, shared_from_this()));
}

void WebSocketEventTransport::Session::onTlsHandshake(const beast::error_code& error) {
  if (ended_) return;
  if (error == beast::error::timeout) {
    return end(FailureKind::Timeout, "no TLS handshake within " + seconds(options_.connectTimeout));
  }
  if (error) {
    const auto verdict = TlsContext::certificateVerdict(ws_.next_layer());
    return end(verdict ? FailureKind::Certificate : FailureKind::TlsHandshake,
               TlsContext::describeHandshakeFailure(ws_.next_layer(), error), 0, verdict.value_or(""));
  }

  // The WebSocket layer keeps its own time from here on: the handshake
  // timeout, and pings after half the dead interval of silence.
  tcp().expires_never();
  websocket::stream_base::timeout timeouts;
  timeouts.handshake_timeout = options_.connectTimeout;
  timeouts.idle_timeout = options_.deadAfter;
  timeouts.keep_alive_pings = true;
  ws_.set_option(timeouts);
  ws_.set_option(websocket::stream_base::decorator(
      [](websocket::request_type& request) { request.set(beast::http::field::user_agent, "QELMaps/1.0"); }));
  // Oversized messages are counted and skipped below instead of failing the
  // connection.
  ws_.read_message_max(0);
  ws_.async_handshake(handshakeResponse_, target_.hostHeader, target_.path,
                      beast::bind_front_handler(&Session::onHandshake, shared_from_this()));
}

void WebSocketEventTransport::Session::onHandshake(const beast::error_code& error) {
  if (ended_) return;
  if (error == beast::error::timeout) {
    return end(FailureKind::Timeout, "no WebSocket handshake within " + seconds(options_.connectTimeout));
  }
  if (error) {
    // A server that answers the upgrade with an error status said why.
    const int status = static_cast<int>(handshakeResponse_.result_int());
    if (status >= 300) {
      return end(FailureKind::HttpStatus, "the server answered the upgrade with status " + std::to_string(status),
                 status);
    }
    return end(FailureKind::ConnectionLost, "WebSocket handshake failed: " + error.message());
  }
  connected_ = true;
  QELLogging::log("Event channel to %s connected", 4, kDomain, target_.url());
  if (auto channel = channel_.lock()) channel->sessionConnected(this);
  if (ended_) return;
  // Our own pings carry the time they were sent; the server's pongs echo it.
  ws_.control_callback([weak = weak_from_this()](websocket::frame_type kind, beast::string_view payload) {
    if (kind != websocket::frame_type::pong) return;
    if (auto self = weak.lock()) self->checkTimer_.cancel();  // the path carries
    if (payload.empty()) return;
    Clock::rep sent = 0;
    const auto [end, error] = std::from_chars(payload.data(), payload.data() + payload.size(), sent);
    if (error != std::errc() || end != payload.data() + payload.size()) return;
    const auto roundTrip = Clock::now() - Clock::time_point(Clock::duration(sent));
    if (roundTrip >= Clock::duration::zero()) TransportMonitor::current().didMeasureRoundTrip(roundTrip);
  });
  schedulePing();
  readMore();
}

void WebSocketEventTransport::Session::ping() {
  // One ping at a time; one in flight checks the path as well. An unanswered
  // ping ends the connection at the idle timeout; answered, it measures it.
  if (!connected_ || ended_ || pinging_) return;
  pinging_ = true;
  const std::string sent = std::to_string(Clock::now().time_since_epoch().count());
  ws_.async_ping(websocket::ping_data(sent.c_str()),
                 [self = shared_from_this()](const beast::error_code&) { self->pinging_ = false; });
}

void WebSocketEventTransport::Session::check(Clock::duration deadline) {
  if (!isConnected()) return;
  ping();
  checkTimer_.expires_after(deadline);
  checkTimer_.async_wait([self = shared_from_this(), deadline](const beast::error_code& error) {
    if (error || self->ended_) return;
    self->failedCheck_ = true;
    self->end(FailureKind::Timeout, "no pong within " + seconds(deadline) + " of a change of network");
  });
}

void WebSocketEventTransport::Session::schedulePing() {
  if (options_.roundTripInterval <= Clock::duration::zero()) return;
  pingTimer_.expires_after(options_.roundTripInterval);
  pingTimer_.async_wait(beast::bind_front_handler(&Session::onPingTimer, shared_from_this()));
}

void WebSocketEventTransport::Session::onPingTimer(const beast::error_code& error) {
  if (error || ended_) return;
  ping();
  schedulePing();
}

void WebSocketEventTransport::Session::readMore() {
  ws_.async_read_some(buffer_, kReadChunk, beast::bind_front_handler(&Session::onRead, shared_from_this()));
}

void WebSocketEventTransport::Session::onRead(const beast::error_code& error, std::size_t bytes) {
  if (ended_) return;
  if (error == websocket::error::closed) {
    const auto reason = ws_.reason();
    return end(FailureKind::ClosedByServer, "closed by the server (code " + std::to_string(reason.code) +
               (reason.reason.empty() ? std::string() : ", \"" + QELLogging::escaped(reason.reason.c_str()) + "\"") +
               ")",
               static_cast<int>(reason.code));
  }
  if (error == beast::error::timeout) {
    return end(FailureKind::Timeout, "no frame and no pong for " + seconds(options_.deadAfter));
  }
  if (error) return end(FailureKind::ConnectionLost, error.message());

  messageSize_ += bytes;
  if (messageSize_ > options_.maximumFrameSize) oversized_ = true;
  if (oversized_) buffer_.clear();
  if (ws_.is_message_done()) {
    if (oversized_) {
      droppedFrames_.log("Dropped an event frame of %lu bytes: more than the %lu allowed.", 2, kDomain,
                         static_cast<unsigned long>(messageSize_),
                         static_cast<unsigned long>(options_.maximumFrameSize));
    } else {
      handleMessage();
    }
    buffer_.clear();
    messageSize_ = 0;
    oversized_ = false;
  }
  if (!ended_) readMore();
}

void WebSocketEventTransport::Session::handleMessage() {
  if (!ws_.got_text()) {
    droppedFrames_.log("Dropped a binary event frame of %lu bytes: events are JSON text.", 2, kDomain,
                       static_cast<unsigned long>(buffer_.size()));
    return;
  }
  const std::string text = beast::buffers_to_string(buffer_.data());
  boost::system::error_code parseError;
  const boost::json::value value = boost::json::parse(text, parseError);
  const boost::json::object* object = parseError ? nullptr : value.if_object();
  const boost::json::value* name = object ? object->if_contains("name") : nullptr;
  const boost::json::value* userInfo = object ? object->if_contains("userInfo") : nullptr;
  const char* problem = nullptr;
  if (parseError) {
    problem = "not JSON";
  } else if (!object) {
    problem = "not a JSON object";
  } else if (!name || !name->is_string() || name->get_string().empty()) {
    problem = "no \"name\" string";
  } else if (userInfo && !userInfo->is_object() && !userInfo->is_null()) {
    problem = "\"userInfo\" is not an object";
  }
  if (problem) {
    const std::size_t shown = std::min<std::size_t>(text.size(), 80);
    droppedFrames_.log("Dropped an event frame: %s (%s%s)", 2, kDomain, problem, text.substr(0, shown),
                       shown < text.size() ? "..." : "");
    return;
  }
  UserInfo info;
  if (userInfo && userInfo->is_object()) info = std::make_shared<const boost::json::object>(userInfo->get_object());
  auto event = QELEvent::create(std::string(name->get_string()), std::move(info));
  if (auto channel = channel_.lock()) channel->sessionReceived(this, std::move(event));
}

void WebSocketEventTransport::Session::end(FailureKind kind, const std::string& why, int code, std::string message) {
  if (ended_) return;
  ended_ = true;
  QELLogging::log("Event channel to %s %s: %s", 2, kDomain, target_.url(), connected_ ? "lost" : "failed", why);
  resolveTimer_.cancel();
  pingTimer_.cancel();
  checkTimer_.cancel();
  closeAttempts();
  tcp().close();
  if (message.empty()) message = why;
  if (auto channel = channel_.lock()) channel->sessionEnded(this, connected_, TransportFailure{kind, code, message});
}

// --- WebSocketEventTransport -------------------------------------------------

WebSocketEventTransport::WebSocketEventTransport() : WebSocketEventTransport(Options{}) {}

WebSocketEventTransport::WebSocketEventTransport(Options options)
    : channel_(std::make_shared<Channel>(std::move(options))) {}

WebSocketEventTransport::~WebSocketEventTransport() { channel_->stop(); }

void WebSocketEventTransport::start(QELEventManager& manager) { channel_->start(manager); }

void WebSocketEventTransport::stop() { channel_->stop(); }

void WebSocketEventTransport::networkChanged() { channel_->networkChanged(); }

int WebSocketEventTransport::connectionAttempts() const { return channel_->attempts(); }

}  // namespace qel::core::net
