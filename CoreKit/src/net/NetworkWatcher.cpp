#include "qel/core/net/NetworkWatcher.h"

#include "qel/core/QELLogging.h"

#include <qel/RunLoop.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cerrno>
#include <cstring>

#if defined(__linux__)
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace qel::core::net {
namespace asio = boost::asio;

namespace {
constexpr std::string_view kDomain = qel::lastPathComponent(__FILE__);
}  // namespace

class NetworkWatcher::Socket : public std::enable_shared_from_this<Socket> {
 public:
  Socket(asio::io_context& context, int descriptor, std::function<void()> changed,
         std::chrono::steady_clock::duration settle)
      : descriptor_(context, descriptor), settleTimer_(context), changed_(std::move(changed)), settle_(settle) {}

  void waitForMessages() {
    descriptor_.async_wait(asio::posix::stream_descriptor::wait_read,
                           [weak = weak_from_this()](const boost::system::error_code& error) {
                             if (auto self = weak.lock()) self->onReadable(error);
                           });
  }

  void close() {
    closed_ = true;
    boost::system::error_code ignored;
    settleTimer_.cancel();
    descriptor_.close(ignored);
  }

 private:
  void onReadable(const boost::system::error_code& error) {
    if (error || closed_) return;
    if (readChanges()) settle();
    waitForMessages();
  }

  // Drains what the socket holds; whether any of it was a change.
  bool readChanges() {
    bool changed = false;
#if defined(__linux__)
    alignas(nlmsghdr) char buffer[16384];
    for (;;) {
      const ssize_t length = ::recv(descriptor_.native_handle(), buffer, sizeof buffer, MSG_DONTWAIT);
      if (length < 0) {
        // ENOBUFS: the kernel dropped messages it could not queue, which
        // only a burst of changes does.
        if (errno == ENOBUFS) changed = true;
        if (errno == EINTR || errno == ENOBUFS) continue;
        return changed;
      }
      if (length == 0) return changed;
      auto remaining = static_cast<unsigned>(length);
      for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, remaining);
           message = NLMSG_NEXT(message, remaining)) {
        switch (message->nlmsg_type) {
          case RTM_NEWLINK:
          case RTM_DELLINK:
          case RTM_NEWADDR:
          case RTM_DELADDR:
          case RTM_NEWROUTE:
          case RTM_DELROUTE:
            changed = true;
            break;
          default:
            break;
        }
      }
    }
#else
    return changed;
#endif
  }

  void settle() {
    if (settling_) return;
    settling_ = true;
    settleTimer_.expires_after(settle_);
    settleTimer_.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
      auto self = weak.lock();
      if (error || !self || self->closed_) return;
      self->settling_ = false;
      QELLogging::log("The network changed.", 3, kDomain);
      // The callback may destroy the watcher: it runs from a local copy.
      auto changed = self->changed_;
      changed();
    });
  }

  asio::posix::stream_descriptor descriptor_;
  asio::steady_timer settleTimer_;
  std::function<void()> changed_;
  std::chrono::steady_clock::duration settle_;
  bool settling_ = false;
  bool closed_ = false;
};

std::unique_ptr<NetworkWatcher> NetworkWatcher::create(std::function<void()> changed,
                                                       std::chrono::steady_clock::duration settle) {
#if defined(__linux__)
  const int descriptor = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  if (descriptor < 0) {
    QELLogging::log("Not watching the network: no rtnetlink socket (%s).", 2, kDomain, std::strerror(errno));
    return nullptr;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    QELLogging::log("Not watching the network: rtnetlink refused the subscription (%s).", 2, kDomain,
                    std::strerror(errno));
    ::close(descriptor);
    return nullptr;
  }
  auto socket = std::make_shared<Socket>(RunLoop::current().context(), descriptor, std::move(changed), settle);
  socket->waitForMessages();
  return std::unique_ptr<NetworkWatcher>(new NetworkWatcher(std::move(socket)));
#else
  (void)changed;
  (void)settle;
  QELLogging::log("Not watching the network: not supported on this system.", 2, kDomain);
  return nullptr;
#endif
}

NetworkWatcher::NetworkWatcher(std::shared_ptr<Socket> socket) : socket_(std::move(socket)) {}

NetworkWatcher::~NetworkWatcher() { socket_->close(); }

}  // namespace qel::core::net
