// The simulator in-process on a loopback port, talked to by a verifying TLS
// client on the same loop. Time passes only as the loop runs.
#include "cabinsim/Events.h"
#include "cabinsim/Server.h"

#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/json.hpp>

#include <openssl/ssl.h>

#include <chrono>
#include <functional>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace json = boost::json;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using asio::use_awaitable;
using namespace std::chrono_literals;

using Response = http::response<http::string_body>;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

class CabinSimServer : public ::testing::Test {
 protected:
  // Starts the server, runs `client` on the loop until it finishes, stops
  // the server and drains the loop. A guard timer ends a hung test.
  void run(cabinsim::ServerOptions options, std::function<asio::awaitable<void>()> client) {
    server_ = std::make_unique<cabinsim::Server>(ioc_, std::move(options));
    port_ = server_->start();
    ASSERT_NE(port_, 0);
    tls_.set_verify_mode(ssl::verify_peer);
    tls_.add_certificate_authority(asio::buffer(server_->trustAnchorPem()));

    bool done = false;
    std::exception_ptr failure;
    asio::co_spawn(ioc_, client(), [&](std::exception_ptr e) {
      failure = e;
      done = true;
      server_->stop();
    });
    asio::steady_timer guard(ioc_, 30s);
    guard.async_wait([&](beast::error_code ec) {
      if (!ec) {
        ADD_FAILURE() << "the client did not finish";
        ioc_.stop();
      }
    });
    while (!done && ioc_.run_one()) {
    }
    guard.cancel();
    ioc_.run();
    if (failure) {
      try {
        std::rethrow_exception(failure);
      } catch (const std::exception& e) {
        FAIL() << "client failed: " << e.what();
      }
    }
  }

  // A TLS connection that verifies the certificate for "localhost", like the real client.
  asio::awaitable<std::unique_ptr<TlsStream>> connect() {
    auto stream = std::make_unique<TlsStream>(ioc_, tls_);
    SSL_set_tlsext_host_name(stream->native_handle(), "localhost");
    stream->set_verify_callback(ssl::host_name_verification("localhost"));
    beast::get_lowest_layer(*stream).expires_after(10s);
    co_await beast::get_lowest_layer(*stream).async_connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port_),
                                                            use_awaitable);
    co_await stream->async_handshake(ssl::stream_base::client, use_awaitable);
    co_return stream;
  }

  static asio::awaitable<Response> get(TlsStream& stream, const std::string& target) {
    http::request<http::empty_body> request{http::verb::get, target, 11};
    request.set(http::field::host, "localhost");
    request.keep_alive(true);
    beast::get_lowest_layer(stream).expires_after(10s);
    co_await http::async_write(stream, request, use_awaitable);
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(16 * 1024 * 1024);
    co_await http::async_read(stream, buffer, parser, use_awaitable);
    co_return parser.release();
  }

  static std::string srcAt(const json::value& images, std::size_t i) {
    return std::string(images.at(i).at("src").as_string());
  }

  asio::io_context ioc_{1};
  ssl::context tls_{ssl::context::tls_client};
  std::unique_ptr<cabinsim::Server> server_;
  std::uint16_t port_ = 0;
};

bool isPngOfSize(const std::string& body, int width, int height) {
  auto be32 = [&](std::size_t at) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      v = (v << 8) | static_cast<unsigned char>(body[at + i]);
    }
    return v;
  };
  return body.size() > 24 && body.compare(0, 8, std::string("\x89PNG\r\n\x1a\n", 8)) == 0 &&
         be32(16) == static_cast<std::uint32_t>(width) && be32(20) == static_cast<std::uint32_t>(height);
}

TEST_F(CabinSimServer, ServesMapDataAndImagesThenPushesAnUpdate) {
  cabinsim::ServerOptions options;
  options.intervalSeconds = 0.1;
  run(options, [this]() -> asio::awaitable<void> {
    auto stream = co_await connect();
    const Response data = co_await get(*stream, "/skelion/services/maps/v1/flight_map");
    EXPECT_EQ(data.result(), http::status::ok);
    EXPECT_EQ(data[http::field::content_type], "application/json");
    const json::value body = json::parse(data.body());
    const json::value& images = body.at("images");
    const std::pair<int, int> expected[] = {{1024, 768}, {800, 600}, {400, 300}};
    EXPECT_EQ(images.as_array().size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
      EXPECT_EQ(images.at(i).at("width").as_int64(), expected[i].first);
      EXPECT_EQ(images.at(i).at("height").as_int64(), expected[i].second);
    }

    // Same connection (keep-alive): every picture, then one that does not exist.
    for (std::size_t i = 0; i < std::size(expected); ++i) {
      const Response image = co_await get(*stream, srcAt(images, i));
      EXPECT_EQ(image.result(), http::status::ok);
      EXPECT_EQ(image[http::field::content_type], "image/png");
      EXPECT_TRUE(isPngOfSize(image.body(), expected[i].first, expected[i].second)) << srcAt(images, i);
    }
    EXPECT_EQ((co_await get(*stream, "/maps/1024x768/999999.png")).result(), http::status::not_found);
    EXPECT_EQ((co_await get(*stream, "/nothing/here")).result(), http::status::not_found);

    // The event channel: nothing on connect, then the next tick's update.
    websocket::stream<TlsStream> ws(std::move(*co_await connect()));
    co_await ws.async_handshake("localhost", "/skelion/events", use_awaitable);
    beast::flat_buffer buffer;
    co_await ws.async_read(buffer, use_awaitable);
    EXPECT_TRUE(ws.got_text());
    const json::value event = json::parse(beast::buffers_to_string(buffer.data()));
    EXPECT_EQ(event.at("name").as_string(), "core.maps.map_update");
    const json::value pushed = json::parse(event.at("userInfo").at("images").as_string());
    EXPECT_EQ(pushed.as_array().size(), std::size(expected));
    EXPECT_NE(srcAt(pushed, 0), srcAt(images, 0));  // a new sequence number
    EXPECT_EQ(json::parse(server_->flightMapJson()).at("images"), pushed);
    EXPECT_EQ(server_->eventClientCount(), 1u);

    // The pictures an update names can be fetched.
    const Response newer = co_await get(*stream, srcAt(pushed, 2));
    EXPECT_TRUE(isPngOfSize(newer.body(), 400, 300));
    co_await ws.async_close(websocket::close_code::normal, use_awaitable);
  });
}

TEST_F(CabinSimServer, InjectedRestAndImageFailuresThenABodyThatIsNoImage) {
  cabinsim::ServerOptions options;
  options.intervalSeconds = 60;  // no tick during the test
  options.resolutions = {{320, 240}};
  options.faults.failRest = 2;
  options.faults.failImages = 1;
  options.faults.nonImageBody = true;
  options.faults.imageHost = "https://elsewhere.example:9443/";
  run(options, [this]() -> asio::awaitable<void> {
    auto stream = co_await connect();
    const std::string path = "/skelion/services/maps/v1/flight_map";
    EXPECT_EQ((co_await get(*stream, path)).result(), http::status::service_unavailable);
    EXPECT_EQ((co_await get(*stream, path)).result(), http::status::service_unavailable);
    const Response data = co_await get(*stream, path);
    EXPECT_EQ(data.result(), http::status::ok);
    EXPECT_EQ(srcAt(json::parse(data.body()).at("images"), 0), "https://elsewhere.example:9443/maps/320x240/1.png");
    const std::string src = "/maps/320x240/1.png";
    EXPECT_EQ((co_await get(*stream, src)).result(), http::status::internal_server_error);
    const Response image = co_await get(*stream, src);
    EXPECT_EQ(image.result(), http::status::ok);
    EXPECT_FALSE(isPngOfSize(image.body(), 320, 240));
  });
}

TEST_F(CabinSimServer, MalformedPushesRotateAndStoppingClosesTheChannel) {
  cabinsim::ServerOptions options;
  options.intervalSeconds = 60;  // updates come from tick() below
  options.resolutions = {{320, 240}};
  options.faults.malformedEventsEvery = 2;
  run(options, [this]() -> asio::awaitable<void> {
    websocket::stream<TlsStream> ws(std::move(*co_await connect()));
    ws.read_message_max(4 * 1024 * 1024);
    co_await ws.async_handshake("localhost", "/skelion/events", use_awaitable);
    // Pushes 1, 3, 5 are updates; 2 and 4 are the first two malformed kinds.
    std::vector<std::string> frames;
    for (int i = 0; i < 4; ++i) {
      server_->tick();
      beast::flat_buffer buffer;
      co_await ws.async_read(buffer, use_awaitable);
      frames.push_back(beast::buffers_to_string(buffer.data()));
    }
    EXPECT_NO_THROW(json::parse(frames[0]));
    EXPECT_ANY_THROW(json::parse(frames[1]));
    EXPECT_TRUE(json::parse(frames[2]).at("userInfo").at("images").is_string());
    EXPECT_TRUE(json::parse(frames[3]).is_array());

    // Stopping the server closes the channel cleanly.
    server_->stop();
    beast::flat_buffer buffer;
    beast::error_code ec;
    co_await ws.async_read(buffer, asio::redirect_error(use_awaitable, ec));
    EXPECT_EQ(ec, websocket::error::closed);
    EXPECT_EQ(ws.reason().code, websocket::close_code::going_away);
  });
}

}  // namespace
