// The command line other tools and the demo scripts use. (What goes over the
// wire is shown by the end-to-end tests, which run the client against it.)
#include "cabinsim/CommandLine.h"

#include <gtest/gtest.h>

#include <tuple>

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
  const auto& f = o.faults;
  EXPECT_EQ(std::tie(o.host, o.port, o.caOut, o.intervalSeconds, o.seed),
            std::make_tuple(std::string("localhost"), std::uint16_t{8443}, std::string("/tmp/ca.pem"), 0.2,
                            std::uint64_t{7}));
  EXPECT_EQ(o.resolutions, (std::vector<cabinsim::Resolution>{{640, 480}, {320, 240}}));
  EXPECT_EQ(std::tie(f.failRest, f.failRestRate, f.failRestForSeconds, f.dropEventsEverySeconds,
                     f.malformedEventsEvery, f.failImages, f.failImagesRate, f.delayImagesMs, f.nonImageBody),
            std::make_tuple(2, 0.25, 7.5, 1.5, 3, 4, 0.5, 250, true));
  EXPECT_EQ(f.imageHost, "https://elsewhere.example:9443");

  // Without flags it binds loopback on a free port.
  EXPECT_EQ(parse({})->options.host, "127.0.0.1");
  EXPECT_EQ(parse({})->options.port, 0);

  EXPECT_TRUE(parse({"--help"})->help);
  EXPECT_NE(cabinsim::usageText().find("--malformed-events-every"), std::string::npos);
}

TEST(CommandLine, RejectsWhatItCannotHonour) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--bogus"}, {"--port"}, {"--port", "65536"}, {"--interval", "0"}, {"--interval", "fast"},
           {"--resolutions", "1024x768,"}, {"--resolutions", "1024by768"}, {"--resolutions", "800x600,800x600"},
           {"--fail-rest-rate", "1.5"}, {"--fail-images", "-1"}, {"--non-image-body=yes"}, {"--cert", "server.pem"}
       }) {
    SCOPED_TRACE(args.front());
    EXPECT_FALSE(parse(args));
  }
}

}  // namespace
