// The command line other tools and the demo scripts use. (What goes over the
// wire is shown by the end-to-end tests, which run the client against it.)
#include "cabinsim/CommandLine.h"

#include <gtest/gtest.h>

namespace {

std::optional<cabinsim::CommandLine> parse(std::vector<std::string> args) {
  std::string error;
  auto line = cabinsim::parseCommandLine(args, error);
  if (!line) {
    EXPECT_FALSE(error.empty());
  }
  return line;
}

TEST(CommandLine, EveryFlagInBothSpellings) {
  const auto line = parse({"--host", "localhost", "--port=8443", "--ca-out", "/tmp/ca.pem", "--interval", "0.2",
                           "--resolutions=640x480,320x240", "--fail-rest", "2", "--fail-rest-rate=0.25", "--fail-rest-for=7.5",
                           "--drop-events-every", "1.5", "--malformed-events-every", "3", "--fail-images=4",
                           "--fail-images-rate", "0.5", "--delay-images", "250", "--non-image-body",
                           "--image-host", "https://elsewhere.example:9443", "--seed", "7"});
  ASSERT_TRUE(line);
  const auto& o = line->options;
  EXPECT_EQ(o.host, "localhost");
  EXPECT_EQ(o.port, 8443);
  EXPECT_EQ(o.caOut, "/tmp/ca.pem");
  EXPECT_DOUBLE_EQ(o.intervalSeconds, 0.2);
  EXPECT_EQ(o.resolutions, (std::vector<cabinsim::Resolution>{{640, 480}, {320, 240}}));
  EXPECT_EQ(o.faults.failRest, 2);
  EXPECT_DOUBLE_EQ(o.faults.failRestRate, 0.25);
  EXPECT_DOUBLE_EQ(o.faults.failRestForSeconds, 7.5);
  EXPECT_DOUBLE_EQ(o.faults.dropEventsEverySeconds, 1.5);
  EXPECT_EQ(o.faults.malformedEventsEvery, 3);
  EXPECT_EQ(o.faults.failImages, 4);
  EXPECT_DOUBLE_EQ(o.faults.failImagesRate, 0.5);
  EXPECT_EQ(o.faults.delayImagesMs, 250);
  EXPECT_TRUE(o.faults.nonImageBody);
  EXPECT_EQ(o.faults.imageHost, "https://elsewhere.example:9443");
  EXPECT_EQ(o.seed, 7u);

  // Without flags it binds loopback on a free port.
  EXPECT_EQ(parse({})->options.host, "127.0.0.1");
  EXPECT_EQ(parse({})->options.port, 0);

  EXPECT_TRUE(parse({"--help"})->help);
  EXPECT_NE(cabinsim::usageText().find("--malformed-events-every"), std::string::npos);
}

TEST(CommandLine, RejectsWhatItCannotHonour) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--bogus"},
           {"--port"},
           {"--port", "65536"},
           {"--interval", "0"},
           {"--interval", "fast"},
           {"--resolutions", "1024x768,"},
           {"--resolutions", "1024by768"},
           {"--resolutions", "800x600,800x600"},
           {"--fail-rest-rate", "1.5"},
           {"--fail-images", "-1"},
           {"--non-image-body=yes"},
           {"--cert", "server.pem"},
       }) {
    SCOPED_TRACE(args.front());
    EXPECT_FALSE(parse(args));
  }
}

}  // namespace
