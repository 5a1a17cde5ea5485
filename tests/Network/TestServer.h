#pragma once

#include "cabinsim/Certificates.h"

#include <boost/asio/io_context.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qel::core::net::testing {

// A small HTTPS and secure WebSocket server on 127.0.0.1 and a free port, run
// by the same loop as the code under test.
//
// It answers GET <target> with "body of <target>", except "/status/<code>"
// with that status (and "?retry-after=<value>" as that header, "date" a
// date in 2037), "/big..." with one byte more than a service answer may
// have, and "/held" not until releaseHeld(). "/early..." sends an interim
// 103 answer first; "/close..." ends its body by closing the connection;
// "/trickle" sends 1201 bytes, 100 every 250 ms; "/silent" sends 100 of 101
// and the last one on releaseHeld(). "/gzip-bomb..." is 64 MiB of zeros
// gzipped, unasked: as a transfer coding for a path ending in ".png", else
// as a content coding.
// An upgrade request to any path becomes a WebSocket the test pushes frames
// into; it answers pings.
class TestServer {
 public:
  TestServer(boost::asio::io_context& ioContext, const cabinsim::ServerIdentity& identity);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  std::uint16_t port() const;
  // TCP connections accepted, and the targets of the HTTP requests read, so far.
  int acceptCount() const;
  // Connections open now, and handshakes that resumed an earlier TLS session.
  int openCount() const;
  int resumedCount() const;
  const std::vector<std::string>& requestTargets() const;
  void releaseHeld();
  // Closes the idle keep-alive connections without a word, as a server does
  // when its keep-alive timeout runs out.
  void dropIdleConnections();

  // To every WebSocket: a frame, or a clean close.
  void send(const std::string& frame, bool binary = false);
  void closeWebSockets(const std::string& reason = {}, std::uint16_t code = 1000);
  // Every WebSocket stops reading and writing, pongs included, with its
  // connection left open: a link that silently stopped carrying anything.
  void silenceWebSockets();

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qel::core::net::testing
