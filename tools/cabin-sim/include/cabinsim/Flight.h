#pragma once

#include <string>

namespace cabinsim {

struct GeoPoint {
  double lat = 0;  // degrees, north positive
  double lon = 0;  // degrees, east positive
};

struct Airport {
  std::string code;
  std::string city;
  GeoPoint position;
};

// Great-circle helpers on a spherical Earth (radius in nautical miles).
namespace geo {
constexpr double kEarthRadiusNm = 3440.065;
// Central angle between two points, in radians.
double centralAngle(GeoPoint a, GeoPoint b);
double distanceNm(GeoPoint a, GeoPoint b);
// The point at `fraction` (0..1) of the way along the great circle from a to b.
GeoPoint interpolate(GeoPoint a, GeoPoint b, double fraction);
// Initial true course from a towards b, degrees in [0, 360).
double initialBearing(GeoPoint a, GeoPoint b);
// Longitude difference folded into [-180, 180).
double wrapLongitude(double lon);
}  // namespace geo

// What the moving map shows at one instant.
struct FlightState {
  GeoPoint position;
  double headingDeg = 0;       // true course over ground
  double altitudeFt = 0;
  double groundSpeedKt = 0;
  double progress = 0;         // 0 at the origin, 1 at the destination
  double distanceFlownNm = 0;
  double distanceToGoNm = 0;
  double secondsToDestination = 0;
};

// A deterministic flight back and forth between two airports along the great
// circle, with a simple climb / cruise / descent profile. Simulated time only
// moves when advance() is called, so the same calls always give the same
// states.
//
// Threading: not thread-safe; owned by the server's loop.
//
//   cabinsim::Flight flight(cabinsim::Flight::defaultOrigin(), cabinsim::Flight::defaultDestination());
//   flight.advance(240);               // four simulated minutes
//   auto state = flight.state();
class Flight {
 public:
  // `startProgress` places the aircraft part-way along the route, so a short
  // demo starts in cruise rather than on the ground.
  Flight(Airport origin, Airport destination, double startProgress = 0.0);

  static Airport defaultOrigin();
  static Airport defaultDestination();

  // Moves the simulated clock forward by `seconds`. At the destination the
  // aircraft turns round after a short stop and flies the route back.
  void advance(double seconds);

  FlightState state() const;
  const Airport& origin() const { return origin_; }
  const Airport& destination() const { return destination_; }
  double routeLengthNm() const { return routeLengthNm_; }

 private:
  double speedAt(double distanceFlownNm) const;
  double altitudeAt(double distanceFlownNm) const;

  Airport origin_;
  Airport destination_;
  double routeLengthNm_ = 0;
  double flownNm_ = 0;
  double groundTimeLeft_ = 0;  // seconds still parked after arrival
};

}  // namespace cabinsim
