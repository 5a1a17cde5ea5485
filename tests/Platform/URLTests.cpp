#include "qel/URL.h"

#include <gtest/gtest.h>

namespace qel {
namespace {

TEST(PlatformURL, ComposesSchemeHostPortAndPath) {
  URLComponents components;
  components.setScheme("https");
  components.setHost("h");
  components.setPath("/skelion/services/maps/v1/flight_map");
  EXPECT_EQ(components.string(), "https://h/skelion/services/maps/v1/flight_map");

  components.setPort(8443);
  EXPECT_EQ(components.string(), "https://h:8443/skelion/services/maps/v1/flight_map");
  components.setPort(std::nullopt);
  components.setHost(std::nullopt);
  EXPECT_EQ(components.string(), "https:/skelion/services/maps/v1/flight_map");
}

TEST(PlatformURL, EscapesWhatEachPartDoesNotAllowAndDecodesItBack) {
  URLComponents components;
  components.setScheme("https");
  components.setHost("cabin.local");
  components.setPath("/maps/a b?#%.png");
  const std::string text = components.string();
  EXPECT_EQ(text, "https://cabin.local/maps/a%20b%3F%23%25.png");
  EXPECT_EQ(removingPercentEncoding(text), "https://cabin.local/maps/a b?#%.png");
}

TEST(PlatformURL, RemovingPercentEncodingRefusesMalformedEscapesAndBadUTF8) {
  EXPECT_EQ(removingPercentEncoding("caf%C3%A9+x"), "café+x");
  EXPECT_EQ(removingPercentEncoding(""), "");
  for (const char* bad : {"%", "a%2", "%zz", "%FF", "%C3", "%C0%AF", "%ED%A0%80", "%F4%90%80%80"}) {
    EXPECT_EQ(removingPercentEncoding(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace qel
