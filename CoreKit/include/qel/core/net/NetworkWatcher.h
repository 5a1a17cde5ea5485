#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace qel::core::net {

// Tells when the device's network changed: a link went up or down, an
// address or a route came or went (Linux: an rtnetlink socket). A phone that
// joins the cabin Wi-Fi or roams to another access point sees exactly these,
// and a channel waiting out its backoff can try again at once instead.
//
// One change arrives as a burst of messages (the link, then its addresses,
// then the routes); the callback runs once per burst, `settle` after its
// first message, so that the attempt it prompts finds the network complete.
// A burst that overflows the socket's buffer still counts as a change.
//
// Threading: made, used and destroyed on one run loop thread; the callback
// runs there, never after the watcher is destroyed.
//
//   auto watcher = NetworkWatcher::create([&transport] { transport.networkChanged(); });
//   if (!watcher) { /* no rtnetlink here; logged */ }
class NetworkWatcher {
 public:
  static constexpr std::chrono::milliseconds kSettle{200};

  // Empty, with a log line, where the system offers no such socket.
  static std::unique_ptr<NetworkWatcher> create(std::function<void()> changed,
                                                std::chrono::steady_clock::duration settle = kSettle);
  NetworkWatcher(const NetworkWatcher&) = delete;
  NetworkWatcher& operator=(const NetworkWatcher&) = delete;
  ~NetworkWatcher();

 private:
  class Socket;
  explicit NetworkWatcher(std::shared_ptr<Socket> socket);
  std::shared_ptr<Socket> socket_;
};

}  // namespace qel::core::net
