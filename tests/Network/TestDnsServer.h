#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qel::core::net::testing {

// A name server on 127.0.0.1 and a free UDP port, run by the test's loop.
// It answers A and AAAA questions for the names it was given, after that
// name's delay; other names do not exist.
//
//   TestDnsServer dns(loop.context());
//   dns.add("cabin.test", {"127.0.0.1", "::1"});
//   dns.add("slow.test", {"127.0.0.1"}, std::chrono::seconds(8));
//   options.servers = dns.address();
class TestDnsServer {
 public:
  explicit TestDnsServer(boost::asio::io_context& ioContext);
  ~TestDnsServer();
  TestDnsServer(const TestDnsServer&) = delete;
  TestDnsServer& operator=(const TestDnsServer&) = delete;

  void add(const std::string& name, const std::vector<std::string>& addresses, std::chrono::milliseconds delay = {});
  // "127.0.0.1:PORT", as the resolver takes it.
  std::string address() const;
  // Questions received so far, as "NAME TYPE".
  const std::vector<std::string>& questions() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace qel::core::net::testing
