#include "TestDnsServer.h"

#include <qel/RunLoop.h>
#include <qel/core/net/Resolver.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace qel::core::net::testing {
namespace {

using namespace std::chrono_literals;

struct Answer {
  std::string error;
  std::vector<std::string> addresses;
};

class ResolverTests : public ::testing::Test {
 protected:
  static RunLoop& loop() { return RunLoop::current(); }

  Resolver::Options options() {
    Resolver::Options result;
    result.servers = dns_.address();
    result.queryTimeout = 500ms;
    return result;
  }
  // Starts a lookup whose answer lands in the returned slot.
  static std::shared_ptr<std::optional<Answer>> lookUp(Resolver& resolver, const std::string& host,
                                                       std::uint16_t port = 443) {
    auto slot = std::make_shared<std::optional<Answer>>();
    resolver.resolve(host, port, [slot](const std::string& error, Resolver::Endpoints endpoints) {
      Answer answer{error, {}};
      for (const auto& endpoint : endpoints) {
        answer.addresses.push_back(endpoint.address().to_string() + " " + std::to_string(endpoint.port()));
      }
      *slot = answer;
    });
    return slot;
  }

  TestDnsServer dns_{loop().context()};
};

TEST_F(ResolverTests, RefusesFixedHostEntriesOutsideCurlsSyntax) {
  for (const char* bad :
       {"cabin.test:443", "cabin.test:443:", ":443:10.0.0.1", "cabin.test:0:10.0.0.1", "cabin.test:70000:10.0.0.1",
        "cabin.test:44x:10.0.0.1", "cabin.test:443:cabin.local", "cabin.test:443:10.0.0.1,,10.0.0.2"}) {
    EXPECT_FALSE(Resolver::parseFixedHost(bad)) << bad;
  }
}

TEST_F(ResolverTests, AnswersFromLiteralsTheFixedTableOrTheNameServer) {
  dns_.add("cabin.test", {"127.0.0.2", "127.0.0.3", "::1"});
  dns_.add("fixed.test", {"127.0.0.9"});
  auto resolverOptions = options();
  resolverOptions.fixedHosts = {"+FIXED.test:443:127.0.0.5,[::1],::2", "not an entry"};
  Resolver resolver(loop().context(), resolverOptions);

  auto literal = lookUp(resolver, "[::1]", 8443);
  auto fixed = lookUp(resolver, "fixed.test");
  auto otherPort = lookUp(resolver, "fixed.test", 8443);
  auto named = lookUp(resolver, "cabin.test");
  auto unknown = lookUp(resolver, "nowhere.test");
  ASSERT_TRUE(loop().runUntil([&] { return *literal && *fixed && *otherPort && *named && *unknown; }, 10s));

  EXPECT_EQ((*literal)->addresses, std::vector<std::string>{"::1 8443"});
  EXPECT_EQ((*fixed)->addresses, (std::vector<std::string>{"127.0.0.5 443", "::1 443", "::2 443"}));
  // Another port is not in the table: the name server answers.
  EXPECT_EQ((*otherPort)->addresses, std::vector<std::string>{"127.0.0.9 8443"});
  // Both families, alternating, so a connect race reaches each soon.
  const auto& addresses = (*named)->addresses;
  ASSERT_EQ(addresses.size(), 3u);
  EXPECT_NE(addresses[0].find(':') < addresses[0].find(' '), addresses[1].find(':') < addresses[1].find(' '));
  EXPECT_NE((*unknown)->error.find("nowhere.test"), std::string::npos);
  EXPECT_TRUE((*unknown)->addresses.empty());
  EXPECT_EQ(std::count_if(dns_.questions().begin(), dns_.questions().end(),
                          [](const std::string& q) { return q.rfind("fixed.test ", 0) == 0; }),
            2);  // A and AAAA, for port 8443 only
}

TEST_F(ResolverTests, ASlowNameServerHoldsUpOnlyItsOwnLookupAndEndsAtOnceOnCancel) {
  dns_.add("slow.test", {"127.0.0.1"}, 8s);
  dns_.add("cabin.test", {"127.0.0.1"});
  auto slowOptions = options();
  slowOptions.queryTimeout = 200ms;
  Resolver slow(loop().context(), slowOptions);
  auto stuck = lookUp(slow, "slow.test");
  auto cancelled = lookUp(slow, "slow.test");

  // Another lookup, on its own resolver as the other channel has, and one on
  // the same resolver, both answer while the slow one waits.
  Resolver other(loop().context(), options());
  auto quick = lookUp(other, "cabin.test");
  auto sameResolver = lookUp(slow, "cabin.test");
  ASSERT_TRUE(loop().runUntil([&] { return *quick && *sameResolver; }, 5s));
  EXPECT_FALSE(*stuck);
  EXPECT_EQ((*quick)->addresses, std::vector<std::string>{"127.0.0.1 443"});

  slow.cancel();
  auto destroyed = std::make_unique<Resolver>(loop().context(), slowOptions);
  auto dropped = lookUp(*destroyed, "slow.test");
  loop().runFor(50ms);
  destroyed.reset();
  // Longer than the lookups' own give-up time: none of them ever calls back.
  loop().runFor(800ms);
  EXPECT_FALSE(*stuck);
  EXPECT_FALSE(*cancelled);
  EXPECT_FALSE(*dropped);
}

}  // namespace
}  // namespace qel::core::net::testing
