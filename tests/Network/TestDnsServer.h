#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qel::core::net::testing {
namespace asio = boost::asio;

// A name server on 127.0.0.1 and a free UDP port, run by the test's loop.
// It answers A and AAAA questions for the names it was given, after that
// name's delay; other names do not exist.
class TestDnsServer {
 public:
  explicit TestDnsServer(boost::asio::io_context& ioContext) : state_(std::make_shared<State>(ioContext)) {
    state_->receive();
  }
  ~TestDnsServer() {
    boost::system::error_code ignored;
    state_->socket.close(ignored);
    for (auto& timer : state_->timers) timer->cancel();
  }
  TestDnsServer(const TestDnsServer&) = delete;
  TestDnsServer& operator=(const TestDnsServer&) = delete;

  void add(const std::string& name, const std::vector<std::string>& addresses, std::chrono::milliseconds delay = {}) {
    auto& entry = state_->names[name];
    entry.delay = delay;
    for (const auto& address : addresses) entry.addresses.push_back(asio::ip::make_address(address));
  }
  // "127.0.0.1:PORT", as the resolver takes it.
  std::string address() const { return "127.0.0.1:" + std::to_string(state_->socket.local_endpoint().port()); }
  // Questions received so far, as "NAME TYPE".
  const std::vector<std::string>& questions() const { return state_->questions; }

 private:
  // Shared with the pending receive and the delayed answers, which may outlive the server.
  struct State : std::enable_shared_from_this<State> {
    using udp = asio::ip::udp;
    static constexpr std::uint16_t kTypeA = 1, kTypeAAAA = 28;
    explicit State(asio::io_context& ioContext)
        : socket(ioContext, udp::endpoint(asio::ip::make_address("127.0.0.1"), 0)) {}

    void receive() {
      socket.async_receive_from(asio::buffer(query), peer, [self = shared_from_this()](auto error, std::size_t size) {
        if (error) return;
        self->answer(std::vector<std::uint8_t>(self->query.begin(), self->query.begin() + size), self->peer);
        self->receive();
      });
    }

    static std::vector<std::uint8_t> bytesOf(const auto& address) {
      const auto bytes = address.to_bytes();
      return {bytes.begin(), bytes.end()};
    }

    void answer(std::vector<std::uint8_t> message, udp::endpoint to) {
      // Header, then one question: labels up to a zero byte, type, class.
      std::size_t at = 12;
      std::string name;
      while (at < message.size() && message[at] != 0) {
        const std::size_t length = message[at];
        if (!name.empty()) name += '.';
        for (std::size_t i = 1; i <= length && at + i < message.size(); ++i) {
          name += static_cast<char>(std::tolower(message[at + i]));
        }
        at += length + 1;
      }
      if (at + 5 > message.size()) return;
      const std::uint16_t type = static_cast<std::uint16_t>(message[at + 1] << 8 | message[at + 2]);
      message.resize(at + 5);
      questions.push_back(name + (type == kTypeA ? " A" : type == kTypeAAAA ? " AAAA" : " ?"));

      const auto entry = names.find(name);
      std::uint16_t count = 0;
      if (entry != names.end()) {
        for (const auto& address : entry->second.addresses) {
          if (type != (address.is_v4() ? kTypeA : kTypeAAAA)) continue;
          const auto data = address.is_v4() ? bytesOf(address.to_v4()) : bytesOf(address.to_v6());
          // A pointer to the question's name, type, class IN, TTL 60 s, data.
          const std::uint8_t record[] = {0xc0, 12, 0, static_cast<std::uint8_t>(type),       0, 1, 0, 0,
                                         0,    60, 0, static_cast<std::uint8_t>(data.size())};
          message.insert(message.end(), std::begin(record), std::end(record));
          message.insert(message.end(), data.begin(), data.end());
          ++count;
        }
      }
      message[2] = 0x81;                                // a response, recursion desired
      message[3] = entry == names.end() ? 0x83 : 0x80;  // recursion available; no such name
      message[6] = static_cast<std::uint8_t>(count >> 8);
      message[7] = static_cast<std::uint8_t>(count);
      std::fill(message.begin() + 8, message.begin() + 12, 0);

      auto reply = std::make_shared<std::vector<std::uint8_t>>(std::move(message));
      const auto delay = entry == names.end() ? std::chrono::milliseconds() : entry->second.delay;
      auto timer = std::make_shared<asio::steady_timer>(socket.get_executor(), delay);
      timer->async_wait([self = shared_from_this(), reply, to, timer](auto error) {
        if (!error) self->socket.send_to(asio::buffer(*reply), to, 0, error);
      });
      timers.push_back(timer);
    }

    struct Name {
      std::vector<asio::ip::address> addresses;
      std::chrono::milliseconds delay;
    };
    udp::socket socket;
    udp::endpoint peer;
    std::array<std::uint8_t, 512> query{};
    std::map<std::string, Name> names;
    std::vector<std::string> questions;
    std::vector<std::shared_ptr<asio::steady_timer>> timers;
  };

  std::shared_ptr<State> state_;
};

}  // namespace qel::core::net::testing
