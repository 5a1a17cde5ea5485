#include "cabinsim/Server.h"

#include "Log.h"
#include "cabinsim/Certificates.h"
#include "cabinsim/Events.h"
#include "cabinsim/Flight.h"
#include "cabinsim/MapRenderer.h"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/json.hpp>

#include <openssl/ssl.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <unordered_set>

namespace cabinsim {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

namespace {

constexpr const char* kFlightMapPath = "/skelion/services/maps/v1/flight_map";
constexpr const char* kEventsPath = "/skelion/events";
constexpr const char* kServerName = "cabin-sim";
// Simulated flight time per update, whatever the real interval: a short demo
// still shows the aircraft moving, and a long one does not end too soon.
constexpr double kSimulatedSecondsPerTick = 240;
// How many updates' pictures stay downloadable: a client that is a few
// updates behind still gets the picture it was told about.
constexpr std::uint64_t kKeptSequences = 12;
constexpr std::size_t kMaxRequestBodyBytes = 64 * 1024;
constexpr std::size_t kMaxQueuedFrames = 32;
constexpr auto kHandshakeTimeout = 10s;
constexpr auto kIdleTimeout = 60s;
constexpr auto kWriteTimeout = 30s;

class HttpSession;
class WebSocketSession;

std::string_view pathOf(std::string_view target) {
  const auto query = target.find_first_of("?#");
  return query == std::string_view::npos ? target : target.substr(0, query);
}

// "/maps/800x600/17.png" -> resolution text and sequence number.
// A strong ETag of `bytes`: their 64-bit FNV-1a hash, quoted.
std::string contentTag(std::string_view bytes) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const unsigned char byte : bytes) {
    hash ^= byte;
    hash *= 1099511628211ull;
  }
  char text[24];
  std::snprintf(text, sizeof text, "\"%016llx\"", static_cast<unsigned long long>(hash));
  return text;
}

// "Wed, 25 Nov 2026 16:21:23 GMT", as HTTP dates are written.
std::string httpDate(std::time_t at) {
  std::tm utc{};
  gmtime_r(&at, &utc);
  static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[40];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", days[utc.tm_wday], utc.tm_mday,
                months[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return text;
}

std::optional<std::pair<std::string, std::uint64_t>> parseImagePath(std::string_view path) {
  constexpr std::string_view kPrefix = "/maps/";
  constexpr std::string_view kSuffix = ".png";
  if (!path.starts_with(kPrefix) || !path.ends_with(kSuffix)) {
    return std::nullopt;
  }
  path.remove_prefix(kPrefix.size());
  path.remove_suffix(kSuffix.size());
  const auto slash = path.find('/');
  if (slash == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view resolution = path.substr(0, slash);
  const std::string_view number = path.substr(slash + 1);
  std::uint64_t sequence = 0;
  const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), sequence);
  if (ec != std::errc() || end != number.data() + number.size() || resolution.empty()) {
    return std::nullopt;
  }
  return std::make_pair(std::string(resolution), sequence);
}

}  // namespace

// Everything the sessions share. Sessions hold it by shared_ptr, so it lives
// as long as the last connection even when the Server object is gone.
struct Server::State : std::enable_shared_from_this<Server::State> {
  State(asio::io_context& context, ServerOptions opts)
      : ioc(context),
        options(std::move(opts)),
        rng(options.seed),
        flight(Flight::defaultOrigin(), Flight::defaultDestination(), 0.35),
        acceptor(context),
        tickTimer(context),
        dropTimer(context) {}

  asio::io_context& ioc;
  ServerOptions options;
  ssl::context tls{ssl::context::tls_server};
  ServerIdentity identity;
  std::mt19937_64 rng;
  Flight flight;
  MapRenderer renderer;

  tcp::acceptor acceptor;
  asio::steady_timer tickTimer;
  asio::steady_timer dropTimer;
  std::chrono::steady_clock::time_point nextTick;
  std::chrono::steady_clock::duration lastRenderDuration{};
  std::uint16_t port = 0;
  bool running = false;

  std::uint64_t sequence = 0;
  // sequence -> resolution text -> PNG
  std::map<std::uint64_t, std::map<std::string, std::shared_ptr<const std::string>>> images;
  // sequence -> when it was rendered, as Last-Modified says it
  std::map<std::uint64_t, std::string> renderedAt;
  std::string imagesJsonText;
  std::string flightMapBody;

  std::uint64_t restRequests = 0;
  std::uint64_t restAnswers = 0;  // answered 200, for the malformed ones first
  std::chrono::steady_clock::time_point firstRestRequest;
  std::uint64_t imageRequests = 0;
  std::uint64_t imageBodyBytes = 0;  // picture bytes answered (HEAD and 304 send none)
  std::uint64_t notModified = 0;     // picture requests answered 304
  std::uint64_t pushes = 0;
  std::uint64_t malformedSent = 0;
  bool warnedSlowRendering = false;

  // Live sessions, so stop() can close them; each removes itself when it is
  // destroyed (everything runs on one thread).
  std::unordered_set<HttpSession*> httpSessions;
  std::unordered_set<WebSocketSession*> eventSessions;

  bool chance(double probability) {
    if (probability <= 0) {
      return false;
    }
    return std::bernoulli_distribution(std::min(1.0, probability))(rng);
  }

  void setUpTls();
  void bind();
  void writeCaFile() const;
  void doAccept();
  void onAccept(beast::error_code ec, tcp::socket socket);
  void scheduleTick();
  void onTick(beast::error_code ec);
  void scheduleDrop();
  void onDrop(beast::error_code ec);
  void advance(bool push);
  void render();
  void broadcast(const std::shared_ptr<const std::string>& frame);
  void stop(bool restarting);
  std::size_t openEventSessions() const;
  std::string srcFor(const Resolution& r, std::uint64_t seq) const;
};

namespace {

// One WebSocket connection on the event path. Reads continuously (so pings
// are answered and a close is noticed) and writes the queued frames one at a
// time.
class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
 public:
  WebSocketSession(beast::ssl_stream<beast::tcp_stream>&& stream, std::shared_ptr<Server::State> state)
      : ws_(std::move(stream)), state_(std::move(state)) {
    state_->eventSessions.insert(this);
  }
  WebSocketSession(const WebSocketSession&) = delete;
  WebSocketSession& operator=(const WebSocketSession&) = delete;
  ~WebSocketSession() { state_->eventSessions.erase(this); }

  void run(http::request<http::string_body> request) {
    // The WebSocket stream keeps its own timers; the TCP stream's must be off.
    beast::get_lowest_layer(ws_).expires_never();
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = kHandshakeTimeout;
    timeouts.idle_timeout = kIdleTimeout;
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.set_option(websocket::stream_base::decorator(
        [](websocket::response_type& response) { response.set(http::field::server, kServerName); }));
    // Clients have nothing to say on this channel.
    ws_.read_message_max(64 * 1024);
    ws_.async_accept(request, beast::bind_front_handler(&WebSocketSession::on_accept, shared_from_this()));
  }

  bool isOpen() const { return open_ && !closing_; }

  void send(std::shared_ptr<const std::string> frame) {
    if (closing_) {
      return;
    }
    if (queue_.size() >= kMaxQueuedFrames) {
      // A client that stopped reading must not make the server hoard frames.
      logLine("event client is not reading, dropping its connection");
      closing_ = true;
      beast::get_lowest_layer(ws_).close();
      return;
    }
    queue_.push_back({std::move(frame), false});
    if (open_ && !writing_) {
      do_write();
    }
  }

  // A clean close (going away, or restarting), after the frames already queued.
  void close(const char* why, websocket::close_code code = websocket::close_code::going_away) {
    if (closing_) {
      return;
    }
    closing_ = true;
    reason_ = why;
    code_ = code;
    if (!open_) {
      beast::get_lowest_layer(ws_).close();
      return;
    }
    queue_.push_back({nullptr, true});
    if (!writing_) {
      do_write();
    }
  }

 private:
  struct Outgoing {
    std::shared_ptr<const std::string> text;
    bool close = false;
  };

  void on_accept(beast::error_code ec) {
    if (ec) {
      logLine("event handshake failed: " + ec.message());
      return;
    }
    open_ = true;
    logLine("event client connected (" + std::to_string(state_->openEventSessions()) + " open)");
    do_read();
    if (!queue_.empty() && !writing_) {
      do_write();
    }
  }

  void do_read() {
    ws_.async_read(buffer_, beast::bind_front_handler(&WebSocketSession::on_read, shared_from_this()));
  }

  void on_read(beast::error_code ec, std::size_t) {
    if (ec) {
      open_ = false;
      if (ec == websocket::error::closed) {
        logLine("event client closed the connection" + (reason_.empty() ? "" : " (" + reason_ + ")"));
      } else if (ec != asio::error::operation_aborted) {
        logLine("event connection ended: " + ec.message());
      }
      return;
    }
    // Whatever a client sends is ignored.
    buffer_.consume(buffer_.size());
    do_read();
  }

  void do_write() {
    writing_ = true;
    Outgoing& next = queue_.front();
    if (next.close) {
      ws_.async_close(websocket::close_reason(code_, reason_),
                      beast::bind_front_handler(&WebSocketSession::on_close, shared_from_this()));
      return;
    }
    ws_.text(true);
    ws_.async_write(asio::buffer(*next.text),
                    beast::bind_front_handler(&WebSocketSession::on_write, shared_from_this()));
  }

  void on_write(beast::error_code ec, std::size_t) {
    writing_ = false;
    if (ec) {
      if (ec != asio::error::operation_aborted) {
        logLine("event write failed: " + ec.message());
      }
      queue_.clear();
      return;
    }
    queue_.pop_front();
    if (!queue_.empty()) {
      do_write();
    }
  }

  void on_close(beast::error_code ec) {
    writing_ = false;
    queue_.clear();
    open_ = false;
    if (ec && ec != asio::error::operation_aborted) {
      logLine("event close failed: " + ec.message());
    }
  }

  websocket::stream<beast::ssl_stream<beast::tcp_stream>> ws_;
  std::shared_ptr<Server::State> state_;
  beast::flat_buffer buffer_;
  std::deque<Outgoing> queue_;
  std::string reason_;
  websocket::close_code code_ = websocket::close_code::going_away;
  bool open_ = false;
  bool writing_ = false;
  bool closing_ = false;
};

// One HTTPS connection: TLS handshake, then requests one after another
// (keep-alive) until the client closes, a timeout, or an upgrade to the
// event WebSocket.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket&& socket, std::shared_ptr<Server::State> state)
      : stream_(std::move(socket), state->tls), delay_(stream_.get_executor()), state_(std::move(state)) {
    state_->httpSessions.insert(this);
  }
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;
  ~HttpSession() { state_->httpSessions.erase(this); }

  void run() {
    asio::dispatch(stream_.get_executor(), beast::bind_front_handler(&HttpSession::on_run, shared_from_this()));
  }

  // Abrupt: the server is going away.
  void abort() {
    delay_.cancel();
    beast::get_lowest_layer(stream_).close();
  }

 private:
  void on_run() {
    beast::get_lowest_layer(stream_).expires_after(kHandshakeTimeout);
    stream_.async_handshake(ssl::stream_base::server,
                            beast::bind_front_handler(&HttpSession::on_handshake, shared_from_this()));
  }

  void on_handshake(beast::error_code ec) {
    if (ec) {
      // Clients that distrust the certificate end up here; worth a line.
      logLine("TLS handshake failed: " + ec.message());
      return;
    }
    do_read();
  }

  void do_read() {
    parser_.emplace();
    parser_->body_limit(kMaxRequestBodyBytes);
    beast::get_lowest_layer(stream_).expires_after(kIdleTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     beast::bind_front_handler(&HttpSession::on_read, shared_from_this()));
  }

  void on_read(beast::error_code ec, std::size_t) {
    if (ec == http::error::end_of_stream) {
      return do_close();
    }
    if (ec) {
      if (ec != asio::error::operation_aborted && ec != beast::error::timeout &&
          ec != ssl::error::stream_truncated) {
        logLine("request read failed: " + ec.message());
      }
      return;
    }
    http::request<http::string_body> request = parser_->release();
    if (websocket::is_upgrade(request) && pathOf(request.target()) == kEventsPath) {
      // The connection now belongs to the event session.
      state_->httpSessions.erase(this);
      std::make_shared<WebSocketSession>(std::move(stream_), state_)->run(std::move(request));
      return;
    }
    handle(request);
  }

  void handle(const http::request<http::string_body>& request) {
    const std::string target(request.target());
    const std::string_view path = pathOf(target);
    auto& res = response_;
    res = {};
    res.version(request.version());
    res.keep_alive(request.keep_alive());
    res.set(http::field::server, kServerName);
    res.set(http::field::cache_control, "no-store");
    std::chrono::milliseconds delay{0};
    std::string note;

    auto plain = [&](http::status status, std::string text) {
      res.result(status);
      res.set(http::field::content_type, "text/plain");
      res.body() = std::move(text) + "\n";
    };

    const bool readMethod = request.method() == http::verb::get || request.method() == http::verb::head;
    if (path == kFlightMapPath || path.starts_with("/maps/") || path == kEventsPath) {
      if (!readMethod) {
        plain(http::status::method_not_allowed, "only GET");
        res.set(http::field::allow, "GET, HEAD");
      } else if (path == kFlightMapPath) {
        const std::uint64_t n = ++state_->restRequests;
        const auto now = std::chrono::steady_clock::now();
        if (n == 1) state_->firstRestRequest = now;
        const std::chrono::duration<double> sinceFirst = now - state_->firstRestRequest;
        if (sinceFirst.count() < state_->options.faults.failRestForSeconds) {
          plain(http::status::service_unavailable, "injected outage");
          note = " (injected outage, " + std::to_string(static_cast<int>(sinceFirst.count())) + " s in)";
        } else if (n <= static_cast<std::uint64_t>(state_->options.faults.failRest)) {
          plain(http::status::service_unavailable, "injected failure");
          note = " (injected, " + std::to_string(n) + " of " + std::to_string(state_->options.faults.failRest) + ")";
        } else if (state_->chance(state_->options.faults.failRestRate)) {
          plain(http::status::service_unavailable, "injected failure");
          note = " (injected at random)";
        } else if (++state_->restAnswers <= static_cast<std::uint64_t>(state_->options.faults.malformedRest)) {
          res.result(http::status::ok);
          res.set(http::field::content_type, "application/json");
          res.body() = R"({"images": 42})";
          note = " (malformed, " + std::to_string(state_->restAnswers) + " of " +
                 std::to_string(state_->options.faults.malformedRest) + ")";
        } else {
          res.result(http::status::ok);
          res.set(http::field::content_type, "application/json");
          res.body() = state_->flightMapBody;
        }
      } else if (path == kEventsPath) {
        plain(http::status::upgrade_required, "WebSocket only");
        res.set(http::field::upgrade, "websocket");
      } else {
        serveImage(request, path, plain, note);
        delay = std::chrono::milliseconds(std::max(0, state_->options.faults.delayImagesMs));
      }
    } else {
      plain(http::status::not_found, "not found");
    }
    res.prepare_payload();
    if (request.method() == http::verb::head) {
      res.body().clear();  // Content-Length stays that of the GET
    }
    logLine(std::string(request.method_string()) + " " + target + " -> " + std::to_string(res.result_int()) +
            note + (delay.count() > 0 ? " after " + std::to_string(delay.count()) + " ms" : ""));

    if (delay.count() > 0) {
      delay_.expires_after(delay);
      delay_.async_wait(beast::bind_front_handler(&HttpSession::on_delay, shared_from_this()));
      return;
    }
    do_write();
  }

  template <class Plain>
  void serveImage(const http::request<http::string_body>& request, std::string_view path, Plain& plain,
                  std::string& note) {
    const FaultOptions& faults = state_->options.faults;
    const std::uint64_t n = ++state_->imageRequests;
    const auto parsed = parseImagePath(path);
    std::shared_ptr<const std::string> png;
    if (parsed) {
      const auto bySequence = state_->images.find(parsed->second);
      if (bySequence != state_->images.end()) {
        const auto byResolution = bySequence->second.find(parsed->first);
        if (byResolution != bySequence->second.end()) {
          png = byResolution->second;
        }
      }
    }
    if (n <= static_cast<std::uint64_t>(faults.failImages)) {
      plain(http::status::internal_server_error, "injected failure");
      note = " (injected, " + std::to_string(n) + " of " + std::to_string(faults.failImages) + ")";
    } else if (state_->chance(faults.failImagesRate)) {
      plain(http::status::internal_server_error, "injected failure");
      note = " (injected at random)";
    } else if (!png) {
      plain(http::status::not_found, "no such map image");
    } else if (faults.nonImageBody) {
      // Claims to be a PNG but is not: the client has to notice when decoding.
      response_.result(http::status::ok);
      response_.set(http::field::content_type, "image/png");
      response_.body() = "This is not a PNG picture, it is plain text served for a test.\n";
      note = " (text instead of the picture)";
    } else {
      // The ETag follows the bytes (a restarted server may serve other
      // pictures under the same names); a client that holds them is told
      // so instead of being sent them again.
      const std::string etag = contentTag(*png);
      const std::string& modified = state_->renderedAt[parsed->second];
      response_.set(http::field::etag, etag);
      response_.set(http::field::last_modified, modified);
      const auto ifNoneMatch = request[http::field::if_none_match];
      const bool current = request.count(http::field::if_none_match)
                               ? listsEtag(ifNoneMatch, etag)
                               : request[http::field::if_modified_since] == modified;
      if (current) {
        response_.result(http::status::not_modified);
        ++state_->notModified;
        note = " (not modified)";
      } else {
        response_.result(http::status::ok);
        response_.set(http::field::content_type, "image/png");
        response_.body() = *png;
        if (request.method() == http::verb::get) state_->imageBodyBytes += png->size();
      }
    }
  }

  // Whether an If-None-Match list names `etag` (or is "*").
  static bool listsEtag(std::string_view list, std::string_view etag) {
    while (!list.empty()) {
      const auto comma = list.find(',');
      auto item = list.substr(0, comma);
      list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
      while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) item.remove_prefix(1);
      while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) item.remove_suffix(1);
      if (item.starts_with("W/")) item.remove_prefix(2);
      if (item == "*" || item == etag) return true;
    }
    return false;
  }

  void on_delay(beast::error_code ec) {
    if (ec) {
      return;  // cancelled: the server is stopping
    }
    do_write();
  }

  void do_write() {
    beast::get_lowest_layer(stream_).expires_after(kWriteTimeout);
    http::async_write(stream_, response_, beast::bind_front_handler(&HttpSession::on_write, shared_from_this()));
  }

  void on_write(beast::error_code ec, std::size_t) {
    if (ec) {
      if (ec != asio::error::operation_aborted) {
        logLine("response write failed: " + ec.message());
      }
      return;
    }
    if (!response_.keep_alive()) {
      return do_close();
    }
    do_read();
  }

  void do_close() {
    beast::get_lowest_layer(stream_).expires_after(kHandshakeTimeout);
    stream_.async_shutdown(beast::bind_front_handler(&HttpSession::on_shutdown, shared_from_this()));
  }

  void on_shutdown(beast::error_code) {
    // The connection is finished whether or not the peer answered the close.
  }

  beast::ssl_stream<beast::tcp_stream> stream_;
  asio::steady_timer delay_;
  std::shared_ptr<Server::State> state_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> response_;
};

}  // namespace

// ---- State ----------------------------------------------------------------

void Server::State::setUpTls() {
  if (!options.certFile.empty() || !options.keyFile.empty()) {
    if (options.certFile.empty() || options.keyFile.empty()) {
      throw std::runtime_error("--cert and --key go together");
    }
    identity = loadIdentity(options.certFile, options.keyFile);
    logLine("serving the certificate from " + options.certFile);
  } else {
    identity = makeThrowAwayIdentity({options.host});
    logLine("created a throw-away CA and server certificate");
  }
  SSL_CTX_set_min_proto_version(tls.native_handle(), TLS1_2_VERSION);
  tls.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                  ssl::context::single_dh_use);
  tls.use_certificate_chain(asio::buffer(identity.certificateChainPem));
  tls.use_private_key(asio::buffer(identity.privateKeyPem), ssl::context::pem);
}

void Server::State::bind() {
  boost::system::error_code ec;
  asio::ip::address address = asio::ip::make_address(options.host, ec);
  if (ec) {
    tcp::resolver resolver(ioc);
    const auto results = resolver.resolve(options.host, "");
    if (results.empty()) {
      throw std::runtime_error("cannot resolve " + options.host);
    }
    address = results.begin()->endpoint().address();
  }
  const tcp::endpoint endpoint(address, options.port);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(asio::socket_base::reuse_address(true));
  acceptor.bind(endpoint);
  acceptor.listen(asio::socket_base::max_listen_connections);
  port = acceptor.local_endpoint().port();
}

void Server::State::writeCaFile() const {
  if (options.caOut.empty()) {
    return;
  }
  // Written aside and renamed, so whoever waits for the file never reads half
  // of it.
  const std::string temporary = options.caOut + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << identity.trustAnchorPem;
    if (!out.flush()) {
      throw std::runtime_error("cannot write " + temporary);
    }
  }
  std::filesystem::rename(temporary, options.caOut);
  logLine("wrote the CA certificate to " + options.caOut);
}

void Server::State::doAccept() {
  acceptor.async_accept(asio::make_strand(ioc),
                        beast::bind_front_handler(&State::onAccept, shared_from_this()));
}

void Server::State::onAccept(beast::error_code ec, tcp::socket socket) {
  if (ec) {
    if (ec != asio::error::operation_aborted) {
      logLine("accept failed: " + ec.message());
    }
    if (!running) {
      return;
    }
  } else {
    // An answer leaves in several writes (TLS records of at most 16 KB);
    // with Nagle's algorithm the last, short one waits for the client's
    // delayed acknowledgement: about 40 ms on every pushed update.
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::make_shared<HttpSession>(std::move(socket), shared_from_this())->run();
  }
  if (running) {
    doAccept();
  }
}

void Server::State::scheduleTick() {
  nextTick += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(options.intervalSeconds));
  // Rendering blocks the loop. When it is slower than the interval, leave the
  // connections at least as much time as the rendering took: back-to-back
  // updates would starve every handshake and download.
  const auto earliest = std::chrono::steady_clock::now() + lastRenderDuration;
  if (nextTick < earliest) {
    nextTick = earliest;
  }
  tickTimer.expires_at(nextTick);
  tickTimer.async_wait(beast::bind_front_handler(&State::onTick, shared_from_this()));
}

void Server::State::onTick(beast::error_code ec) {
  if (ec || !running) {
    return;
  }
  advance(true);
  scheduleTick();
}

void Server::State::scheduleDrop() {
  dropTimer.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(options.faults.dropEventsEverySeconds)));
  dropTimer.async_wait(beast::bind_front_handler(&State::onDrop, shared_from_this()));
}

void Server::State::onDrop(beast::error_code ec) {
  if (ec || !running) {
    return;
  }
  std::vector<WebSocketSession*> sessions(eventSessions.begin(), eventSessions.end());
  logLine("dropping " + std::to_string(sessions.size()) + " event connection(s) (injected)");
  for (WebSocketSession* session : sessions) {
    session->close("injected drop");
  }
  scheduleDrop();
}

std::string Server::State::srcFor(const Resolution& r, std::uint64_t seq) const {
  std::string prefix = options.faults.imageHost;
  while (!prefix.empty() && prefix.back() == '/') {
    prefix.pop_back();
  }
  return prefix + "/maps/" + r.text() + "/" + std::to_string(seq) + ".png";
}

void Server::State::render() {
  const MapScene scene{flight.state(), flight.origin(), flight.destination(), sequence + 1};
  std::map<std::string, std::shared_ptr<const std::string>> rendered;
  for (const Resolution& r : options.resolutions) {
    rendered[r.text()] = std::make_shared<const std::string>(renderer.renderPng(scene, r.width, r.height));
  }
  ++sequence;
  images[sequence] = std::move(rendered);
  renderedAt[sequence] = httpDate(std::time(nullptr));
  while (images.size() > kKeptSequences) {
    renderedAt.erase(images.begin()->first);
    images.erase(images.begin());
  }
  boost::json::array entries;
  for (const Resolution& r : options.resolutions) {
    boost::json::object entry;
    entry["width"] = r.width;
    entry["height"] = r.height;
    entry["src"] = srcFor(r, sequence);
    entries.push_back(std::move(entry));
  }
  imagesJsonText = boost::json::serialize(entries);
  boost::json::object body;
  body["images"] = std::move(entries);
  flightMapBody = boost::json::serialize(body);
}

void Server::State::advance(bool push) {
  const auto started = std::chrono::steady_clock::now();
  if (sequence > 0) {
    flight.advance(kSimulatedSecondsPerTick);
  }
  try {
    render();
  } catch (const std::exception& e) {
    logLine(std::string("rendering failed, keeping the previous maps: ") + e.what());
    return;
  }
  lastRenderDuration = std::chrono::steady_clock::now() - started;
  const double ms = std::chrono::duration<double, std::milli>(lastRenderDuration).count();
  char timing[32];
  std::snprintf(timing, sizeof timing, "%.1f", ms);
  logLine("update " + std::to_string(sequence) + " rendered in " + timing + " ms");
  if (ms > options.intervalSeconds * 1000 && !warnedSlowRendering) {
    warnedSlowRendering = true;
    logLine("rendering takes longer than the interval: updates come as often as the loop allows");
  }
  if (!push) {
    return;
  }
  ++pushes;
  const int every = options.faults.malformedEventsEvery;
  std::shared_ptr<const std::string> frame;
  if (every > 0 && pushes % static_cast<std::uint64_t>(every) == 0) {
    const auto kind = static_cast<MalformedKind>(malformedSent++ % kMalformedKindCount);
    frame = std::make_shared<const std::string>(makeMalformedEvent(kind, imagesJsonText));
    logLine(std::string("push ") + std::to_string(pushes) + " is malformed (injected): " + toString(kind));
  } else {
    frame = std::make_shared<const std::string>(makeUpdateEvent(imagesJsonText));
  }
  broadcast(frame);
}

void Server::State::broadcast(const std::shared_ptr<const std::string>& frame) {
  std::size_t sent = 0;
  for (WebSocketSession* session : std::vector<WebSocketSession*>(eventSessions.begin(), eventSessions.end())) {
    if (session->isOpen()) {
      session->send(frame);
      ++sent;
    }
  }
  if (sent > 0) {
    logLine("pushed update " + std::to_string(sequence) + " to " + std::to_string(sent) + " client(s)");
  }
}

std::size_t Server::State::openEventSessions() const {
  std::size_t n = 0;
  for (const WebSocketSession* session : eventSessions) {
    n += session->isOpen() ? 1 : 0;
  }
  return n;
}

void Server::State::stop(bool restarting) {
  if (!running) {
    return;
  }
  running = false;
  boost::system::error_code ignored;
  acceptor.close(ignored);
  tickTimer.cancel();
  dropTimer.cancel();
  for (HttpSession* session : std::vector<HttpSession*>(httpSessions.begin(), httpSessions.end())) {
    session->abort();
  }
  for (WebSocketSession* session : std::vector<WebSocketSession*>(eventSessions.begin(), eventSessions.end())) {
    if (restarting) {
      session->close("server restarting", websocket::close_code::service_restart);
    } else {
      session->close("server stopping");
    }
  }
  logLine("stopped");
}

// ---- Server ---------------------------------------------------------------

Server::Server(asio::io_context& ioc, ServerOptions options)
    : state_(std::make_shared<State>(ioc, std::move(options))) {}

Server::~Server() { stop(); }

std::uint16_t Server::start() {
  State& s = *state_;
  if (s.running) {
    return s.port;
  }
  if (!(s.options.intervalSeconds > 0)) {
    throw std::runtime_error("the interval must be positive");
  }
  s.setUpTls();
  s.advance(false);
  s.bind();
  s.running = true;
  s.doAccept();
  s.nextTick = std::chrono::steady_clock::now();
  s.scheduleTick();
  if (s.options.faults.dropEventsEverySeconds > 0) {
    s.scheduleDrop();
  }
  s.writeCaFile();
  return s.port;
}

void Server::stop() { state_->stop(false); }

void Server::stopForRestart() { state_->stop(true); }

void Server::tick() { state_->advance(true); }

void Server::setFaults(FaultOptions faults) {
  State& s = *state_;
  s.options.faults = std::move(faults);
  s.dropTimer.cancel();
  if (s.running && s.options.faults.dropEventsEverySeconds > 0) {
    s.scheduleDrop();
  }
}

std::uint16_t Server::port() const { return state_->port; }

const std::string& Server::trustAnchorPem() const { return state_->identity.trustAnchorPem; }

std::uint64_t Server::sequence() const { return state_->sequence; }

std::uint64_t Server::imageBodyBytes() const { return state_->imageBodyBytes; }

std::uint64_t Server::notModifiedAnswers() const { return state_->notModified; }

std::string Server::flightMapJson() const { return state_->flightMapBody; }

std::string Server::currentPng(const Resolution& resolution) const {
  if (state_->images.empty()) return {};
  const auto& latest = state_->images.rbegin()->second;
  const auto found = latest.find(resolution.text());
  return found == latest.end() ? std::string() : *found->second;
}

std::size_t Server::eventClientCount() const { return state_->openEventSessions(); }

}  // namespace cabinsim
