#include "NetworkTestSupport.h"

#include <zlib.h>

#include <sstream>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <algorithm>
#include <deque>

namespace qel::core::net::testing {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using asio::use_awaitable;
using tcp = asio::ip::tcp;
using Signal = asio::steady_timer;  // never expires: a wait on it lasts until cancel()

namespace {

Signal newSignal(const asio::any_io_executor& executor) { return Signal(executor, Signal::time_point::max()); }

asio::awaitable<void> waitFor(Signal& signal) {
  boost::system::error_code cancelled;
  co_await signal.async_wait(asio::redirect_error(use_awaitable, cancelled));
}

struct Connection {
  Connection(tcp::socket socket, asio::ssl::context& tls)
      : wake(newSignal(socket.get_executor())), stream(std::move(socket), tls) {}
  void close() { beast::get_lowest_layer(stream).close(); }

  Signal wake;  // frames to send, or a close
  beast::ssl_stream<beast::tcp_stream> stream;
  std::optional<websocket::stream<beast::ssl_stream<beast::tcp_stream>&>> webSocket;
  std::deque<std::pair<bool, std::string>> outbox;  // binary?, frame
  bool closing = false;
  std::string closeReason;
  websocket::close_code closeCode = websocket::close_code::normal;
  bool idle = false;
};

}  // namespace

struct TestServer::State {
  explicit State(asio::io_context& ioContext)
      : acceptor(ioContext, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)),
        released(newSignal(ioContext.get_executor())) {}
  asio::ssl::context tls{asio::ssl::context::tls_server};
  tcp::acceptor acceptor;
  int accepts = 0;
  int resumed = 0;
  std::vector<std::string> targets;
  std::vector<std::weak_ptr<Connection>> connections;
  Signal released;  // held requests wait for it
};

namespace {

// Errors end a connection by throwing out of its coroutine, which co_spawn drops.
// Reads what the client sends, which answers its pings, as a live server
// does; ends when the connection goes silent or closes.
asio::awaitable<void> readWebSocket(std::shared_ptr<Connection> connection) {
  beast::flat_buffer buffer;
  for (;;) {
    buffer.clear();
    co_await connection->webSocket->async_read(buffer, use_awaitable);
  }
}

asio::awaitable<void> serveWebSocket(std::shared_ptr<Connection> shared, const http::request<http::string_body>& request) {
  Connection& connection = *shared;
  auto& webSocket = connection.webSocket.emplace(connection.stream);
  co_await webSocket.async_accept(request, use_awaitable);
  asio::co_spawn(connection.stream.get_executor(), readWebSocket(shared), asio::detached);
  for (;;) {
    while (connection.outbox.empty() && !connection.closing) co_await waitFor(connection.wake);
    for (; !connection.outbox.empty(); connection.outbox.pop_front()) {
      webSocket.binary(connection.outbox.front().first);
      co_await webSocket.async_write(asio::buffer(connection.outbox.front().second), use_awaitable);
    }
    if (connection.closing)
      co_return co_await webSocket.async_close(
          websocket::close_reason(connection.closeCode, connection.closeReason), use_awaitable);
  }
}

// 64 MiB of zeros, gzip-compressed (about 64 KiB), made once.
const std::string& gzipBomb() {
  static const std::string bomb = [] {
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    std::string zeros(1024 * 1024, '\0'), out;
    char buffer[16384];
    for (int i = 0; i < 64; ++i) {
      stream.next_in = reinterpret_cast<Bytef*>(zeros.data());
      stream.avail_in = static_cast<uInt>(zeros.size());
      const int flush = i == 63 ? Z_FINISH : Z_NO_FLUSH;
      do {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof buffer;
        deflate(&stream, flush);
        out.append(buffer, sizeof buffer - stream.avail_out);
      } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return out;
  }();
  return bomb;
}

asio::awaitable<void> writeText(Connection& connection, const std::string& text) {
  co_await asio::async_write(connection.stream, asio::buffer(text), use_awaitable);
}

asio::awaitable<void> serve(std::shared_ptr<TestServer::State> state, std::shared_ptr<Connection> connection) {
  co_await connection->stream.async_handshake(asio::ssl::stream_base::server, use_awaitable);
  if (SSL_session_reused(connection->stream.native_handle())) ++state->resumed;
  beast::flat_buffer buffer;
  for (;;) {
    http::request<http::string_body> request;
    connection->idle = true;
    co_await http::async_read(connection->stream, buffer, request, use_awaitable);
    connection->idle = false;
    const std::string target(request.target());
    state->targets.push_back(target);
    if (websocket::is_upgrade(request)) co_return co_await serveWebSocket(connection, request);

    if (target == "/held") co_await waitFor(state->released);
    if (target.starts_with("/early"))
      co_await writeText(*connection, "HTTP/1.1 103 Early Hints\r\nLink: </a.css>\r\n\r\n");
    if (target == "/redirect") {  // a Location that tries to forge log lines
      co_await writeText(*connection,
                         "HTTP/1.1 302 Found\r\nLocation: /moved\x1b[2J\x0b\x0c 1 FAKE\r\nContent-Length: 0\r\n\r\n");
      continue;
    }
    if (target.starts_with("/close")) {
      co_await writeText(*connection, "HTTP/1.1 200 OK\r\n\r\nbody of " + target);
      co_return co_await connection->stream.async_shutdown(use_awaitable);
    }
    if (target.starts_with("/gzip-bomb")) {
      const auto& bomb = gzipBomb();
      if (target.ends_with(".png")) {  // a coding of the transfer, in one chunk
        co_await writeText(*connection, "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n" +
                                            (std::ostringstream() << std::hex << bomb.size()).str() + "\r\n" + bomb +
                                            "\r\n0\r\n\r\n");
      } else {  // a coding of the content
        co_await writeText(*connection, "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: " +
                                            std::to_string(bomb.size()) + "\r\n\r\n" + bomb);
      }
      continue;
    }
    if (target == "/trickle" || target == "/silent") {
      const int chunks = target == "/trickle" ? 12 : 1;
      co_await writeText(*connection,
                         "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(chunks * 100 + 1) + "\r\n\r\n");
      for (int i = 0; i < chunks; ++i) {
        co_await writeText(*connection, std::string(100, 'x'));
        co_await asio::steady_timer(connection->stream.get_executor(), std::chrono::milliseconds(250))
            .async_wait(use_awaitable);
      }
      if (target == "/silent") co_await waitFor(state->released);
      co_await writeText(*connection, "x");
      continue;
    }
    http::response<http::string_body> response(http::status::ok, 11, "body of " + target);
    if (target.starts_with("/status/")) response.result(std::stoi(target.substr(8)));
    if (const auto at = target.find("?retry-after="); at != std::string::npos) {
      const auto value = target.substr(at + 13);
      response.set(http::field::retry_after, value == "date" ? "Thu, 01 Jan 2037 00:00:00 GMT" : value);
    }
    if (target.starts_with("/big")) response.body().assign(1024 * 1024 + 1, 'x');
    response.prepare_payload();
    co_await http::async_write(connection->stream, response, use_awaitable);
  }
}

asio::awaitable<void> acceptConnections(std::shared_ptr<TestServer::State> state) {
  for (;;) {
    auto socket = co_await state->acceptor.async_accept(use_awaitable);
    ++state->accepts;
    auto connection = std::make_shared<Connection>(std::move(socket), state->tls);
    state->connections.push_back(connection);
    asio::co_spawn(state->acceptor.get_executor(), serve(state, connection), asio::detached);
  }
}

}  // namespace

TestServer::TestServer(asio::io_context& ioContext, const cabinsim::ServerIdentity& identity)
    : state_(std::make_shared<State>(ioContext)) {
  state_->tls.use_certificate_chain(asio::buffer(identity.certificateChainPem));
  state_->tls.use_private_key(asio::buffer(identity.privateKeyPem), asio::ssl::context::pem);
  asio::co_spawn(ioContext, acceptConnections(state_), asio::detached);
}

TestServer::~TestServer() {
  // Every coroutine then fails on its next step and lets go of the state.
  state_->acceptor.close();
  state_->released.cancel();
  for (const auto& weak : state_->connections) {
    if (auto connection = weak.lock()) {
      connection->close();
      connection->closing = true;
      connection->wake.cancel();
    }
  }
}

std::uint16_t TestServer::port() const { return state_->acceptor.local_endpoint().port(); }
int TestServer::acceptCount() const { return state_->accepts; }
// A connection lives as long as the coroutine that serves it.
int TestServer::openCount() const {
  return int(std::ranges::count_if(state_->connections, [](const auto& weak) { return !weak.expired(); }));
}
int TestServer::resumedCount() const { return state_->resumed; }
const std::vector<std::string>& TestServer::requestTargets() const { return state_->targets; }

void TestServer::releaseHeld() { state_->released.cancel(); }

void TestServer::dropIdleConnections() {
  for (const auto& weak : state_->connections) {
    auto connection = weak.lock();
    if (connection && connection->idle) connection->close();
  }
}

void TestServer::send(const std::string& frame, bool binary) {
  for (const auto& weak : state_->connections) {
    if (auto connection = weak.lock(); connection && connection->webSocket) {
      connection->outbox.emplace_back(binary, frame);
      connection->wake.cancel();
    }
  }
}

void TestServer::silenceWebSockets() {
  for (const auto& weak : state_->connections) {
    if (auto connection = weak.lock(); connection && connection->webSocket) {
      // The pending read ends, and with it the answers to pings; nothing is
      // written either, and the socket stays open.
      beast::get_lowest_layer(connection->stream).cancel();
      connection->outbox.clear();
    }
  }
}

void TestServer::closeWebSockets(const std::string& reason, std::uint16_t code) {
  for (const auto& weak : state_->connections) {
    if (auto connection = weak.lock(); connection && connection->webSocket) {
      connection->closing = true;
      connection->closeReason = reason;
      connection->closeCode = static_cast<websocket::close_code>(code);
      connection->wake.cancel();
    }
  }
}

}  // namespace qel::core::net::testing
