#include "TestServer.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <deque>

namespace qel::core::net::testing {
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Stream = beast::ssl_stream<beast::tcp_stream>;

class HttpPeer;
class WebSocketPeer;

struct TestServer::State {
  State(asio::io_context& ioContext) : ioContext(ioContext), acceptor(ioContext) {}
  asio::io_context& ioContext;
  asio::ssl::context tls{asio::ssl::context::tls_server};
  tcp::acceptor acceptor;
  Handler handler;
  int accepts = 0;
  int closed = 0;
  bool answerPings = true;
  std::vector<std::string> targets;
  std::vector<std::weak_ptr<HttpPeer>> peers;
  // Held here too: a held request or a WebSocket that does not read has no
  // operation pending that would keep it alive.
  std::vector<std::shared_ptr<HttpPeer>> held;
  std::vector<std::shared_ptr<WebSocketPeer>> webSockets;
};

class WebSocketPeer : public std::enable_shared_from_this<WebSocketPeer> {
 public:
  WebSocketPeer(Stream&& stream, std::shared_ptr<TestServer::State> state)
      : ws_(std::move(stream)), state_(std::move(state)) {}

  void accept(http::request<http::string_body> request) {
    ws_.async_accept(request, beast::bind_front_handler(&WebSocketPeer::onAccept, shared_from_this()));
  }
  bool isOpen() const { return open_; }
  void send(bool text, std::string bytes) {
    if (!open_) return;
    outbox_.emplace_back(text, std::move(bytes));
    if (!writing_) writeNext();
  }
  void close() {
    if (!open_) return;
    open_ = false;
    ws_.async_close(websocket::close_code::normal, [self = shared_from_this()](const beast::error_code&) {});
  }
  void drop() {
    open_ = false;
    beast::get_lowest_layer(ws_).close();
  }

 private:
  void onAccept(const beast::error_code& error) {
    if (error) return;
    open_ = true;
    if (state_->answerPings) read();
  }
  void read() {
    ws_.async_read(buffer_, [self = shared_from_this()](const beast::error_code& error, std::size_t) {
      self->buffer_.clear();
      if (error) {
        self->open_ = false;
        ++self->state_->closed;
        return;
      }
      self->read();
    });
  }
  void writeNext() {
    if (outbox_.empty() || !open_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    ws_.text(outbox_.front().first);
    ws_.async_write(asio::buffer(outbox_.front().second),
                    [self = shared_from_this()](const beast::error_code& error, std::size_t) {
                      self->outbox_.pop_front();
                      if (error) {
                        self->writing_ = false;
                        return;
                      }
                      self->writeNext();
                    });
  }

  websocket::stream<Stream> ws_;
  std::shared_ptr<TestServer::State> state_;
  beast::flat_buffer buffer_;
  std::deque<std::pair<bool, std::string>> outbox_;
  bool open_ = false;
  bool writing_ = false;
};

class HttpPeer : public std::enable_shared_from_this<HttpPeer> {
 public:
  HttpPeer(tcp::socket socket, std::shared_ptr<TestServer::State> state)
      : stream_(std::move(socket), state->tls), state_(std::move(state)) {}

  void start() {
    stream_.async_handshake(asio::ssl::stream_base::server, [self = shared_from_this()](const beast::error_code& e) {
      if (e) {
        ++self->state_->closed;
        return;
      }
      self->read();
    });
  }
  bool isIdle() const { return idle_; }
  bool isHeld() const { return held_; }
  void close() { beast::get_lowest_layer(stream_).close(); }

  void respond(const TestServer::Response& answer) {
    held_ = false;
    response_ = {};
    response_.version(11);
    response_.result(answer.status);
    for (const auto& [name, value] : answer.headers) response_.set(name, value);
    response_.body() = answer.body;
    response_.keep_alive(answer.keepAlive);
    response_.prepare_payload();
    http::async_write(stream_, response_, [self = shared_from_this()](const beast::error_code& error, std::size_t) {
      if (error) {
        ++self->state_->closed;
        return;
      }
      if (!self->response_.keep_alive()) return self->close();
      self->read();
    });
  }

 private:
  void read() {
    idle_ = true;
    parser_.emplace();
    parser_->body_limit(1024 * 1024);
    http::async_read(stream_, buffer_, *parser_, beast::bind_front_handler(&HttpPeer::onRead, shared_from_this()));
  }

  void onRead(const beast::error_code& error, std::size_t) {
    idle_ = false;
    if (error) {
      ++state_->closed;
      return;
    }
    state_->targets.emplace_back(parser_->get().target());
    if (websocket::is_upgrade(parser_->get())) {
      auto peer = std::make_shared<WebSocketPeer>(std::move(stream_), state_);
      state_->webSockets.push_back(peer);
      peer->accept(parser_->release());
      return;
    }
    const auto answer = state_->handler ? state_->handler(parser_->get()) : TestServer::Response{404, "", {}, true};
    if (!answer) {
      held_ = true;
      state_->held.push_back(shared_from_this());
      return;
    }
    respond(*answer);
  }

  Stream stream_;
  std::shared_ptr<TestServer::State> state_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> response_;
  bool idle_ = false;
  bool held_ = false;
};

namespace {

void acceptNext(const std::shared_ptr<TestServer::State>& state) {
  state->acceptor.async_accept([state](const beast::error_code& error, tcp::socket socket) {
    if (error) return;
    ++state->accepts;
    auto peer = std::make_shared<HttpPeer>(std::move(socket), state);
    state->peers.push_back(peer);
    peer->start();
    acceptNext(state);
  });
}

}  // namespace

TestServer::TestServer(asio::io_context& ioContext, const TestCertificate& certificate)
    : state_(std::make_shared<State>(ioContext)) {
  const std::string chain = certificate.certificatePem();
  const std::string key = certificate.privateKeyPem();
  state_->tls.use_certificate_chain(asio::buffer(chain));
  state_->tls.use_private_key(asio::buffer(key), asio::ssl::context::pem);

  const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
  state_->acceptor.open(endpoint.protocol());
  state_->acceptor.set_option(tcp::acceptor::reuse_address(true));
  state_->acceptor.bind(endpoint);
  state_->acceptor.listen();
  acceptNext(state_);
}

TestServer::~TestServer() {
  state_->acceptor.close();
  for (const auto& peer : state_->webSockets) peer->drop();
  for (const auto& weak : state_->peers) {
    if (auto peer = weak.lock()) peer->close();
  }
  // The peers hold the state; let go of them so that both can go away.
  state_->webSockets.clear();
  state_->held.clear();
}

std::uint16_t TestServer::port() const { return state_->acceptor.local_endpoint().port(); }
void TestServer::setHandler(Handler handler) { state_->handler = std::move(handler); }
int TestServer::acceptCount() const { return state_->accepts; }
const std::vector<std::string>& TestServer::requestTargets() const { return state_->targets; }
int TestServer::closedCount() const { return state_->closed; }
void TestServer::setAnswerPings(bool answer) { state_->answerPings = answer; }

void TestServer::releaseHeld(const Response& response) {
  const auto held = std::move(state_->held);
  state_->held.clear();
  for (const auto& peer : held) peer->respond(response);
}

void TestServer::dropIdleConnections() {
  for (const auto& weak : state_->peers) {
    auto peer = weak.lock();
    if (peer && peer->isIdle()) peer->close();
  }
}

int TestServer::openWebSockets() const {
  int count = 0;
  for (const auto& peer : state_->webSockets) count += peer->isOpen();
  return count;
}

void TestServer::sendText(const std::string& text) {
  for (const auto& peer : state_->webSockets) peer->send(true, text);
}

void TestServer::sendBinary(const std::string& bytes) {
  for (const auto& peer : state_->webSockets) peer->send(false, bytes);
}

void TestServer::closeWebSockets() {
  for (const auto& peer : state_->webSockets) peer->close();
}

}  // namespace qel::core::net::testing
