// The image path: a 1024x768 map picture decoded through Image::fromData as
// PNG and as JPEG, against libspng and TurboJPEG called directly; and the
// equality check the engine makes before announcing a new picture.

#include <qel/GccWarnings.h>
#include <qel/Image.h>
#include <qel/RunLoop.h>
#include <qel/core/TransportMonitor.h>

#include "Host/_QELBroadcastMapsHostStats.h"

#ifdef QEL_BENCH_HAVE_MAP_RENDERER
#include <cabinsim/Flight.h>
#include <cabinsim/MapRenderer.h>
#endif

#include <benchmark/benchmark.h>
#include <spng.h>
#include <turbojpeg.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int kWidth = 1024;
constexpr int kHeight = 768;

using Bytes = std::vector<std::uint8_t>;

#ifndef QEL_BENCH_HAVE_MAP_RENDERER
Bytes encodePng(const Bytes& rgba, int width, int height) {
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr ihdr{};
  ihdr.width = static_cast<std::uint32_t>(width);
  ihdr.height = static_cast<std::uint32_t>(height);
  ihdr.bit_depth = 8;
  ihdr.color_type = SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
  spng_set_ihdr(ctx, &ihdr);
  int error = spng_encode_image(ctx, rgba.data(), rgba.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  std::size_t size = 0;
  auto* buffer = static_cast<std::uint8_t*>(spng_get_png_buffer(ctx, &size, &error));
  spng_ctx_free(ctx);
  if (!buffer || error) throw std::runtime_error("PNG encoding failed");
  Bytes png(buffer, buffer + size);
  std::free(buffer);
  return png;
}

// Without the simulator's renderer: sea, a few filled land blobs, a
// graticule and a route line, so that the PNG compresses like a map rather
// than like noise or a flat colour.
Bytes drawnMapRgba() {
  Bytes rgba(std::size_t(kWidth) * kHeight * 4);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      std::uint8_t* p = &rgba[(std::size_t(y) * kWidth + x) * 4];
      const double land = std::sin(x * 0.011) * std::cos(y * 0.017) + std::sin((x + y) * 0.005);
      const bool grid = x % 128 == 0 || y % 96 == 0;
      const bool route = std::abs(y - (kHeight / 2 + static_cast<int>(80 * std::sin(x * 0.006)))) < 2;
      if (route) {
        p[0] = 230, p[1] = 60, p[2] = 40;
      } else if (grid) {
        p[0] = 180, p[1] = 190, p[2] = 200;
      } else if (land > 0.6) {
        p[0] = 200, p[1] = 190 - static_cast<std::uint8_t>(land * 20), p[2] = 150;
      } else {
        p[0] = 40, p[1] = 90, p[2] = 160;
      }
      p[3] = 255;
    }
  }
  return rgba;
}
#endif

struct Pictures {
  Bytes png;
  Bytes jpeg;
  std::string origin;
};

Bytes decodeRgba(const Bytes& png) {
  auto image = qel::Image::fromData(png);
  if (!image) throw std::runtime_error("the map PNG does not decode");
  return Bytes(image->pixels().begin(), image->pixels().end());
}

Bytes encodeJpeg(const Bytes& rgba) {
  tjhandle handle = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  // 4:2:0 at quality 85: what an encoder hands out by default for photos
  // and maps alike.
  const int error = tjCompress2(handle, rgba.data(), kWidth, 0, kHeight, TJPF_RGBA, &out, &size,
                                TJSAMP_420, 85, 0);
  tjDestroy(handle);
  if (error) throw std::runtime_error("JPEG encoding failed");
  Bytes jpeg(out, out + size);
  tjFree(out);
  return jpeg;
}

const Pictures& pictures() {
  static const Pictures made = [] {
    Pictures p;
#ifdef QEL_BENCH_HAVE_MAP_RENDERER
    cabinsim::Flight flight(cabinsim::Flight::defaultOrigin(), cabinsim::Flight::defaultDestination(), 0.4);
    const cabinsim::MapScene scene{flight.state(), flight.origin(), flight.destination(), 1};
    const std::string png = cabinsim::MapRenderer().renderPng(scene, kWidth, kHeight);
    p.png.assign(png.begin(), png.end());
    p.origin = "simulator map";
#else
    p.png = encodePng(drawnMapRgba(), kWidth, kHeight);
    p.origin = "drawn map";
#endif
    p.jpeg = encodeJpeg(decodeRgba(p.png));
    return p;
  }();
  return made;
}

void label(benchmark::State& state, const Bytes& bytes) {
  state.SetLabel(pictures().origin + ", " + std::to_string(bytes.size()) + " bytes");
  state.SetItemsProcessed(state.iterations());
}

void BM_ImageFromDataPng(benchmark::State& state) {
  const Bytes& png = pictures().png;
  for (auto _ : state) {
    auto image = qel::Image::fromData(png);
    if (!image) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(image);
  }
  label(state, png);
}

// The floor: libspng straight into a buffer, no checks beyond its own.
void BM_SpngDirect(benchmark::State& state) {
  const Bytes& png = pictures().png;
  for (auto _ : state) {
    spng_ctx* ctx = spng_ctx_new(0);
    spng_set_png_buffer(ctx, png.data(), png.size());
    std::size_t size = 0;
    spng_decoded_image_size(ctx, SPNG_FMT_RGBA8, &size);
    std::unique_ptr<std::uint8_t[]> pixels(new std::uint8_t[size]);
    if (spng_decode_image(ctx, pixels.get(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS) != 0) {
      state.SkipWithError("decode failed");
    }
    benchmark::DoNotOptimize(pixels.get());
    spng_ctx_free(ctx);
  }
  label(state, png);
}

void BM_ImageFromDataJpeg(benchmark::State& state) {
  const Bytes& jpeg = pictures().jpeg;
  for (auto _ : state) {
    auto image = qel::Image::fromData(jpeg);
    if (!image) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(image);
  }
  label(state, jpeg);
}

// The floor: TurboJPEG straight into a buffer.
void BM_TurboJpegDirect(benchmark::State& state) {
  const Bytes& jpeg = pictures().jpeg;
  for (auto _ : state) {
    tjhandle handle = tjInitDecompress();
    int width = 0, height = 0, subsampling = 0, colorspace = 0;
    tjDecompressHeader3(handle, jpeg.data(), jpeg.size(), &width, &height, &subsampling, &colorspace);
    std::unique_ptr<std::uint8_t[]> pixels(new std::uint8_t[std::size_t(width) * height * 4]);
    if (tjDecompress2(handle, jpeg.data(), jpeg.size(), pixels.get(), width, 0, height, TJPF_RGBA, 0) != 0) {
      state.SkipWithError("decode failed");
    }
    benchmark::DoNotOptimize(pixels.get());
    tjDestroy(handle);
  }
  label(state, jpeg);
}

// Two separately decoded copies of the same picture: the check has to look
// at every pixel to say "equal".
void BM_ImageEqualSame(benchmark::State& state) {
  const auto a = qel::Image::fromData(pictures().png);
  const auto b = qel::Image::fromData(pictures().png);
  for (auto _ : state) {
    const bool equal = *a == *b;
    if (!equal) state.SkipWithError("copies differ");
    benchmark::DoNotOptimize(equal);
  }
  state.SetItemsProcessed(state.iterations());
}

// The same picture but for its last pixel: the worst place for a
// difference when comparing front to back.
void BM_ImageEqualLastPixelDiffers(benchmark::State& state) {
  const auto a = qel::Image::fromData(pictures().png);
  Bytes changed(a->pixels().begin(), a->pixels().end());
  changed[changed.size() - 4] ^= 0x01;
  const auto b = qel::Image::fromRGBA(a->width(), a->height(), std::move(changed));
  for (auto _ : state) {
    const bool equal = *a == *b;
    if (equal) state.SkipWithError("difference missed");
    benchmark::DoNotOptimize(equal);
  }
  state.SetItemsProcessed(state.iterations());
}

// Reference for the equal case: one memcmp over the two pixel buffers.
void BM_MemcmpPixels(benchmark::State& state) {
  const auto a = qel::Image::fromData(pictures().png);
  const Bytes b(a->pixels().begin(), a->pixels().end());
  for (auto _ : state) {
    const int order = std::memcmp(a->pixels().data(), b.data(), b.size());
    benchmark::DoNotOptimize(order);
  }
  state.SetItemsProcessed(state.iterations());
}

// What tracing adds to one picture, for comparison with its decode: the
// request queue's report with the transfer's timings, the trace assembled
// and counted, and its completion once the service has had the bytes. (The
// transport's reading of libcurl's timers, ten curl_easy_getinfo calls, is
// not in it.)
// GCC bug 105329: bogus -Wrestrict in libstdc++'s string assignment.
QEL_GCC_IGNORE_BEGIN("-Wrestrict")
void BM_PictureTrace(benchmark::State& state) {
  const Bytes& png = pictures().png;
  const qel::Data body(png.begin(), png.end());
  int traced = 0;
  auto stats = std::make_shared<qel::internal::QELBroadcastMapsHostStats>(
      std::weak_ptr<qel::QELBroadcastMapsV1>(), [&traced](const qel::QELBroadcastMapsTrace&) { ++traced; }, [] {});
  auto& monitor = qel::core::TransportMonitor::current();
  monitor.addObserver(stats);
  qel::core::TransportTiming timing;
  timing.started = std::chrono::steady_clock::now();
  timing.queued = timing.nameLookupDone = timing.connected = timing.tlsDone = timing.started;
  timing.firstByte = timing.done = timing.started + std::chrono::milliseconds(3);
  timing.bytesReceived = body.size();
  timing.httpVersion = "2";
  for (auto _ : state) {
    monitor.didSucceed(qel::core::TransportChannel::Picture, {"/maps/1024x768/1.png", &body, {}, false, timing});
    qel::RunLoop::current().runPending();
  }
  monitor.removeObserver(stats.get());
  benchmark::DoNotOptimize(traced);
}
QEL_GCC_IGNORE_END

BENCHMARK(BM_SpngDirect)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PictureTrace)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ImageFromDataPng)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TurboJpegDirect)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImageFromDataJpeg)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcmpPixels)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ImageEqualSame)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ImageEqualLastPixelDiffers)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
