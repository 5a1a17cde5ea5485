#include "cabinsim/Flight.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace cabinsim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Profile of the simulated aircraft.
constexpr double kCruiseAltitudeFt = 37000;
constexpr double kCruiseSpeedKt = 485;
constexpr double kTakeoffSpeedKt = 160;
constexpr double kApproachSpeedKt = 140;
constexpr double kClimbDistanceNm = 150;
constexpr double kDescentDistanceNm = 120;
constexpr double kTurnaroundSeconds = 600;
// Integration step: small enough that the speed changes little within one.
constexpr double kStepSeconds = 5;

struct Vec3 {
  double x, y, z;
};

Vec3 toVector(GeoPoint p) {
  const double lat = p.lat * kDeg;
  const double lon = p.lon * kDeg;
  return {std::cos(lat) * std::cos(lon), std::cos(lat) * std::sin(lon), std::sin(lat)};
}

GeoPoint toPoint(Vec3 v) {
  const double horizontal = std::hypot(v.x, v.y);
  return {std::atan2(v.z, horizontal) / kDeg, std::atan2(v.y, v.x) / kDeg};
}

double smoothstep(double t) {
  t = std::clamp(t, 0.0, 1.0);
  return t * t * (3 - 2 * t);
}

}  // namespace

namespace geo {

double centralAngle(GeoPoint a, GeoPoint b) {
  // Haversine: well conditioned for short and long distances alike.
  const double dLat = (b.lat - a.lat) * kDeg;
  const double dLon = (b.lon - a.lon) * kDeg;
  const double h = std::sin(dLat / 2) * std::sin(dLat / 2) +
                   std::cos(a.lat * kDeg) * std::cos(b.lat * kDeg) * std::sin(dLon / 2) * std::sin(dLon / 2);
  return 2 * std::asin(std::min(1.0, std::sqrt(h)));
}

double distanceNm(GeoPoint a, GeoPoint b) { return centralAngle(a, b) * kEarthRadiusNm; }

GeoPoint interpolate(GeoPoint a, GeoPoint b, double fraction) {
  const double omega = centralAngle(a, b);
  if (omega < 1e-12) {
    return a;
  }
  const Vec3 va = toVector(a);
  const Vec3 vb = toVector(b);
  const double s = std::sin(omega);
  const double wa = std::sin((1 - fraction) * omega) / s;
  const double wb = std::sin(fraction * omega) / s;
  return toPoint({wa * va.x + wb * vb.x, wa * va.y + wb * vb.y, wa * va.z + wb * vb.z});
}

double initialBearing(GeoPoint a, GeoPoint b) {
  const double lat1 = a.lat * kDeg;
  const double lat2 = b.lat * kDeg;
  const double dLon = (b.lon - a.lon) * kDeg;
  const double y = std::sin(dLon) * std::cos(lat2);
  const double x = std::cos(lat1) * std::sin(lat2) - std::sin(lat1) * std::cos(lat2) * std::cos(dLon);
  double bearing = std::atan2(y, x) / kDeg;
  if (bearing < 0) {
    bearing += 360;
  }
  return bearing;
}

double wrapLongitude(double lon) {
  lon = std::fmod(lon + 180.0, 360.0);
  if (lon < 0) {
    lon += 360.0;
  }
  return lon - 180.0;
}

}  // namespace geo

Flight::Flight(Airport origin, Airport destination, double startProgress)
    : origin_(std::move(origin)), destination_(std::move(destination)) {
  routeLengthNm_ = geo::distanceNm(origin_.position, destination_.position);
  flownNm_ = std::clamp(startProgress, 0.0, 1.0) * routeLengthNm_;
}

Airport Flight::defaultOrigin() { return {"FRA", "Frankfurt", {50.0333, 8.5706}}; }

Airport Flight::defaultDestination() { return {"JFK", "New York", {40.6413, -73.7781}}; }

double Flight::speedAt(double flown) const {
  const double toGo = routeLengthNm_ - flown;
  const double climb = kTakeoffSpeedKt + (kCruiseSpeedKt - kTakeoffSpeedKt) * smoothstep(flown / kClimbDistanceNm);
  const double descent =
      kApproachSpeedKt + (kCruiseSpeedKt - kApproachSpeedKt) * smoothstep(toGo / kDescentDistanceNm);
  return std::min(climb, descent);
}

double Flight::altitudeAt(double flown) const {
  const double toGo = routeLengthNm_ - flown;
  return kCruiseAltitudeFt *
         std::min(smoothstep(flown / kClimbDistanceNm), smoothstep(toGo / kDescentDistanceNm));
}

void Flight::advance(double seconds) {
  while (seconds > 0) {
    const double dt = std::min(seconds, kStepSeconds);
    seconds -= dt;
    if (groundTimeLeft_ > 0) {
      groundTimeLeft_ -= dt;
      if (groundTimeLeft_ <= 0) {
        std::swap(origin_, destination_);
        flownNm_ = 0;
        groundTimeLeft_ = 0;
      }
      continue;
    }
    flownNm_ += speedAt(flownNm_) * dt / 3600.0;
    if (flownNm_ >= routeLengthNm_) {
      flownNm_ = routeLengthNm_;
      groundTimeLeft_ = kTurnaroundSeconds;
    }
  }
}

FlightState Flight::state() const {
  FlightState s;
  s.distanceFlownNm = flownNm_;
  s.distanceToGoNm = std::max(0.0, routeLengthNm_ - flownNm_);
  s.progress = routeLengthNm_ > 0 ? flownNm_ / routeLengthNm_ : 1.0;
  s.position = geo::interpolate(origin_.position, destination_.position, s.progress);
  const bool parked = groundTimeLeft_ > 0 || s.distanceToGoNm <= 0;
  if (parked) {
    // Keep pointing along the last leg of the route.
    const GeoPoint before = geo::interpolate(origin_.position, destination_.position, 0.999);
    s.headingDeg = geo::initialBearing(before, destination_.position);
    s.altitudeFt = 0;
    s.groundSpeedKt = 0;
    s.secondsToDestination = 0;
    return s;
  }
  s.headingDeg = geo::initialBearing(s.position, destination_.position);
  s.altitudeFt = altitudeAt(flownNm_);
  s.groundSpeedKt = speedAt(flownNm_);
  // Time still to fly under the same speed profile (midpoint rule).
  constexpr int kSlices = 64;
  const double slice = s.distanceToGoNm / kSlices;
  double hours = 0;
  for (int i = 0; i < kSlices; ++i) {
    hours += slice / speedAt(flownNm_ + (i + 0.5) * slice);
  }
  s.secondsToDestination = hours * 3600.0;
  return s;
}

}  // namespace cabinsim
