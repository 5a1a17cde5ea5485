// How service URLs are composed. The shared map data controller (its owners,
// the record it keeps from REST answers, pushed updates, failures and
// malformed input, its request queue) is checked against the reference model
// (ModelTest.cpp); its log lines, the service URL's among them, against the
// golden file.

#include "MapsTestSupport.h"

#include "BroadcastMaps/Requests/_QELHostname.h"

namespace qel::testing {
namespace {

using MapDataRequestTest = MapsTest;

TEST_F(MapDataRequestTest, JoinsPathsWithTheSlashTheyLack) {
  const std::optional<std::string> host = "h";
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "/a/", "b"), "https://h/a/b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "a", "/b"), "https://h/a/b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "/a/", "/b"), "https://h/a//b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "/", "/b"), "https://h//b") << "doubled slashes are kept as they are";
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "", ""), "https://h/");
  EXPECT_EQ(internal::QELGetURLWithHost(host, false, "a", "b"), "http://h/a/b");
  EXPECT_EQ(internal::QELGetURLWithHost(host, true, "a b", "c%d"), "https://h/a b/c%d")
      << "escapes the composition adds are removed again";
  EXPECT_EQ(internal::QELGetURLWithHost(std::nullopt, true, "a", "b"), "https:/a/b");
  for (const char* ipv6 : {"::1", "[::1]"})
    EXPECT_EQ(internal::QELGetURLWithHost(ipv6, true, "a", "b"), "https://[::1]/a/b");
}

}  // namespace
}  // namespace qel::testing
