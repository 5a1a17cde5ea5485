#pragma once

#include <qel/ThreadChecker.h>

#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>
#include <unordered_map>

namespace qel::core::net {

// libcurl's multi interface driven by one io_context: curl tells us which
// sockets to watch and when to wake it, the io_context waits for those, and
// curl_multi_socket_action does the work. So every transfer, and every
// callback about it, runs on the thread that runs the io_context; nothing of
// curl's runs anywhere else except its resolver threads.
//
// One multi handle per io_context (it is a service of it): transfers to the
// same server share its connection cache, and a TLS session cache lives as
// long as the loop. Idle connections are closed once no transfer has run for
// `maximumIdle`, so a quiet loop holds no sockets. When the io_context goes
// away, transfers still running are dropped without a word.
//
// Threading: the thread that runs the io_context (checked in debug builds).
//
//   auto& multi = CurlMulti::of(ioContext);
//   multi.add(easy, [](CURLcode result) { ... });  // later, on the loop
//   multi.remove(easy);                            // never calls back
class CurlMulti : public boost::asio::execution_context::service {
 public:
  using Done = std::function<void(CURLcode)>;

  struct Limits {
    std::chrono::steady_clock::duration maximumIdle = std::chrono::seconds(30);
    long maximumConnections = 8;
  };

  static boost::asio::execution_context::id id;

  explicit CurlMulti(boost::asio::execution_context& context);
  CurlMulti(const CurlMulti&) = delete;
  CurlMulti& operator=(const CurlMulti&) = delete;
  ~CurlMulti() override;

  static CurlMulti& of(boost::asio::io_context& ioContext);

  // Applies to connections kept from now on.
  void setLimits(const Limits& limits);

  // Starts `easy` (owned by the caller, who keeps it until `done` ran or it
  // was removed). `done` runs on the loop, never from within add(). The
  // share handle for TLS sessions is set here. False when curl refused it.
  bool add(CURL* easy, Done done);
  // Stops `easy` if it is running; its `done` never runs. Safe from within
  // any `done`.
  void remove(CURL* easy);

  // Expires when the multi handle goes with its io_context.
  std::weak_ptr<void> lifetime() const { return lifetime_; }
  // Keeps `owner` alive until release(), or until the loop goes: for what
  // waits on something other than a transfer (a name lookup) and must not
  // outlive the loop by holding itself.
  void hold(std::shared_ptr<void> owner);
  void release(const void* owner);
  std::size_t runningCount() const { return running_.size(); }
  // Closes every connection that no transfer uses (all of them: it is only
  // done with no transfer running).
  void closeIdleConnections();

  // For the closesocket callback of each easy handle.
  static int closeSocket(void* self, curl_socket_t socket);

 private:
  struct Watch;

  void shutdown() override;
  void createMulti();
  void destroyMulti();
  std::vector<std::shared_ptr<void>> held_;

  static int onSocket(CURL* easy, curl_socket_t socket, int what, void* self, void* socketData);
  static int onTimer(CURLM* multi, long timeoutMs, void* self);
  void arm(const std::shared_ptr<Watch>& watch);
  void onReady(const std::shared_ptr<Watch>& watch, int direction);
  void onTimeout();
  void act(curl_socket_t socket, int events);
  void forget(curl_socket_t socket);
  void finishDone();
  void scheduleIdleClose();

  boost::asio::io_context& ioContext_;
  ThreadChecker threadChecker_;
  Limits limits_;
  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  boost::asio::steady_timer timer_;
  boost::asio::steady_timer idleTimer_;
  std::unordered_map<curl_socket_t, std::shared_ptr<Watch>> watches_;
  // A transfer is its handle and a serial number: a handle freed and another
  // made at its address within one pass is a different transfer, and the
  // completion collected for the old one must not reach it.
  struct Running {
    std::uint64_t serial;
    Done done;
  };
  std::map<CURL*, Running> running_;
  std::uint64_t nextSerial_ = 0;
  std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
};

}  // namespace qel::core::net
