#pragma once

#include "qel/core/RequestTransport.h"
#include "qel/core/net/ConnectionPool.h"
#include "qel/core/net/UrlPolicy.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/vector_body.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace qel::core::net {

// One attempt of one GET: takes a pooled connection or opens one (resolve,
// connect, TLS handshake), writes the request, reads the answer and hands the
// connection back when it can be reused. A pooled connection that turns out
// to be closed by the server is replaced once by a fresh one.
//
// The session is the attempt's TransportOperation. It keeps itself alive
// through its pending operations (callers hold it weakly); after cancel() the
// completion never runs.
//
// Threading: the thread that runs the io_context.
//
//   auto session = std::make_shared<HttpsSession>(ioContext, settings, completion);
//   session->run();
class HttpsSession : public TransportOperation, public std::enable_shared_from_this<HttpsSession> {
 public:
  struct Settings {
    Endpoint endpoint;
    std::optional<std::string> caFile;
    std::shared_ptr<boost::asio::ssl::context> tlsContext;  // for https
    std::size_t bodyLimit = 0;
    std::chrono::steady_clock::duration connectTimeout{};
    std::chrono::steady_clock::duration requestTimeout{};
    std::size_t maximumIdlePerHost = 0;
    std::chrono::steady_clock::duration maximumIdleTime{};
  };

  HttpsSession(boost::asio::io_context& ioContext, Settings settings, RequestTransport::Completion completion);
  HttpsSession(const HttpsSession&) = delete;
  HttpsSession& operator=(const HttpsSession&) = delete;
  ~HttpsSession() override;

  void run();
  void cancel() override;

 private:
  using Parser = boost::beast::http::response_parser<boost::beast::http::vector_body<std::uint8_t>>;

  void connectFresh();
  void onResolve(const boost::system::error_code& error, boost::asio::ip::tcp::resolver::results_type results);
  void onResolveTimeout(const boost::system::error_code& error);
  void onConnect(const boost::system::error_code& error, const boost::asio::ip::tcp::endpoint& endpoint);
  void onHandshake(const boost::system::error_code& error);
  void sendRequest();
  void onWrite(const boost::system::error_code& error, std::size_t bytes);
  void onRead(const boost::system::error_code& error, std::size_t bytes);

  // Retries on a fresh connection when a reused one failed before any answer.
  bool retryIfStale(const boost::system::error_code& error);
  void fail(Error error);
  void finish(TransportResult result);
  std::string describe(const boost::system::error_code& error) const;

  boost::asio::io_context& ioContext_;
  Settings settings_;
  ConnectionPool::Key poolKey_;
  RequestTransport::Completion completion_;
  boost::asio::ip::tcp::resolver resolver_;
  boost::asio::steady_timer resolveTimer_;
  std::unique_ptr<HttpConnection> connection_;
  boost::beast::http::request<boost::beast::http::empty_body> request_;
  std::optional<Parser> parser_;
  std::chrono::steady_clock::time_point deadline_{};
  bool reused_ = false;
  bool retried_ = false;
  bool done_ = false;
};

}  // namespace qel::core::net
