#include "cabinsim/MapRenderer.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>

namespace cabinsim {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Latitude degrees from the top to the bottom of every picture.
constexpr double kViewLatSpan = 30.0;
// The land is generated from a fixed seed: the map must look the same on
// every run and every machine, whatever --seed says about the faults.
constexpr std::uint32_t kLandSeed = 0x51a7e;

struct Rgb {
  double r, g, b;
};
constexpr Rgb kSea{0.050, 0.140, 0.270};
constexpr Rgb kShelf{0.090, 0.220, 0.390};
constexpr Rgb kCoast{0.560, 0.660, 0.520};
constexpr Rgb kLand{0.235, 0.330, 0.255};
constexpr Rgb kRouteFlown{0.980, 0.800, 0.300};
constexpr Rgb kPlane{1.000, 0.560, 0.180};

void setColor(cairo_t* cr, Rgb c, double alpha = 1.0) { cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha); }

using Land = std::vector<MapRenderer::LandShape>;

MapRenderer::LandShape makeBlob(std::mt19937& rng, GeoPoint centre, double radius) {
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  // A wobbly radius: a few low harmonics give the outline, higher ones with
  // small amplitude give it a ragged, coast-like edge.
  constexpr int kHarmonics = 30;
  double amplitude[kHarmonics];
  double phase[kHarmonics];
  for (int k = 0; k < kHarmonics; ++k) {
    amplitude[k] = (0.06 + 0.22 * unit(rng)) / std::pow(k + 1.0, 0.95);
    phase[k] = unit(rng) * 2 * kPi;
  }
  MapRenderer::LandShape shape;
  shape.centre = centre;
  constexpr int kVertices = 256;
  const double lonStretch = 1.0 / std::max(0.2, std::cos(centre.lat * kDeg));
  double maxR = 0;
  for (int i = 0; i < kVertices; ++i) {
    const double theta = 2 * kPi * i / kVertices;
    double r = 1.0;
    for (int k = 0; k < kHarmonics; ++k) {
      r += amplitude[k] * std::sin((k + 1) * theta + phase[k]);
    }
    r = radius * std::max(0.25, r);
    maxR = std::max(maxR, r);
    shape.offsets.push_back({r * std::sin(theta), r * std::cos(theta) * lonStretch});
  }
  shape.radiusDeg = maxR * lonStretch;
  return shape;
}

Land makeLand(const std::vector<GeoPoint>& anchors) {
  std::mt19937 rng(kLandSeed);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  Land land;
  auto addCluster = [&](GeoPoint centre, double size) {
    const int blobs = 2 + static_cast<int>(unit(rng) * 5);
    land.push_back(makeBlob(rng, centre, size));
    for (int i = 1; i < blobs; ++i) {
      const double angle = unit(rng) * 2 * kPi;
      const double distance = size * (0.6 + 0.8 * unit(rng));
      const GeoPoint c{std::clamp(centre.lat + distance * std::sin(angle), -80.0, 80.0),
                       geo::wrapLongitude(centre.lon + distance * std::cos(angle) /
                                                           std::max(0.2, std::cos(centre.lat * kDeg)))};
      land.push_back(makeBlob(rng, c, size * (0.35 + 0.5 * unit(rng))));
    }
  };
  // Continents and archipelagos spread over the globe; the area weighting
  // (uniform in sin(lat)) keeps the high latitudes from crowding.
  constexpr int kClusters = 70;
  for (int i = 0; i < kClusters; ++i) {
    const double lat = std::asin(-0.94 + 1.86 * unit(rng)) / kDeg;
    const double lon = -180 + 360 * unit(rng);
    const double size = unit(rng) < 0.25 ? 6 + 6 * unit(rng) : 1 + 3.5 * unit(rng);
    addCluster({lat, lon}, size);
  }
  // Airports sit on a coast: land just to one side of each.
  for (const GeoPoint& a : anchors) {
    addCluster({a.lat + 1.5, a.lon + 3.0}, 4.0);
  }
  return land;
}

// Equirectangular projection with its standard parallel at the view centre,
// so shapes near the aircraft keep their proportions.
struct Projection {
  double width, height;
  GeoPoint centre;
  double pxPerDegLat, pxPerDegLon;

  Projection(int w, int h, GeoPoint aircraft) : width(w), height(h) {
    pxPerDegLat = h / kViewLatSpan;
    centre.lat = std::clamp(aircraft.lat, -90 + kViewLatSpan / 2, 90 - kViewLatSpan / 2);
    centre.lon = aircraft.lon;
    pxPerDegLon = pxPerDegLat * std::max(0.2, std::cos(centre.lat * kDeg));
  }
  double x(double lon) const { return width / 2 + geo::wrapLongitude(lon - centre.lon) * pxPerDegLon; }
  double y(double lat) const { return height / 2 - (lat - centre.lat) * pxPerDegLat; }
  double lonSpan() const { return width / pxPerDegLon; }
};

double pickStep(double span, int maxLines) {
  for (double step : {1.0, 2.0, 5.0, 10.0, 15.0, 20.0, 30.0, 45.0, 60.0, 90.0}) {
    if (span / step <= maxLines) {
      return step;
    }
  }
  return 90.0;
}

std::string formatAngle(double value, char positive, char negative, int degreeWidth) {
  const char hemisphere = value >= 0 ? positive : negative;
  const double a = std::fabs(value);
  int degrees = static_cast<int>(a);
  int minutes = static_cast<int>(std::lround((a - degrees) * 60.0));
  if (minutes == 60) {
    ++degrees;
    minutes = 0;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%0*d\u00b0%02d'%c", degreeWidth, degrees, minutes, hemisphere);
  return text;
}

std::string graticuleLabel(double value, char positive, char negative) {
  char text[32];
  const long v = std::lround(value);
  if (v == 0) {
    std::snprintf(text, sizeof text, "0\u00b0");
  } else {
    std::snprintf(text, sizeof text, "%ld\u00b0%c", std::labs(v), v > 0 ? positive : negative);
  }
  return text;
}

std::string withThousands(long value) {
  std::string digits = std::to_string(std::labs(value));
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) {
      out += ',';
    }
    out += digits[i];
  }
  return value < 0 ? "-" + out : out;
}

void drawLand(cairo_t* cr, const Projection& p, const Land& land, double unit) {
  const double halfLon = p.lonSpan() / 2;
  std::vector<const MapRenderer::LandShape*> visible;
  for (const auto& shape : land) {
    const double dLon = std::fabs(geo::wrapLongitude(shape.centre.lon - p.centre.lon));
    const double dLat = std::fabs(shape.centre.lat - p.centre.lat);
    if (dLon <= halfLon + shape.radiusDeg && dLat <= kViewLatSpan / 2 + shape.radiusDeg) {
      visible.push_back(&shape);
    }
  }
  auto tracePath = [&](const MapRenderer::LandShape& shape) {
    const double cx = p.x(shape.centre.lon);
    const double cy = p.y(shape.centre.lat);
    bool first = true;
    for (const GeoPoint& o : shape.offsets) {
      const double x = cx + o.lon * p.pxPerDegLon;
      const double y = cy - o.lat * p.pxPerDegLat;
      if (first) {
        cairo_move_to(cr, x, y);
        first = false;
      } else {
        cairo_line_to(cr, x, y);
      }
    }
    cairo_close_path(cr);
  };
  cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
  // Shallow water, then the coastline, then the land on top: overlapping
  // blobs merge into one mass and only the outer edge of the coast stroke
  // stays visible.
  for (const auto* shape : visible) {
    tracePath(*shape);
  }
  setColor(cr, kShelf);
  cairo_set_line_width(cr, 9 * unit);
  cairo_stroke_preserve(cr);
  setColor(cr, kCoast);
  cairo_set_line_width(cr, 2.4 * unit);
  cairo_stroke_preserve(cr);
  setColor(cr, kLand);
  cairo_fill(cr);
}

void drawGraticule(cairo_t* cr, const Projection& p, double unit, double fontSize) {
  const double latStep = pickStep(kViewLatSpan, 7);
  const double lonStep = pickStep(p.lonSpan(), std::max(3, static_cast<int>(p.width / (110 * unit))));
  cairo_set_line_width(cr, std::max(1.0, unit));
  cairo_set_source_rgba(cr, 1, 1, 1, 0.16);
  const double latTop = p.centre.lat + kViewLatSpan / 2;
  const double latBottom = p.centre.lat - kViewLatSpan / 2;
  for (double lat = std::ceil(latBottom / latStep) * latStep; lat <= latTop; lat += latStep) {
    cairo_move_to(cr, 0, p.y(lat));
    cairo_line_to(cr, p.width, p.y(lat));
  }
  const double lonLeft = p.centre.lon - p.lonSpan() / 2;
  const double lonRight = p.centre.lon + p.lonSpan() / 2;
  for (double lon = std::ceil(lonLeft / lonStep) * lonStep; lon <= lonRight; lon += lonStep) {
    cairo_move_to(cr, p.x(lon), 0);
    cairo_line_to(cr, p.x(lon), p.height);
  }
  cairo_stroke(cr);

  cairo_set_font_size(cr, fontSize * 0.8);
  cairo_set_source_rgba(cr, 1, 1, 1, 0.72);
  cairo_text_extents_t ext;
  for (double lat = std::ceil(latBottom / latStep) * latStep; lat <= latTop; lat += latStep) {
    const std::string label = graticuleLabel(lat, 'N', 'S');
    cairo_text_extents(cr, label.c_str(), &ext);
    cairo_move_to(cr, 4 * unit, p.y(lat) - 3 * unit);
    cairo_show_text(cr, label.c_str());
  }
  for (double lon = std::ceil(lonLeft / lonStep) * lonStep; lon <= lonRight; lon += lonStep) {
    const std::string label = graticuleLabel(geo::wrapLongitude(lon), 'E', 'W');
    cairo_move_to(cr, p.x(lon) + 3 * unit, fontSize * 0.8 + 4 * unit);
    cairo_show_text(cr, label.c_str());
  }
}

// Strokes the great circle from `from` to `to` (fractions of the route) as a
// polyline; broken where it leaves one side of the picture for the other.
void traceRoute(cairo_t* cr, const Projection& p, const MapScene& s, double from, double to) {
  constexpr int kSamples = 240;
  double lastX = 0;
  for (int i = 0; i <= kSamples; ++i) {
    const double f = from + (to - from) * i / kSamples;
    const GeoPoint g = geo::interpolate(s.origin.position, s.destination.position, f);
    const double x = p.x(g.lon);
    const double y = p.y(g.lat);
    if (i == 0 || std::fabs(x - lastX) > p.width / 2) {
      cairo_move_to(cr, x, y);
    } else {
      cairo_line_to(cr, x, y);
    }
    lastX = x;
  }
}

void drawRoute(cairo_t* cr, const Projection& p, const MapScene& s, double unit, double fontSize) {
  cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
  // Still to fly: dashed white.
  traceRoute(cr, p, s, s.flight.progress, 1.0);
  const double dashes[] = {7 * unit, 6 * unit};
  cairo_set_dash(cr, dashes, 2, 0);
  cairo_set_line_width(cr, 2.2 * unit);
  cairo_set_source_rgba(cr, 1, 1, 1, 0.85);
  cairo_stroke(cr);
  cairo_set_dash(cr, nullptr, 0, 0);
  // Already flown: solid.
  traceRoute(cr, p, s, 0.0, s.flight.progress);
  cairo_set_line_width(cr, 3.2 * unit);
  setColor(cr, kRouteFlown);
  cairo_stroke(cr);

  cairo_set_font_size(cr, fontSize * 0.9);
  for (const Airport* a : {&s.origin, &s.destination}) {
    const double x = p.x(a->position.lon);
    const double y = p.y(a->position.lat);
    cairo_arc(cr, x, y, 5 * unit, 0, 2 * kPi);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_fill_preserve(cr);
    cairo_set_line_width(cr, 2 * unit);
    setColor(cr, kSea);
    cairo_stroke(cr);
    const std::string label = a->code + "  " + a->city;
    cairo_move_to(cr, x + 9 * unit, y - 8 * unit);
    cairo_text_path(cr, label.c_str());
    cairo_set_line_width(cr, 3 * unit);
    setColor(cr, kSea, 0.9);
    cairo_stroke_preserve(cr);
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_fill(cr);
  }
}

void drawAircraft(cairo_t* cr, const Projection& p, const MapScene& s, double unit) {
  const double x = p.x(s.flight.position.lon);
  const double y = p.y(s.flight.position.lat);
  // The heading on the picture: project a point a little further along.
  const double course = s.flight.headingDeg * kDeg;
  const double screenAngle = std::atan2(std::sin(course) * p.pxPerDegLon, std::cos(course) * p.pxPerDegLat);
  cairo_save(cr);
  cairo_translate(cr, x, y);
  cairo_rotate(cr, screenAngle);
  cairo_scale(cr, 1.35 * unit, 1.35 * unit);
  // Nose up (towards negative y), about 28 units long.
  static const double kOutline[][2] = {
      {0, -14}, {2, -11}, {2, -4}, {13, 3}, {13, 6}, {2, 2}, {2, 9}, {6, 12}, {6, 14}, {0, 12},
      {-6, 14}, {-6, 12}, {-2, 9}, {-2, 2}, {-13, 6}, {-13, 3}, {-2, -4}, {-2, -11}};
  for (std::size_t i = 0; i < std::size(kOutline); ++i) {
    (i == 0 ? cairo_move_to : cairo_line_to)(cr, kOutline[i][0], kOutline[i][1]);
  }
  cairo_close_path(cr);
  cairo_restore(cr);
  cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
  cairo_set_line_width(cr, 3 * unit);
  cairo_set_source_rgba(cr, 0, 0, 0, 0.55);
  cairo_stroke_preserve(cr);
  setColor(cr, kPlane);
  cairo_fill(cr);
}

void roundedRect(cairo_t* cr, double x, double y, double w, double h, double r) {
  cairo_new_sub_path(cr);
  cairo_arc(cr, x + w - r, y + r, r, -kPi / 2, 0);
  cairo_arc(cr, x + w - r, y + h - r, r, 0, kPi / 2);
  cairo_arc(cr, x + r, y + h - r, r, kPi / 2, kPi);
  cairo_arc(cr, x + r, y + r, r, kPi, 3 * kPi / 2);
  cairo_close_path(cr);
}

void drawInfoBox(cairo_t* cr, const Projection& p, const MapScene& s, double unit, double fontSize) {
  const FlightState& f = s.flight;
  const long minutes = std::lround(f.secondsToDestination / 60.0);
  char eta[32];
  std::snprintf(eta, sizeof eta, "%ld h %02ld min", minutes / 60, minutes % 60);
  const std::string title = s.origin.code + " \u2192 " + s.destination.code;
  const std::pair<std::string, std::string> rows[] = {
      {"Position", formatAngle(f.position.lat, 'N', 'S', 2) + "  " + formatAngle(f.position.lon, 'E', 'W', 3)},
      {"Altitude", withThousands(std::lround(f.altitudeFt / 10.0) * 10) + " ft"},
      {"Ground speed", std::to_string(std::lround(f.groundSpeedKt)) + " kt"},
      {"To destination", std::string(eta)},
  };

  const double pad = fontSize * 0.7;
  const double lineHeight = fontSize * 1.35;
  cairo_text_extents_t ext;
  cairo_set_font_size(cr, fontSize);
  double labelWidth = 0;
  double valueWidth = 0;
  for (const auto& [label, value] : rows) {
    cairo_text_extents(cr, label.c_str(), &ext);
    labelWidth = std::max(labelWidth, ext.x_advance);
    cairo_text_extents(cr, value.c_str(), &ext);
    valueWidth = std::max(valueWidth, ext.x_advance);
  }
  const double gap = fontSize;
  const double boxW = pad * 2 + labelWidth + gap + valueWidth;
  const double boxH = pad * 2 + lineHeight * (std::size(rows) + 1);
  // Bottom right: the latitude labels run down the left edge.
  const double boxX = p.width - boxW - 10 * unit;
  const double boxY = p.height - boxH - 10 * unit;

  roundedRect(cr, boxX, boxY, boxW, boxH, 6 * unit);
  cairo_set_source_rgba(cr, 0.02, 0.06, 0.13, 0.82);
  cairo_fill_preserve(cr);
  cairo_set_line_width(cr, std::max(1.0, unit));
  cairo_set_source_rgba(cr, 1, 1, 1, 0.25);
  cairo_stroke(cr);

  double baseline = boxY + pad + fontSize;
  cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
  setColor(cr, kRouteFlown);
  cairo_move_to(cr, boxX + pad, baseline);
  cairo_show_text(cr, title.c_str());
  cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  for (const auto& [label, value] : rows) {
    baseline += lineHeight;
    cairo_set_source_rgba(cr, 1, 1, 1, 0.62);
    cairo_move_to(cr, boxX + pad, baseline);
    cairo_show_text(cr, label.c_str());
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_move_to(cr, boxX + pad + labelWidth + gap, baseline);
    cairo_show_text(cr, value.c_str());
  }

  // The update number in a corner, so pictures of different pushes can be
  // told apart at a glance.
  const std::string sequence = "update " + std::to_string(s.sequence);
  cairo_set_font_size(cr, fontSize * 0.75);
  cairo_text_extents(cr, sequence.c_str(), &ext);
  cairo_set_source_rgba(cr, 1, 1, 1, 0.55);
  cairo_move_to(cr, boxX + boxW - ext.x_advance, boxY - 6 * unit);
  cairo_show_text(cr, sequence.c_str());
}

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CABINSIM_LEAK_CHECKED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define CABINSIM_LEAK_CHECKED 1
#endif

// Cairo and fontconfig keep font caches for the life of the process. Under
// the leak checker, hand them back at exit so that only our own leaks show.
void releaseFontCachesAtExit() {
#ifdef CABINSIM_LEAK_CHECKED
  static std::once_flag once;
  std::call_once(once, [] {
    std::atexit([] {
      cairo_debug_reset_static_data();
      FcFini();
    });
  });
#endif
}

cairo_status_t appendToString(void* closure, const unsigned char* data, unsigned int length) {
  static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
  return CAIRO_STATUS_SUCCESS;
}

}  // namespace

MapRenderer::MapRenderer()
    : land_(makeLand({Flight::defaultOrigin().position, Flight::defaultDestination().position})) {
  releaseFontCachesAtExit();
}

std::string MapRenderer::renderPng(const MapScene& scene, int width, int height) const {
  if (width <= 0 || height <= 0 || width > 8192 || height > 8192) {
    throw std::runtime_error("map size out of range: " + std::to_string(width) + "x" + std::to_string(height));
  }
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
      cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height), &cairo_surface_destroy);
  std::unique_ptr<cairo_t, decltype(&cairo_destroy)> context(cairo_create(surface.get()), &cairo_destroy);
  cairo_t* cr = context.get();
  if (cairo_status(cr) != CAIRO_STATUS_SUCCESS) {
    throw std::runtime_error(std::string("cairo: ") + cairo_status_to_string(cairo_status(cr)));
  }

  // Line widths and text follow the picture's height, with a floor so the
  // smallest pictures stay legible.
  const double unit = std::max(0.55, height / 768.0);
  const double fontSize = std::clamp(height / 40.0, 9.0, 24.0);
  const Projection projection(width, height, scene.flight.position);

  setColor(cr, kSea);
  cairo_paint(cr);
  drawLand(cr, projection, land_, unit);
  cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
  drawGraticule(cr, projection, unit, fontSize);
  drawRoute(cr, projection, scene, unit, fontSize);
  drawAircraft(cr, projection, scene, unit);
  drawInfoBox(cr, projection, scene, unit, fontSize);

  cairo_surface_flush(surface.get());
  std::string png;
  const cairo_status_t status = cairo_surface_write_to_png_stream(surface.get(), &appendToString, &png);
  if (status != CAIRO_STATUS_SUCCESS) {
    throw std::runtime_error(std::string("cairo PNG: ") + cairo_status_to_string(status));
  }
  return png;
}

}  // namespace cabinsim
