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

// Where a URL goes, as "<url> Host: <header>", or "refused" when the refusal
// names the URL, as the log line it becomes must.
std::string where(const UrlPolicy::Decision& decision, const std::string& url) {
  if (decision.endpoint) return decision.endpoint->url() + " Host: " + decision.endpoint->hostHeader;
  return decision.refusal.find(url) != std::string::npos ? "refused" : "refused: " + decision.refusal;
}

TEST(UrlPolicyTests, ImageSourcesComeOnlyFromTheCabinServerOverHttps) {
  const UrlPolicy policy;
  const std::pair<std::string, std::string> cases[] = {
      {"/maps/800x600/7.png?v=2", "https://cabin.local:8443/maps/800x600/7.png?v=2 Host: cabin.local:8443"},
      {"https://CABIN.local/maps/a.png#frag", "https://cabin.local:8443/maps/a.png Host: cabin.local:8443"},
      {"https://cabin.local:8443/x", "https://cabin.local:8443/x Host: cabin.local:8443"},
      // Another port or scheme on the cabin host is another origin.
      {"https://cabin.local:443/x", "refused"},
      {"http://cabin.local:8443/x", "refused"},
      {"https://attacker.example/maps/a.png", "refused"},
      {"//attacker.example/a.png", "refused"},
      {"ftp://cabin.local/a.png", "refused"},
      {"maps/a.png", "refused"},
      {"https://user@cabin.local/a.png", "refused"},
      {"https://cabin.local:99999/a.png", "refused"},
  };
  for (const auto& [source, expected] : cases) {
    EXPECT_EQ(where(policy.resolveImageSource(source, cabin("cabin.local", 8443)), source), expected);
  }
  for (const char* ipv6 : {"::1", "[::1]"}) {
    EXPECT_EQ(where(policy.resolveImageSource("/m.png", cabin(ipv6, 9000)), "/m.png"),
              "https://[::1]:9000/m.png Host: [::1]:9000");
    EXPECT_EQ(where(policy.resolveImageSource("https://[::1]:9000/m.png", cabin(ipv6, 9000)), "/m.png"),
              "https://[::1]:9000/m.png Host: [::1]:9000");
  }
  EXPECT_FALSE(policy.resolveImageSource("/maps/a.png", QELConfiguration{}).endpoint);

  // The refusal becomes a log line: a URL from the server cannot break it.
  for (const char* hostile : {"https://attacker.example/a.png\n1 Forged.cpp ok", "/a\r\n1 Forged.cpp ok"}) {
    const auto refusal = policy.resolveImageSource(hostile, cabin("cabin.local", 8443)).refusal;
    EXPECT_EQ(refusal.find_first_of("\r\n"), std::string::npos) << refusal;
    EXPECT_NE(refusal.find("\\n1 Forged.cpp ok"), std::string::npos) << refusal;
  }
}

TEST(UrlPolicyTests, ServiceURLsTakeTheConfiguredPortAndEitherScheme) {
  const UrlPolicy policy;
  const std::pair<std::string, std::string> cases[] = {
      {"https://cabin.local/skelion/services/maps/v1/flight_map",
       "https://cabin.local:8443/skelion/services/maps/v1/flight_map Host: cabin.local:8443"},
      {"http://cabin.local:8080/s", "http://cabin.local:8080/s Host: cabin.local:8080"},
  };
  for (const auto& [url, expected] : cases) {
    EXPECT_EQ(where(policy.resolveServiceURL(url, cabin("cabin.local", 8443)), url), expected);
  }
  // What the framework composes when no host is configured.
  EXPECT_FALSE(policy.resolveServiceURL("https:/skelion/services/maps/v1/flight_map", {}).endpoint);
}

}  // namespace
}  // namespace qel::core::net
