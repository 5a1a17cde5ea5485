#include <qel/core/net/UrlPolicy.h>

#include <gtest/gtest.h>

namespace qel::core::net {
namespace {

QELConfiguration cabin(std::string host, std::uint16_t port) {
  QELConfiguration configuration;
  configuration.host = std::move(host);
  configuration.port = port;
  return configuration;
}

TEST(UrlPolicyTests, ImageSourcesResolveAgainstTheCabinServerWithItsPort) {
  const UrlPolicy policy;
  const auto configuration = cabin("cabin.local", 8443);

  auto path = policy.resolveImageSource("/maps/800x600/7.png?v=2", configuration);
  ASSERT_TRUE(path.endpoint) << path.refusal;
  EXPECT_TRUE(path.endpoint->tls);
  EXPECT_EQ(path.endpoint->host, "cabin.local");
  EXPECT_EQ(path.endpoint->port, 8443);
  EXPECT_EQ(path.endpoint->target, "/maps/800x600/7.png?v=2");
  EXPECT_EQ(path.endpoint->hostHeader, "cabin.local:8443");

  // Same host in other letters, no port: the configured one.
  auto absolute = policy.resolveImageSource("https://CABIN.local/maps/a.png#frag", configuration);
  ASSERT_TRUE(absolute.endpoint) << absolute.refusal;
  EXPECT_EQ(absolute.endpoint->port, 8443);
  EXPECT_EQ(absolute.endpoint->target, "/maps/a.png");

  auto explicitPort = policy.resolveImageSource("https://cabin.local:443/x", configuration);
  ASSERT_TRUE(explicitPort.endpoint);
  EXPECT_EQ(explicitPort.endpoint->port, 443);
  EXPECT_EQ(explicitPort.endpoint->hostHeader, "cabin.local");

  auto ipv6 = policy.resolveImageSource("/m.png", cabin("::1", 9000));
  ASSERT_TRUE(ipv6.endpoint) << ipv6.refusal;
  EXPECT_EQ(ipv6.endpoint->host, "::1");
  EXPECT_EQ(ipv6.endpoint->hostHeader, "[::1]:9000");
}

TEST(UrlPolicyTests, ImageSourcesElsewhereAreRefusedNamingTheURL) {
  const UrlPolicy policy;
  const auto configuration = cabin("cabin.local", 443);
  for (const char* source : {"https://attacker.example/maps/a.png", "http://cabin.local/maps/a.png",
                             "//attacker.example/a.png", "ftp://cabin.local/a.png", "maps/a.png",
                             "https://user@cabin.local/a.png", "https://cabin.local:99999/a.png"}) {
    const auto decision = policy.resolveImageSource(source, configuration);
    EXPECT_FALSE(decision.endpoint) << source;
    EXPECT_NE(decision.refusal.find(source), std::string::npos) << decision.refusal;
  }
  EXPECT_FALSE(policy.resolveImageSource("/maps/a.png", QELConfiguration{}).endpoint);

  const UrlPolicy open(UrlPolicy::Options{true, true});
  EXPECT_TRUE(open.resolveImageSource("http://other.example/a.png", configuration).endpoint);
}

TEST(UrlPolicyTests, ServiceURLsTakeTheConfiguredPortAndEitherScheme) {
  const UrlPolicy policy;
  auto rest = policy.resolveServiceURL("https://cabin.local/skelion/services/maps/v1/flight_map",
                                       cabin("cabin.local", 8443));
  ASSERT_TRUE(rest.endpoint);
  EXPECT_EQ(rest.endpoint->port, 8443);
  EXPECT_EQ(rest.endpoint->target, "/skelion/services/maps/v1/flight_map");

  auto plain = policy.resolveServiceURL("http://cabin.local:8080/s", cabin("cabin.local", 8443));
  ASSERT_TRUE(plain.endpoint);
  EXPECT_FALSE(plain.endpoint->tls);
  EXPECT_EQ(plain.endpoint->port, 8080);

  // What the framework composes when no host is configured.
  EXPECT_FALSE(policy.resolveServiceURL("https:/skelion/services/maps/v1/flight_map", {}).endpoint);
}

}  // namespace
}  // namespace qel::core::net
