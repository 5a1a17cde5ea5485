#include "qel/Image.h"

#include <spng.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace qel {
namespace {

// Generous for any real PNG chunk; stops a forged length from allocating.
constexpr std::size_t kMaxChunkBytes = 16u * 1024 * 1024;
constexpr std::size_t kMaxChunkCacheBytes = 64u * 1024 * 1024;

bool withinBudget(std::uint64_t width, std::uint64_t height, std::uint64_t maxPixels) {
  return width > 0 && height > 0 && width <= maxPixels && height <= maxPixels / width;
}

// Records the declared size and says whether it is affordable.
bool affordable(std::uint64_t width, std::uint64_t height, std::uint64_t maxPixels, Image::Refusal& refusal) {
  refusal.width = static_cast<std::size_t>(width);
  refusal.height = static_cast<std::size_t>(height);
  const bool within = withinBudget(width, height, maxPixels);
  refusal.overBudget = width > 0 && height > 0 && !within;
  return within;
}

struct SpngContext {
  spng_ctx* ctx = spng_ctx_new(0);
  ~SpngContext() {
    if (ctx) spng_ctx_free(ctx);
  }
};

struct TurboJpegHandle {
  tjhandle handle = tjInitDecompress();
  ~TurboJpegHandle() {
    if (handle) tjDestroy(handle);
  }
};

bool isPNG(std::span<const std::uint8_t> data) {
  static constexpr std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  return data.size() >= 8 && std::equal(kSignature, kSignature + 8, data.begin());
}

bool isJPEG(std::span<const std::uint8_t> data) {
  return data.size() >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF;
}

}  // namespace


Image::Image(std::size_t width, std::size_t height, std::vector<std::uint8_t> rgba)
    : width_(width), height_(height), pixels_(std::move(rgba)) {}

std::shared_ptr<const Image> Image::fromRGBA(std::size_t width, std::size_t height,
                                             std::vector<std::uint8_t> rgba) {
  if (!withinBudget(width, height, kMaxPixels) || rgba.size() != width * height * 4) return nullptr;
  return std::shared_ptr<const Image>(new Image(width, height, std::move(rgba)));
}

std::shared_ptr<const Image> Image::fromData(std::span<const std::uint8_t> data, std::uint64_t maxPixels,
                                             Refusal* refusal) {
  Refusal ignored;
  Refusal& why = refusal ? *refusal : ignored;
  why = Refusal();
  if (isPNG(data)) {
    SpngContext png;
    if (!png.ctx) return nullptr;
    spng_set_crc_action(png.ctx, SPNG_CRC_ERROR, SPNG_CRC_ERROR);
    const std::uint32_t side =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(maxPixels, std::numeric_limits<std::int32_t>::max()));
    spng_set_image_limits(png.ctx, side, side);
    spng_set_chunk_limits(png.ctx, kMaxChunkBytes, kMaxChunkCacheBytes);
    if (spng_set_png_buffer(png.ctx, data.data(), data.size()) != 0) return nullptr;
    // The header alone decides whether the picture is affordable.
    spng_ihdr header{};
    const int headerError = spng_get_ihdr(png.ctx, &header);
    if (headerError == SPNG_EUSER_WIDTH || headerError == SPNG_EUSER_HEIGHT) {
      // libspng refuses a side over its limit before it fills the header in;
      // the size is still what the header chunk, right after the signature, says.
      const auto bigEndian = [&](std::size_t at) {
        return std::uint32_t{data[at]} << 24 | std::uint32_t{data[at + 1]} << 16 | std::uint32_t{data[at + 2]} << 8 |
               data[at + 3];
      };
      why.width = bigEndian(16);
      why.height = bigEndian(20);
      why.overBudget = true;
      return nullptr;
    }
    if (headerError != 0) return nullptr;
    if (!affordable(header.width, header.height, maxPixels, why)) return nullptr;
    std::size_t size = 0;
    if (spng_decoded_image_size(png.ctx, SPNG_FMT_RGBA8, &size) != 0) return nullptr;
    if (size != static_cast<std::size_t>(header.width) * header.height * 4) return nullptr;
    std::vector<std::uint8_t> pixels(size);
    if (spng_decode_image(png.ctx, pixels.data(), pixels.size(), SPNG_FMT_RGBA8,
                          SPNG_DECODE_TRNS) != 0) {
      return nullptr;
    }
    return std::shared_ptr<const Image>(
        new Image(header.width, header.height, std::move(pixels)));
  }

  if (isJPEG(data)) {
    TurboJpegHandle jpeg;
    if (!jpeg.handle) return nullptr;
    int width = 0;
    int height = 0;
    int subsampling = 0;
    int colorspace = 0;
    if (tjDecompressHeader3(jpeg.handle, data.data(), static_cast<unsigned long>(data.size()),
                            &width, &height, &subsampling, &colorspace) != 0) {
      return nullptr;
    }
    if (width <= 0 || height <= 0 ||
        !affordable(static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height), maxPixels, why)) {
      return nullptr;
    }
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
    // A warning (a truncated file, for one) is a failure too: half a picture
    // padded with grey is not the picture.
    if (tjDecompress2(jpeg.handle, data.data(), static_cast<unsigned long>(data.size()),
                      pixels.data(), width, 0, height, TJPF_RGBA,
                      TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS) != 0) {
      return nullptr;
    }
    return std::shared_ptr<const Image>(new Image(width, height, std::move(pixels)));
  }

  return nullptr;
}

bool operator==(const Image& a, const Image& b) {
  if (&a == &b) return true;
  // Each new picture is compared once, so a hash made at decode time would
  // cost more than the one comparison it could save.
  if (a.width_ != b.width_ || a.height_ != b.height_) return false;
  return a.pixels_ == b.pixels_;
}

}  // namespace qel

namespace qel {

std::vector<std::uint8_t> Image::pngRepresentation() const {
  std::vector<std::uint8_t> png;
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  if (!ctx) return png;
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr ihdr{};
  ihdr.width = static_cast<std::uint32_t>(width_);
  ihdr.height = static_cast<std::uint32_t>(height_);
  ihdr.bit_depth = 8;
  ihdr.color_type = SPNG_COLOR_TYPE_TRUECOLOR_ALPHA;
  int error = spng_set_ihdr(ctx, &ihdr);
  if (!error) {
    error = spng_encode_image(ctx, pixels_.data(), pixels_.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE);
  }
  if (!error) {
    std::size_t size = 0;
    auto* buffer = static_cast<std::uint8_t*>(spng_get_png_buffer(ctx, &size, &error));
    if (buffer && !error) png.assign(buffer, buffer + size);
    std::free(buffer);
  }
  spng_ctx_free(ctx);
  return png;
}

}  // namespace qel
