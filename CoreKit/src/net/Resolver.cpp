#include "qel/core/net/Resolver.h"

#include "qel/core/QELLogging.h"

#include <qel/ThreadChecker.h>

#include <ares.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <map>
#include <mutex>

namespace qel::core::net {
namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

constexpr std::string_view kDomain = qel::lastPathComponent(__FILE__);

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
  });
}

// Alternates address families, each family in its own preference order, so
// that a connect race with one dead family still reaches the other soon.
Resolver::Endpoints interleaved(Resolver::Endpoints endpoints) {
  if (endpoints.empty()) return endpoints;
  const bool firstIsV6 = endpoints.front().address().is_v6();
  Resolver::Endpoints first, second, result;
  for (auto& endpoint : endpoints) (endpoint.address().is_v6() == firstIsV6 ? first : second).push_back(endpoint);
  for (std::size_t i = 0; i < std::max(first.size(), second.size()); ++i) {
    if (i < first.size()) result.push_back(first[i]);
    if (i < second.size()) result.push_back(second[i]);
  }
  return result;
}

}  // namespace

class Resolver::Impl : public std::enable_shared_from_this<Impl> {
 public:
  Impl(asio::io_context& ioContext, Options options) : ioContext_(ioContext), options_(std::move(options)) {
    for (const auto& entry : options_.fixedHosts) {
      if (auto fixed = parseFixedHost(entry)) {
        fixedHosts_.push_back(std::move(*fixed));
      } else {
        QELLogging::log("Ignoring the fixed host entry \"%s\": expected HOST:PORT:ADDRESS[,ADDRESS...].", 2, kDomain,
                        entry);
      }
    }
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() {
    // Pending lookups end here with ARES_EDESTRUCTION; their callbacks see
    // no owner any more and report nothing.
    if (channel_) ares_destroy(channel_);
    for (auto& [fd, watch] : watches_) release(*watch);
  }

  void resolve(const std::string& host, std::uint16_t port, Callback callback) {
    threadChecker_.check();
    const std::uint64_t id = ++lastId_;
    pending_.emplace(id, std::move(callback));
    if (auto address = addressLiteral(host)) return complete(id, {}, {tcp::endpoint(*address, port)});
    for (const auto& fixed : fixedHosts_) {
      if (fixed.port != port || !equalsIgnoringCase(fixed.host, host)) continue;
      Endpoints endpoints;
      for (const auto& address : fixed.addresses) endpoints.emplace_back(address, port);
      return complete(id, {}, std::move(endpoints));
    }
    std::string why;
    if (!channel_ && !openChannel(&why)) return complete(id, "cannot resolve " + host + ": " + why, {});

    ares_addrinfo_hints hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = ARES_AI_NUMERICSERV;
    auto* lookup = new Lookup{weak_from_this(), id, host, port};
    ares_getaddrinfo(channel_, host.c_str(), std::to_string(port).c_str(), &hints, &Impl::onAddrinfo, lookup);
    armTimer();
  }

  void cancel() {
    threadChecker_.check();
    pending_.clear();
    if (channel_) ares_cancel(channel_);
    armTimer();
  }

 private:
  struct Lookup {
    std::weak_ptr<Impl> owner;
    std::uint64_t id;
    std::string host;
    std::uint16_t port;
  };
  struct Watch {
    Watch(asio::io_context& ioContext, int fd, std::uint64_t generation)
        : descriptor(ioContext, fd), generation(generation) {}
    asio::posix::stream_descriptor descriptor;
    std::uint64_t generation;
    bool wantRead = false;
    bool wantWrite = false;
    bool reading = false;
    bool writing = false;
  };

  bool openChannel(std::string* why) {
    static std::once_flag once;
    std::call_once(once, [] { ares_library_init(ARES_LIB_INIT_ALL); });
    ares_options options{};
    options.sock_state_cb = &Impl::onSocketState;
    options.sock_state_cb_data = this;
    options.timeout = static_cast<int>(options_.queryTimeout.count());
    options.tries = options_.tries;
    const int mask = ARES_OPT_SOCK_STATE_CB | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES;
    if (const int status = ares_init_options(&channel_, &options, mask); status != ARES_SUCCESS) {
      channel_ = nullptr;
      *why = ares_strerror(status);
      return false;
    }
    if (options_.servers) {
      if (const int status = ares_set_servers_ports_csv(channel_, options_.servers->c_str()); status != ARES_SUCCESS) {
        *why = "unusable name servers \"" + QELLogging::escaped(*options_.servers) + "\": " + ares_strerror(status);
        ares_destroy(channel_);
        channel_ = nullptr;
        return false;
      }
    }
    return true;
  }

  // Results reach the caller from a fresh callout: c-ares calls us from
  // inside its own processing, where the caller must not destroy us.
  void complete(std::uint64_t id, std::string error, Endpoints endpoints) {
    asio::post(ioContext_, [weakSelf = weak_from_this(), id, error = std::move(error),
                            endpoints = interleaved(std::move(endpoints))]() mutable {
      auto self = weakSelf.lock();
      if (!self) return;
      auto found = self->pending_.find(id);
      if (found == self->pending_.end()) return;
      Callback callback = std::move(found->second);
      self->pending_.erase(found);
      callback(error, std::move(endpoints));
    });
  }

  static void onAddrinfo(void* argument, int status, int /*timeouts*/, ares_addrinfo* result) {
    std::unique_ptr<Lookup> lookup(static_cast<Lookup*>(argument));
    std::unique_ptr<ares_addrinfo, void (*)(ares_addrinfo*)> owned(result, &ares_freeaddrinfo);
    auto self = lookup->owner.lock();
    if (!self || status == ARES_ECANCELLED || status == ARES_EDESTRUCTION) return;
    if (status != ARES_SUCCESS) {
      return self->complete(lookup->id, "cannot resolve " + lookup->host + ": " + ares_strerror(status), {});
    }
    Endpoints endpoints;
    for (auto* node = result ? result->nodes : nullptr; node; node = node->ai_next) {
      if (node->ai_family == AF_INET && node->ai_addrlen >= sizeof(sockaddr_in)) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(node->ai_addr);
        asio::ip::address_v4::bytes_type bytes;
        std::memcpy(bytes.data(), &in->sin_addr, bytes.size());
        endpoints.emplace_back(asio::ip::address_v4(bytes), lookup->port);
      } else if (node->ai_family == AF_INET6 && node->ai_addrlen >= sizeof(sockaddr_in6)) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(node->ai_addr);
        asio::ip::address_v6::bytes_type bytes;
        std::memcpy(bytes.data(), &in6->sin6_addr, bytes.size());
        endpoints.emplace_back(asio::ip::address_v6(bytes, in6->sin6_scope_id), lookup->port);
      }
    }
    if (endpoints.empty()) return self->complete(lookup->id, "no address for " + lookup->host, {});
    self->complete(lookup->id, {}, std::move(endpoints));
  }

  static void onSocketState(void* data, ares_socket_t fd, int readable, int writable) {
    static_cast<Impl*>(data)->socketState(fd, readable != 0, writable != 0);
  }

  void socketState(int fd, bool readable, bool writable) {
    auto found = watches_.find(fd);
    if (!readable && !writable) {
      // c-ares closes the socket right after telling us; give it back first.
      if (found != watches_.end()) {
        release(*found->second);
        watches_.erase(found);
      }
      return;
    }
    if (found == watches_.end()) {
      found = watches_.emplace(fd, std::make_unique<Watch>(ioContext_, fd, ++lastGeneration_)).first;
    }
    found->second->wantRead = readable;
    found->second->wantWrite = writable;
    arm(fd, *found->second);
  }

  static void release(Watch& watch) {
    boost::system::error_code ignored;
    watch.descriptor.cancel(ignored);
    watch.descriptor.release();
  }

  void arm(int fd, Watch& watch) {
    const auto wait = [&](bool forRead) {
      bool& busy = forRead ? watch.reading : watch.writing;
      if (busy) return;
      busy = true;
      watch.descriptor.async_wait(
          forRead ? asio::posix::stream_descriptor::wait_read : asio::posix::stream_descriptor::wait_write,
          [weakSelf = weak_from_this(), fd, generation = watch.generation,
           forRead](const boost::system::error_code& error) {
            if (auto self = weakSelf.lock()) self->onReady(fd, generation, forRead, error);
          });
    };
    if (watch.wantRead) wait(true);
    if (watch.wantWrite) wait(false);
  }

  void onReady(int fd, std::uint64_t generation, bool forRead, const boost::system::error_code& error) {
    auto found = watches_.find(fd);
    if (found == watches_.end() || found->second->generation != generation) return;
    (forRead ? found->second->reading : found->second->writing) = false;
    if (error) return;
    ares_process_fd(channel_, forRead ? fd : ARES_SOCKET_BAD, forRead ? ARES_SOCKET_BAD : fd);
    // Processing may have closed this socket or opened others.
    found = watches_.find(fd);
    if (found != watches_.end() && found->second->generation == generation) arm(fd, *found->second);
    armTimer();
  }

  // c-ares keeps its own retry and timeout schedule; ask it when it next
  // needs to run.
  void armTimer() {
    if (!channel_) return;
    if (!timer_) timer_ = std::make_unique<asio::steady_timer>(ioContext_);
    timeval next{};
    const timeval* due = ares_timeout(channel_, nullptr, &next);
    // Nothing pending: no timer, so that an idle resolver keeps no loop awake.
    if (!due) {
      timer_->cancel();
      return;
    }
    timer_->expires_after(std::chrono::seconds(due->tv_sec) + std::chrono::microseconds(due->tv_usec));
    timer_->async_wait([weakSelf = weak_from_this()](const boost::system::error_code& error) {
      auto self = weakSelf.lock();
      if (error || !self || !self->channel_) return;
      ares_process_fd(self->channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
      self->armTimer();
    });
  }

  asio::io_context& ioContext_;
  Options options_;
  std::vector<FixedHost> fixedHosts_;
  ares_channel channel_ = nullptr;
  std::unique_ptr<asio::steady_timer> timer_;
  std::map<int, std::unique_ptr<Watch>> watches_;
  std::map<std::uint64_t, Callback> pending_;
  std::uint64_t lastId_ = 0;
  std::uint64_t lastGeneration_ = 0;
  qel::ThreadChecker threadChecker_;
};

Resolver::Resolver(asio::io_context& ioContext) : Resolver(ioContext, Options{}) {}

Resolver::Resolver(asio::io_context& ioContext, Options options)
    : impl_(std::make_shared<Impl>(ioContext, std::move(options))) {}

Resolver::~Resolver() = default;

void Resolver::resolve(const std::string& host, std::uint16_t port, Callback callback) {
  impl_->resolve(host, port, std::move(callback));
}

void Resolver::cancel() { impl_->cancel(); }

std::string_view Resolver::unbracketed(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') return host.substr(1, host.size() - 2);
  return host;
}

std::optional<asio::ip::address> Resolver::addressLiteral(std::string_view host) {
  if (const auto bare = unbracketed(host); bare.size() != host.size()) {
    boost::system::error_code error;
    const auto address = asio::ip::make_address_v6(std::string(bare), error);
    if (error) return std::nullopt;
    return asio::ip::address(address);
  }
  boost::system::error_code error;
  const auto address = asio::ip::make_address(std::string(host), error);
  if (error) return std::nullopt;
  return address;
}

std::optional<Resolver::FixedHost> Resolver::parseFixedHost(std::string_view entry) {
  // curl marks entries that override cached ones with a leading "+"; a table
  // here is never cached, so it means the same.
  if (!entry.empty() && entry.front() == '+') entry.remove_prefix(1);
  const auto firstColon = entry.find(':');
  if (firstColon == std::string_view::npos || firstColon == 0) return std::nullopt;
  const auto secondColon = entry.find(':', firstColon + 1);
  if (secondColon == std::string_view::npos) return std::nullopt;
  FixedHost fixed;
  fixed.host = std::string(entry.substr(0, firstColon));
  const auto portText = entry.substr(firstColon + 1, secondColon - firstColon - 1);
  unsigned port = 0;
  const auto [end, error] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
  if (error != std::errc() || end != portText.data() + portText.size() || port == 0 || port > 65535) {
    return std::nullopt;
  }
  fixed.port = static_cast<std::uint16_t>(port);
  std::string_view addresses = entry.substr(secondColon + 1);
  while (!addresses.empty()) {
    const auto comma = addresses.find(',');
    const auto address = addressLiteral(addresses.substr(0, comma));
    if (!address) return std::nullopt;
    fixed.addresses.push_back(*address);
    addresses = comma == std::string_view::npos ? std::string_view() : addresses.substr(comma + 1);
  }
  if (fixed.addresses.empty()) return std::nullopt;
  return fixed;
}

}  // namespace qel::core::net
