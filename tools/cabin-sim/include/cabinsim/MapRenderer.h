#pragma once

#include "cabinsim/Flight.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cabinsim {

// What one picture shows.
struct MapScene {
  FlightState flight;
  Airport origin;
  Airport destination;
  std::uint64_t sequence = 0;
};

// Draws the moving map with Cairo and encodes it as PNG in memory: sea,
// procedural coastline-like land (the same every run), a graticule with
// labels, the great-circle route, the aircraft and a box with its position,
// altitude, ground speed and time to destination. The view is centred on the
// aircraft and covers the same area at every size; text and lines scale with
// the picture.
//
// Threading: render() is const and touches no shared state; one renderer may
// be used from one thread at a time.
//
//   cabinsim::MapRenderer renderer;
//   std::string png = renderer.renderPng(scene, 1024, 768);
class MapRenderer {
 public:
  MapRenderer();
  MapRenderer(const MapRenderer&) = delete;
  MapRenderer& operator=(const MapRenderer&) = delete;

  // Throws std::runtime_error when Cairo fails (for example an absurd size).
  std::string renderPng(const MapScene& scene, int width, int height) const;

  // One land mass outline: vertices in degrees.
  struct LandShape {
    GeoPoint centre;
    double radiusDeg = 0;  // bounding radius (latitude degrees), for culling
    std::vector<GeoPoint> offsets;  // (dLat, dLon) from the centre
  };

 private:
  std::vector<LandShape> land_;
};

}  // namespace cabinsim
