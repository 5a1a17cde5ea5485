// The map pictures: every test that compares two relies on the same scene
// drawing the same picture and each update drawing a new one. (That each is
// a PNG of the size asked for is checked where the server serves them.)
#include "cabinsim/Flight.h"
#include "cabinsim/MapRenderer.h"

#include <gtest/gtest.h>

namespace {

using cabinsim::Flight;

TEST(MapRenderer, SameSceneSamePictureNextUpdateDifferentPicture) {
  const cabinsim::MapRenderer renderer;
  Flight flight(Flight::defaultOrigin(), Flight::defaultDestination(), 0.35);
  const cabinsim::MapScene scene{flight.state(), flight.origin(), flight.destination(), 7};
  EXPECT_THROW(renderer.renderPng(scene, 0, 300), std::runtime_error);

  // A second renderer draws the same land: the map does not change between runs.
  const std::string first = renderer.renderPng(scene, 400, 300);
  EXPECT_EQ(cabinsim::MapRenderer().renderPng(scene, 400, 300), first);
  flight.advance(240);
  const cabinsim::MapScene next{flight.state(), flight.origin(), flight.destination(), 8};
  EXPECT_NE(renderer.renderPng(next, 400, 300), first);
}

}  // namespace
