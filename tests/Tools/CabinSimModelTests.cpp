// The flight model and the map pictures.
#include "cabinsim/Flight.h"
#include "cabinsim/MapRenderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numbers>

namespace {

using cabinsim::Flight;
using cabinsim::GeoPoint;
namespace geo = cabinsim::geo;

constexpr double kTolerance = 1e-6;

TEST(GreatCircle, InterpolationHitsBothEndsAndTheMiddle) {
  const GeoPoint a{0, 0};
  const GeoPoint b{0, 90};
  const GeoPoint start = geo::interpolate(a, b, 0.0);
  const GeoPoint end = geo::interpolate(a, b, 1.0);
  const GeoPoint middle = geo::interpolate(a, b, 0.5);
  EXPECT_NEAR(start.lat, 0, kTolerance);
  EXPECT_NEAR(start.lon, 0, kTolerance);
  EXPECT_NEAR(end.lat, 0, kTolerance);
  EXPECT_NEAR(end.lon, 90, kTolerance);
  EXPECT_NEAR(middle.lat, 0, kTolerance);
  EXPECT_NEAR(middle.lon, 45, kTolerance);
  EXPECT_NEAR(geo::distanceNm(a, b), geo::kEarthRadiusNm * std::numbers::pi / 2, 1e-6);
}

TEST(GreatCircle, MidpointOfALongRouteLiesOnTheGreatCircleNotTheRhumbLine) {
  const GeoPoint fra = Flight::defaultOrigin().position;
  const GeoPoint jfk = Flight::defaultDestination().position;
  const GeoPoint middle = geo::interpolate(fra, jfk, 0.5);
  const double total = geo::distanceNm(fra, jfk);
  EXPECT_NEAR(geo::distanceNm(fra, middle), total / 2, 1e-6);
  EXPECT_NEAR(geo::distanceNm(middle, jfk), total / 2, 1e-6);
  // A great circle between two northern mid-latitude points bulges towards
  // the pole; averaging the coordinates would not.
  EXPECT_GT(middle.lat, fra.lat + 2);
  EXPECT_NEAR(total, 3343, 15);  // the published great-circle distance, give or take the spherical model
}

TEST(GreatCircle, CrossesTheAntimeridianTheShortWay) {
  const GeoPoint middle = geo::interpolate({10, 170}, {10, -170}, 0.5);
  EXPECT_NEAR(std::fabs(middle.lon), 180, 1e-6);
  EXPECT_NEAR(geo::wrapLongitude(190), -170, kTolerance);
  EXPECT_NEAR(geo::wrapLongitude(-190), 170, kTolerance);
}

TEST(GreatCircle, InitialBearing) {
  EXPECT_NEAR(geo::initialBearing({0, 0}, {0, 90}), 90, kTolerance);
  EXPECT_NEAR(geo::initialBearing({0, 0}, {10, 0}), 0, kTolerance);
  EXPECT_NEAR(geo::initialBearing({0, 0}, {0, -90}), 270, kTolerance);
  // Westbound across the Atlantic the course starts north of west.
  const double course =
      geo::initialBearing(Flight::defaultOrigin().position, Flight::defaultDestination().position);
  EXPECT_GT(course, 270);
  EXPECT_LT(course, 320);
}

TEST(Flight, CruisesArrivesTurnsRoundAndFliesBack) {
  Flight flight(Flight::defaultOrigin(), Flight::defaultDestination(), 0.5);
  const auto cruise = flight.state();
  EXPECT_NEAR(cruise.altitudeFt, 37000, 1);
  EXPECT_NEAR(cruise.groundSpeedKt, 485, 1);
  // Mostly cruise left, a slower approach at the end.
  const double cruiseOnlyHours = cruise.distanceToGoNm / 485.0;
  EXPECT_GT(cruise.secondsToDestination, cruiseOnlyHours * 3600);
  EXPECT_LT(cruise.secondsToDestination, cruiseOnlyHours * 3600 * 1.1);

  // Flying for the predicted time brings it to the gate.
  flight.advance(cruise.secondsToDestination + 60);
  const auto arrived = flight.state();
  EXPECT_NEAR(arrived.progress, 1.0, 1e-9);
  EXPECT_EQ(arrived.groundSpeedKt, 0);
  EXPECT_EQ(arrived.altitudeFt, 0);
  EXPECT_EQ(arrived.secondsToDestination, 0);
  EXPECT_NEAR(arrived.position.lat, Flight::defaultDestination().position.lat, 1e-6);

  flight.advance(3600);
  EXPECT_EQ(flight.origin().code, "JFK");
  EXPECT_EQ(flight.destination().code, "FRA");
  const auto back = flight.state();
  EXPECT_GT(back.progress, 0);
  EXPECT_LT(back.progress, 0.5);
  EXPECT_GT(back.altitudeFt, 0);
}

std::uint32_t bigEndian(const std::string& bytes, std::size_t at) {
  return (static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at])) << 24) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 16) |
         (static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 2])) << 8) |
         static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 3]));
}

TEST(MapRenderer, RendersAPngOfEachRequestedSize) {
  const cabinsim::MapRenderer renderer;
  Flight flight(Flight::defaultOrigin(), Flight::defaultDestination(), 0.35);
  const cabinsim::MapScene scene{flight.state(), flight.origin(), flight.destination(), 7};
  for (const auto& [w, h] : {std::pair{1024, 768}, {800, 600}, {400, 300}, {333, 777}}) {
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    const std::string png = renderer.renderPng(scene, w, h);
    ASSERT_GT(png.size(), 33u);
    EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    EXPECT_EQ(png.substr(12, 4), "IHDR");
    EXPECT_EQ(bigEndian(png, 16), static_cast<std::uint32_t>(w));
    EXPECT_EQ(bigEndian(png, 20), static_cast<std::uint32_t>(h));
  }
  EXPECT_THROW(renderer.renderPng(scene, 0, 300), std::runtime_error);
}

TEST(MapRenderer, SameSceneSamePictureNextUpdateDifferentPicture) {
  const cabinsim::MapRenderer renderer;
  Flight flight(Flight::defaultOrigin(), Flight::defaultDestination(), 0.35);
  const cabinsim::MapScene scene{flight.state(), flight.origin(), flight.destination(), 7};
  const std::string first = renderer.renderPng(scene, 400, 300);
  EXPECT_EQ(renderer.renderPng(scene, 400, 300), first);
  // A second renderer draws the same land: the map does not change between runs.
  EXPECT_EQ(cabinsim::MapRenderer().renderPng(scene, 400, 300), first);

  flight.advance(240);
  const cabinsim::MapScene next{flight.state(), flight.origin(), flight.destination(), 8};
  EXPECT_NE(renderer.renderPng(next, 400, 300), first);
}

}  // namespace
