#include "qel/Format.h"
#include "qel/URL.h"

#include "TestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cfenv>
#include <cmath>
#include <cstdint>
#include <limits>

namespace qel {
namespace {

using testing::MatchesRegex;

TEST(PlatformFormat, DescribesJSONValuesAsThePlatformPrintsThem) {
  const std::pair<boost::json::value, const char*> cases[] = {
      {42, "42"}, {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"}, {800.0, "800"},
      {1024.5, "1024.5"}, {0.1, "0.1"}, {-0.25, "-0.25"}, {1e20, "1e+20"}, {"text with %@", "text with %@"},
      {true, "1"}, {false, "0"}, {nullptr, "<null>"},
      {boost::json::parse(R"({"k": [1, "a", null]})"), R"({"k":[1,"a",null]})"}};
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(describe(value), expected) << boost::json::serialize(value);
  }
  EXPECT_EQ(describe(nullptr), "(null)");
}

TEST(PlatformFormat, FloatValueReadsNumbersAndLeadingDecimals) {
  const std::pair<boost::json::value, float> cases[] = {
      {0.1, 0.1f},  // rounded to single precision
      {"12.5px", 12.5f}, {"  -3e2x", -300.0f}, {"7e", 7.0f}, {"abc", 0.0f}, {"0x10", 0.0f}, {true, 1.0f},
      {nullptr, 0.0f}, {boost::json::array{1}, 0.0f},
      {std::numeric_limits<std::uint64_t>::max(), 0x1p64f},  // any integer is within float's range
      {std::numeric_limits<std::int64_t>::min(), -0x1p63f}};
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(floatValue(&value), expected) << boost::json::serialize(value);
  }
  EXPECT_EQ(floatValue(nullptr), 0.0f);

  // Numbers beyond float's range, as a server may send them: converted as
  // round-to-nearest converts them, whatever rounding mode the application
  // left in force (a plain cast would be undefined, and on this hardware
  // follows the mode).
  constexpr float kInf = std::numeric_limits<float>::infinity();
  constexpr float kLargest = std::numeric_limits<float>::max();
  constexpr double kHalfway = 0x1.ffffffp127;  // between the largest float and 2^128
  const std::pair<boost::json::value, float> beyond[] = {
      {boost::json::parse("1e39"), kInf}, {boost::json::parse("-1e39"), -kInf},
      {boost::json::parse("1e400"), kInf},  // the parser's own overflow
      {std::numeric_limits<double>::max(), kInf}, {kHalfway, kInf}, {std::nextafter(kHalfway, 0.0), kLargest},
      {-3.4028235e38, -kLargest}, {"1e39", kInf}, {"-1e39px", -kInf}};
  const int mode = std::fegetround();
  for (const int rounding : {FE_TONEAREST, FE_TOWARDZERO, FE_DOWNWARD}) {
    std::fesetround(rounding);
    for (const auto& [value, expected] : beyond) {
      const float read = floatValue(&value);
      EXPECT_EQ(read, expected) << boost::json::serialize(value) << " in rounding mode " << rounding;
    }
  }
  std::fesetround(mode);
}

TEST(PlatformFormat, StringWithFormatHandlesTheConversionsAndMismatches) {
  const boost::json::value number = 800.0;
  const boost::json::value integer = 12;
  const std::optional<std::string> none;
  EXPECT_EQ(stringWithFormat("%@|%s|%d|%i|%ld|%lu|%u|%f|%%", number, "s", 1, -2, 3L, 4UL, 5u, 1.5),
            "800|s|1|-2|3|4|5|1.500000|%");
  EXPECT_EQ(stringWithFormat("%d %s %@", "text", none, integer), "text (null) 12");
  EXPECT_EQ(stringWithFormat("%d and %@", integer), "12 and (null)");
  EXPECT_EQ(stringWithFormat("%d", 2.5), "2.5");
  EXPECT_EQ(stringWithFormat("%k %d %", 3), "%k 3 %");
  EXPECT_EQ(stringWithFormat("[%5d] [%-3s] [%.2f]", 42, "a", 2.0), "[   42] [a  ] [2.00]");

  // Objects describe themselves by type and address.
  auto thing = test::thing();
  EXPECT_THAT(stringWithFormat("%@", thing), MatchesRegex("<qel::test::Thing: 0x[0-9a-f]+>"));
  EXPECT_EQ(stringWithFormat("%@", std::shared_ptr<test::Thing>()), "(null)");
}

TEST(PlatformURL, EscapesWhatEachPartDoesNotAllowAndUnescapesOnlyValidUTF8) {
  URLComponents components;
  components.setScheme("https");
  components.setHost("cabin.local");
  components.setPath("/maps/a b?#%.png");
  EXPECT_EQ(components.string(), "https://cabin.local/maps/a%20b%3F%23%25.png");
  EXPECT_EQ(removingPercentEncoding(components.string()), "https://cabin.local/maps/a b?#%.png");

  components.setPort(8443);
  EXPECT_EQ(components.string(), "https://cabin.local:8443/maps/a%20b%3F%23%25.png");

  // Behind a host a path is kept as given: nothing is put in front of "/" or "//".
  for (const char* path : {"/", "//b", "/./c"}) {
    components.setPath(path);
    EXPECT_EQ(components.string(), std::string("https://cabin.local:8443") + path);
  }

  // Removing the escapes refuses malformed ones and bad UTF-8.
  EXPECT_EQ(removingPercentEncoding("caf%C3%A9+x"), "café+x");
  for (const char* bad : {"%", "a%2", "%zz", "%FF", "%C3", "%C0%AF", "%ED%A0%80", "%F4%90%80%80"}) {
    EXPECT_EQ(removingPercentEncoding(bad), std::nullopt) << bad;
  }
}

}  // namespace
}  // namespace qel
