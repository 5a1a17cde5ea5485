#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qel::core::net {

// Turns a host name into addresses without blocking and without a thread of
// its own: the DNS queries are c-ares sockets served by the loop's
// io_context, so a slow or dead name server holds up nothing but the lookup
// that asked it, and cancelling or destroying the resolver ends its lookups
// at once (no hidden thread left to join at exit).
//
// Before any query, a host that is an address literal ("10.0.0.1", "::1",
// "[::1]") is its own answer, and a host and port found in the fixed host
// table is answered from it. The table uses curl's --resolve syntax,
// "HOST:PORT:ADDR[,ADDR...]" (IPv6 addresses may be bracketed), so the same
// entries can be handed to curl with CURLOPT_RESOLVE and both channels agree.
//
// Addresses come back in the order to try them: the system's preference
// order, then interleaved by family (IPv6, IPv4, IPv6, ...) so that a
// connect race alternates between them.
//
// Usable by any network code on the loop, the request path included: resolve
// here and pass the result to curl as a CURLOPT_RESOLVE entry.
//
// Threading: the run loop thread that owns the io_context. Callbacks run on
// that loop, never from inside resolve() or cancel(), and never after
// cancel() or destruction.
//
//   Resolver resolver(loop.context(), {.fixedHosts = configuration.resolve});
//   resolver.resolve("cabin.local", 443, [](const std::string& error, Resolver::Endpoints endpoints) {
//     if (!error.empty()) return log(error);
//     connect(endpoints);
//   });
class Resolver {
 public:
  using Endpoints = std::vector<boost::asio::ip::tcp::endpoint>;
  // `error` is empty on success, and `endpoints` then holds at least one.
  using Callback = std::function<void(const std::string& error, Endpoints endpoints)>;

  struct Options {
    // "HOST:PORT:ADDR[,ADDR...]" entries; unusable ones are logged and skipped.
    std::vector<std::string> fixedHosts;
    // Name servers to ask instead of the system's, "ADDR[:PORT][,...]" with
    // IPv6 addresses bracketed when a port follows.
    std::optional<std::string> servers;
    // How long to wait for one name server's answer before asking again.
    std::chrono::milliseconds queryTimeout{2000};
    int tries = 2;
  };

  struct FixedHost {
    std::string host;
    std::uint16_t port = 0;
    std::vector<boost::asio::ip::address> addresses;
  };

  explicit Resolver(boost::asio::io_context& ioContext);
  Resolver(boost::asio::io_context& ioContext, Options options);
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;
  // Ends every lookup still running, without calling back.
  ~Resolver();

  void resolve(const std::string& host, std::uint16_t port, Callback callback);
  // Ends every lookup still running, without calling back.
  void cancel();

  // One fixed host table entry, or nullopt when it is not one.
  static std::optional<FixedHost> parseFixedHost(std::string_view entry);
  // The host without the brackets a URL puts around an IPv6 address: the
  // name to look up and to check a certificate against ("[::1]" is "::1").
  static std::string_view unbracketed(std::string_view host);
  // The address a host literal names ("::1" or "[::1]"), if it is one.
  static std::optional<boost::asio::ip::address> addressLiteral(std::string_view host);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace qel::core::net
