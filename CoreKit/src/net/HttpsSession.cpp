#include "qel/core/net/HttpsSession.h"

#include "qel/core/QELLogging.h"
#include "qel/core/net/NetworkError.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/version.hpp>

#include <algorithm>
#include <cstdio>

namespace qel::core::net {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

constexpr std::string_view kDomain = qel::lastPathComponent(__FILE__);

std::string seconds(std::chrono::steady_clock::duration duration) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", std::chrono::duration<double>(duration).count());
  return text;
}

}  // namespace

HttpsSession::HttpsSession(asio::io_context& ioContext, Settings settings, RequestTransport::Completion completion)
    : ioContext_(ioContext),
      settings_(std::move(settings)),
      completion_(std::move(completion)),
      resolver_(ioContext),
      resolveTimer_(ioContext) {
  const Endpoint& endpoint = settings_.endpoint;
  poolKey_ = ConnectionPool::Key{endpoint.tls, endpoint.host, endpoint.port, settings_.caFile.value_or("")};
  request_.method(http::verb::get);
  request_.target(endpoint.target);
  request_.version(11);
  request_.set(http::field::host, endpoint.hostHeader);
  request_.set(http::field::user_agent, "QELMaps/1.0");
  request_.set(http::field::accept, "*/*");
}

HttpsSession::~HttpsSession() = default;

void HttpsSession::run() {
  deadline_ = std::chrono::steady_clock::now() + settings_.requestTimeout;
  connection_ = ConnectionPool::of(ioContext_).checkOut(poolKey_, settings_.maximumIdleTime);
  if (connection_) {
    reused_ = true;
    QELLogging::log("GET %s on a kept-alive connection", 4, kDomain, settings_.endpoint.url());
    sendRequest();
    return;
  }
  connectFresh();
}

void HttpsSession::cancel() {
  if (done_) return;
  done_ = true;
  completion_ = nullptr;
  resolver_.cancel();
  resolveTimer_.cancel();
  // Closing aborts whatever is pending; a half-used connection is never pooled.
  if (connection_) connection_->tcp().close();
}

void HttpsSession::connectFresh() {
  const Endpoint& endpoint = settings_.endpoint;
  reused_ = false;
  connection_ = endpoint.tls ? std::make_unique<HttpConnection>(ioContext_, settings_.tlsContext)
                             : std::make_unique<HttpConnection>(ioContext_);
  QELLogging::log("GET %s on a new connection", 4, kDomain, endpoint.url());

  const auto remaining = deadline_ - std::chrono::steady_clock::now();
  const auto connectTimeout = std::min(settings_.connectTimeout, remaining);
  boost::system::error_code notAnAddress;
  const auto address = asio::ip::make_address(endpoint.host, notAnAddress);
  if (!notAnAddress) {
    connection_->tcp().expires_after(connectTimeout);
    connection_->tcp().async_connect(
        tcp::endpoint(address, endpoint.port),
        [self = shared_from_this()](const boost::system::error_code& error) { self->onConnect(error, {}); });
    return;
  }
  // Name resolution has no timeout of its own; the connect timeout bounds it.
  resolveTimer_.expires_after(connectTimeout);
  resolveTimer_.async_wait(beast::bind_front_handler(&HttpsSession::onResolveTimeout, shared_from_this()));
  resolver_.async_resolve(endpoint.host, std::to_string(endpoint.port),
                          beast::bind_front_handler(&HttpsSession::onResolve, shared_from_this()));
}

void HttpsSession::onResolveTimeout(const boost::system::error_code& error) {
  if (error || done_) return;
  // A lookup in progress cannot be interrupted; fail now and let it finish unheard.
  resolver_.cancel();
  fail(networkError(NetworkErrorCode::Timeout, "resolving " + settings_.endpoint.host + " took longer than " +
                                                   seconds(settings_.connectTimeout)));
}

void HttpsSession::onResolve(const boost::system::error_code& error, tcp::resolver::results_type results) {
  if (done_) return;
  resolveTimer_.cancel();
  if (error) {
    return fail(networkError(NetworkErrorCode::Resolve,
                             "cannot resolve " + settings_.endpoint.host + ": " + error.message()));
  }
  const auto remaining = deadline_ - std::chrono::steady_clock::now();
  connection_->tcp().expires_after(std::min(settings_.connectTimeout, remaining));
  connection_->tcp().async_connect(results, beast::bind_front_handler(&HttpsSession::onConnect, shared_from_this()));
}

void HttpsSession::onConnect(const boost::system::error_code& error, const tcp::endpoint&) {
  if (done_) return;
  const Endpoint& endpoint = settings_.endpoint;
  if (error == beast::error::timeout) {
    return fail(networkError(NetworkErrorCode::Timeout, "connecting to " + endpoint.host + ":" +
                                                            std::to_string(endpoint.port) + " took longer than " +
                                                            seconds(settings_.connectTimeout)));
  }
  if (error) {
    return fail(networkError(NetworkErrorCode::Connect, "cannot connect to " + endpoint.host + ":" +
                                                            std::to_string(endpoint.port) + ": " + error.message()));
  }
  // From here on the whole-request deadline bounds every step.
  connection_->tcp().expires_at(deadline_);
  if (!endpoint.tls) return sendRequest();

  std::string why;
  if (!TlsContext::prepare(*connection_->tls, endpoint.host, &why)) {
    return fail(networkError(NetworkErrorCode::Handshake, why));
  }
  connection_->tls->async_handshake(asio::ssl::stream_base::client,
                                    beast::bind_front_handler(&HttpsSession::onHandshake, shared_from_this()));
}

void HttpsSession::onHandshake(const boost::system::error_code& error) {
  if (done_) return;
  if (error == beast::error::timeout) {
    return fail(networkError(NetworkErrorCode::Timeout,
                             "no TLS handshake within " + seconds(settings_.requestTimeout)));
  }
  if (error) {
    return fail(networkError(NetworkErrorCode::Handshake,
                             TlsContext::describeHandshakeFailure(*connection_->tls, error)));
  }
  sendRequest();
}

void HttpsSession::sendRequest() {
  parser_.emplace();
  parser_->body_limit(settings_.bodyLimit);
  connection_->tcp().expires_at(deadline_);
  connection_->visit([this](auto& stream) {
    http::async_write(stream, request_, beast::bind_front_handler(&HttpsSession::onWrite, shared_from_this()));
  });
}

void HttpsSession::onWrite(const boost::system::error_code& error, std::size_t) {
  if (done_) return;
  if (error) {
    if (retryIfStale(error)) return;
    const auto code = error == beast::error::timeout ? NetworkErrorCode::Timeout : NetworkErrorCode::Io;
    return fail(networkError(code, "cannot send the request: " + describe(error)));
  }
  connection_->visit([this](auto& stream) {
    http::async_read(stream, connection_->buffer, *parser_,
                     beast::bind_front_handler(&HttpsSession::onRead, shared_from_this()));
  });
}

void HttpsSession::onRead(const boost::system::error_code& error, std::size_t) {
  if (done_) return;
  if (error == http::error::body_limit) {
    return fail(networkError(NetworkErrorCode::TooLarge, "the response is larger than the " +
                                                             std::to_string(settings_.bodyLimit) +
                                                             " bytes allowed"));
  }
  if (error) {
    if (retryIfStale(error)) return;
    const auto code = error == beast::error::timeout ? NetworkErrorCode::Timeout : NetworkErrorCode::Io;
    return fail(networkError(code, "no complete response: " + describe(error)));
  }

  auto& response = parser_->get();
  const unsigned status = response.result_int();
  const std::string location(response[http::field::location]);
  Data body = std::move(response.body());
  // Keep the connection only when the server means to and nothing unread is left on it.
  if (response.keep_alive() && connection_->buffer.size() == 0) {
    ConnectionPool::of(ioContext_).checkIn(poolKey_, std::move(connection_), settings_.maximumIdlePerHost);
  } else {
    connection_.reset();
  }

  if (status >= 300 && status < 400) {
    return fail(networkError(NetworkErrorCode::Redirect,
                             "redirect refused: status " + std::to_string(status) +
                                 (location.empty() ? std::string() : " to \"" + location + "\"")));
  }
  if (status < 200 || status >= 300) {
    return fail(Error{kHTTPStatusErrorDomain, static_cast<int>(status),
                      "the server answered with status " + std::to_string(status)});
  }
  QELLogging::log("GET %s: %d, %lu bytes", 4, kDomain, settings_.endpoint.url(), static_cast<int>(status),
                  static_cast<unsigned long>(body.size()));
  finish(TransportResult{std::nullopt, std::move(body)});
}

bool HttpsSession::retryIfStale(const boost::system::error_code& error) {
  // A server may close a kept-alive connection whenever it likes; that shows
  // only when the connection is used again. Before any byte of an answer
  // arrived nothing was processed, so one fresh try is safe for a GET.
  if (!reused_ || retried_ || error == beast::error::timeout || (parser_ && parser_->got_some())) return false;
  retried_ = true;
  QELLogging::log("GET %s: kept-alive connection is gone (%s), opening a new one", 4, kDomain,
                  settings_.endpoint.url(), error.message());
  connection_.reset();
  connectFresh();
  return true;
}

std::string HttpsSession::describe(const boost::system::error_code& error) const {
  if (error == beast::error::timeout) return "timed out after " + seconds(settings_.requestTimeout);
  return error.message();
}

void HttpsSession::fail(Error error) {
  QELLogging::log("GET %s failed: %s", 2, kDomain, settings_.endpoint.url(), error.localizedDescription);
  connection_.reset();
  finish(TransportResult{std::move(error), {}});
}

void HttpsSession::finish(TransportResult result) {
  if (done_) return;
  done_ = true;
  resolveTimer_.cancel();
  auto completion = std::move(completion_);
  completion_ = nullptr;
  if (completion) completion(std::move(result));
}

}  // namespace qel::core::net
