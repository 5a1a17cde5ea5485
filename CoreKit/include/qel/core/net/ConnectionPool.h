#pragma once

#include "qel/core/net/TlsContext.h"

#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace qel::core::net {

// One open HTTP/1.1 connection, with TLS or without.
struct HttpConnection {
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  // A TLS connection over `context`.
  HttpConnection(boost::asio::io_context& ioContext, std::shared_ptr<boost::asio::ssl::context> context)
      : tlsContext(std::move(context)), tls(std::make_unique<TlsStream>(ioContext, *tlsContext)) {}
  // A plain TCP connection.
  explicit HttpConnection(boost::asio::io_context& ioContext)
      : plain(std::make_unique<boost::beast::tcp_stream>(ioContext)) {}

  boost::beast::tcp_stream& tcp() {
    return tls ? boost::beast::get_lowest_layer(*tls) : *plain;
  }
  // Calls `f` with the stream that carries HTTP.
  template <class F>
  void visit(F&& f) {
    if (tls) {
      f(*tls);
    } else {
      f(*plain);
    }
  }

  std::shared_ptr<boost::asio::ssl::context> tlsContext;  // outlives the stream
  std::unique_ptr<TlsStream> tls;
  std::unique_ptr<boost::beast::tcp_stream> plain;
  boost::beast::flat_buffer buffer;
  std::chrono::steady_clock::time_point idleSince{};
};

// Idle keep-alive connections of one io_context, by (scheme, host, port,
// trust). It is a service of the io_context, so the sockets it holds are
// closed when the loop goes away, never after.
//
// Threading: the thread that runs the io_context.
//
//   auto& pool = ConnectionPool::of(ioContext);
//   auto connection = pool.checkOut(key, std::chrono::seconds(30));
//   ... a request on it ...
//   pool.checkIn(key, std::move(connection), 4);
class ConnectionPool : public boost::asio::execution_context::service {
 public:
  struct Key {
    bool tls = true;
    std::string host;
    std::uint16_t port = 0;
    std::string caFile;  // a connection is trusted only under the trust it was verified with
    bool operator<(const Key& other) const {
      return std::tie(tls, host, port, caFile) < std::tie(other.tls, other.host, other.port, other.caFile);
    }
  };

  static boost::asio::execution_context::id id;

  explicit ConnectionPool(boost::asio::execution_context& context);
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

  static ConnectionPool& of(boost::asio::io_context& ioContext);

  // The most recently used idle connection for `key` that has not been idle
  // longer than `maximumIdle`, or null. Older ones are closed.
  std::unique_ptr<HttpConnection> checkOut(const Key& key, std::chrono::steady_clock::duration maximumIdle);
  // Keeps `connection` for reuse; beyond `maximumPerKey` the oldest is closed.
  void checkIn(const Key& key, std::unique_ptr<HttpConnection> connection, std::size_t maximumPerKey);

  std::size_t idleCount() const;
  // Closes every idle connection.
  void clear() { idle_.clear(); }

 private:
  void shutdown() override { clear(); }

  std::map<Key, std::vector<std::unique_ptr<HttpConnection>>> idle_;
};

}  // namespace qel::core::net
