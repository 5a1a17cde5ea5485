// How service URLs are composed, and a free of the shared map data
// controller too many. The controller otherwise (its owners, the record it
// keeps from REST answers, pushed updates, failures and malformed input, its
// request queue) is checked against the reference model (ModelTest.cpp); its
// log lines, the service URL's among them, against the golden file.

#include "MapsTestSupport.h"

#include "BroadcastMaps/Controller/_QELBroadcastMapsController.h"
#include "BroadcastMaps/Requests/_QELHostname.h"

namespace qel::testing {
namespace {

using MapDataRequestTest = MapsTest;

// Engines own and free the shared controller in pairs; a free too many must
// not leave the count below zero, where the next owner would create nothing.
TEST_F(MapDataRequestTest, AFreeTooManyIsIgnored) {
  internal::QELBroadcastMapsController::own();
  internal::QELBroadcastMapsController::free();
  internal::QELBroadcastMapsController::free();
  EXPECT_EQ(internal::QELBroadcastMapsController::ownersCount(), 0);
}

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
