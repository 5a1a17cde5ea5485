#pragma once

#include "TestCertificates.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qel::core::net::testing {

// A small HTTPS and secure WebSocket server on 127.0.0.1 and a free port,
// run by the same loop as the code under test.
//
// Each HTTP request goes to the handler; an answer of nullopt holds the
// request unanswered until releaseHeld(). An upgrade request to any path
// becomes a WebSocket the test pushes frames into.
//
//   TestServer server(loop.context(), serverCertificate);
//   server.setHandler([](const auto& request) { return TestServer::Response{200, "hi"}; });
//   ... https://127.0.0.1:<server.port()>/ ...
class TestServer {
 public:
  using Request = boost::beast::http::request<boost::beast::http::string_body>;
  struct Response {
    Response(unsigned status = 200, std::string body = {},
             std::vector<std::pair<std::string, std::string>> headers = {}, bool keepAlive = true)
        : status(status), body(std::move(body)), headers(std::move(headers)), keepAlive(keepAlive) {}
    unsigned status = 200;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    bool keepAlive = true;
  };
  using Handler = std::function<std::optional<Response>(const Request&)>;

  TestServer(boost::asio::io_context& ioContext, const TestCertificate& certificate);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  std::uint16_t port() const;
  void setHandler(Handler handler);

  // TCP connections accepted so far.
  int acceptCount() const;
  // HTTP requests read so far (upgrades included), and their targets.
  const std::vector<std::string>& requestTargets() const;
  // Connections whose peer went away.
  int closedCount() const;
  // Answers every held request with `response`.
  void releaseHeld(const Response& response);
  // Closes the idle keep-alive connections without a word, as a server does
  // when its keep-alive timeout runs out.
  void dropIdleConnections();

  // WebSockets: open count, text/binary frames to every open one, a clean close.
  // With answerPings false, new WebSockets never read, so pings go unanswered.
  int openWebSockets() const;
  void sendText(const std::string& text);
  void sendBinary(const std::string& bytes);
  void closeWebSockets();
  void setAnswerPings(bool answer);

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qel::core::net::testing
