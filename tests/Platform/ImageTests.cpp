#include "qel/Image.h"

#include <gtest/gtest.h>

#include <spng.h>
#include <turbojpeg.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qel {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A picture with some structure, so that compressors have work to do and a
// cut in the middle loses real pixels.
Bytes pattern(std::size_t width, std::size_t height, int channels, unsigned seed = 1) {
  Bytes pixels(width * height * channels);
  unsigned state = seed;
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    state = state * 1103515245u + 12345u;
    pixels[i] = (channels == 4 && i % 4 == 3) ? 255 : static_cast<std::uint8_t>(state >> 16);
  }
  return pixels;
}

Bytes encodePNG(std::uint32_t width, std::uint32_t height, const Bytes& pixels, int channels) {
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr header{};
  header.width = width;
  header.height = height;
  header.bit_depth = 8;
  header.color_type = channels == 4 ? SPNG_COLOR_TYPE_TRUECOLOR_ALPHA : SPNG_COLOR_TYPE_TRUECOLOR;
  spng_set_ihdr(ctx, &header);
  const int error = spng_encode_image(ctx, pixels.data(), pixels.size(), SPNG_FMT_PNG,
                                      SPNG_ENCODE_FINALIZE);
  EXPECT_EQ(error, 0) << spng_strerror(error);
  std::size_t length = 0;
  int bufferError = 0;
  auto* buffer = static_cast<std::uint8_t*>(spng_get_png_buffer(ctx, &length, &bufferError));
  Bytes png(buffer, buffer + length);
  std::free(buffer);
  spng_ctx_free(ctx);
  return png;
}

Bytes encodeJPEG(int width, int height, const Bytes& rgba) {
  tjhandle handle = tjInitCompress();
  unsigned char* buffer = nullptr;
  unsigned long length = 0;
  EXPECT_EQ(tjCompress2(handle, rgba.data(), width, 0, height, TJPF_RGBA, &buffer, &length,
                        TJSAMP_444, 95, 0),
            0);
  Bytes jpeg(buffer, buffer + length);
  tjFree(buffer);
  tjDestroy(handle);
  return jpeg;
}

std::uint32_t crc32(const std::uint8_t* data, std::size_t size) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

void appendChunk(Bytes& png, const char* type, const Bytes& body) {
  const auto length = static_cast<std::uint32_t>(body.size());
  for (int shift = 24; shift >= 0; shift -= 8) png.push_back(static_cast<std::uint8_t>(length >> shift));
  const std::size_t start = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), body.begin(), body.end());
  const std::uint32_t crc = crc32(png.data() + start, png.size() - start);
  for (int shift = 24; shift >= 0; shift -= 8) png.push_back(static_cast<std::uint8_t>(crc >> shift));
}

std::shared_ptr<const Image> decode(const Bytes& bytes) { return Image::fromData(bytes); }

TEST(PlatformImage, DecodesPNGIntoRGBA) {
  const Bytes rgba = pattern(7, 5, 4);
  auto image = decode(encodePNG(7, 5, rgba, 4));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->width(), 7u);
  EXPECT_EQ(image->height(), 5u);
  EXPECT_EQ(Bytes(image->pixels().begin(), image->pixels().end()), rgba);
}

TEST(PlatformImage, EqualityComparesPicturesNotEncodings) {
  const Bytes rgb = pattern(16, 16, 3);
  Bytes rgba;
  for (std::size_t i = 0; i < rgb.size(); i += 3) {
    rgba.insert(rgba.end(), rgb.begin() + i, rgb.begin() + i + 3);
    rgba.push_back(255);
  }
  auto fromRGB = decode(encodePNG(16, 16, rgb, 3));
  auto fromRGBAPNG = decode(encodePNG(16, 16, rgba, 4));
  auto raw = Image::fromRGBA(16, 16, rgba);
  ASSERT_TRUE(fromRGB && fromRGBAPNG && raw);
  EXPECT_TRUE(*fromRGB == *fromRGBAPNG);
  EXPECT_TRUE(*fromRGB == *raw);

  Bytes changed = rgba;
  changed[changed.size() / 2] ^= 1;
  EXPECT_FALSE(*raw == *Image::fromRGBA(16, 16, changed));
  // The same bytes seen as another shape are another picture.
  EXPECT_FALSE(*raw == *Image::fromRGBA(8, 32, rgba));
  EXPECT_EQ(Image::fromRGBA(16, 15, rgba), nullptr);

  // What an application saves is the same picture when read back.
  auto saved = decode(raw->pngRepresentation());
  ASSERT_TRUE(saved);
  EXPECT_TRUE(*saved == *raw);
}

TEST(PlatformImage, DecodesJPEG) {
  Bytes flat(32 * 16 * 4);
  for (std::size_t i = 0; i < flat.size(); i += 4) {
    flat[i] = 200, flat[i + 1] = 100, flat[i + 2] = 50, flat[i + 3] = 255;
  }
  auto image = decode(encodeJPEG(32, 16, flat));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->width(), 32u);
  EXPECT_EQ(image->height(), 16u);
  const auto pixels = image->pixels();
  EXPECT_NEAR(pixels[0], 200, 3);
  EXPECT_NEAR(pixels[1], 100, 3);
  EXPECT_NEAR(pixels[2], 50, 3);
  EXPECT_EQ(pixels[3], 255);
}

TEST(PlatformImage, RefusesWhatIsNotACompletePicture) {
  EXPECT_EQ(decode({}), nullptr);
  const std::string text = "<html>not found</html>";
  EXPECT_EQ(decode(Bytes(text.begin(), text.end())), nullptr);

  const Bytes png = encodePNG(64, 64, pattern(64, 64, 4), 4);
  EXPECT_EQ(decode(Bytes(png.begin(), png.begin() + png.size() / 2)), nullptr);
  EXPECT_EQ(decode(Bytes(png.begin(), png.begin() + 8)), nullptr);
  Bytes corrupt = png;
  corrupt[corrupt.size() / 2] ^= 0x55;  // inside the image data: its CRC no longer holds
  EXPECT_EQ(decode(corrupt), nullptr);

  const Bytes jpeg = encodeJPEG(64, 64, pattern(64, 64, 4));
  ASSERT_NE(decode(jpeg), nullptr);
  EXPECT_EQ(decode(Bytes(jpeg.begin(), jpeg.begin() + jpeg.size() / 2)), nullptr);
}

TEST(PlatformImage, RefusesOversizedPicturesFromTheirHeaderAlone) {
  // 100000 x 100000 RGBA would be 40 GB; only the header and an empty image
  // are there. Decoding it would throw or exhaust memory, not return empty.
  Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  const Bytes header = {0x00, 0x01, 0x86, 0xA0,  // width 100000
                        0x00, 0x01, 0x86, 0xA0,  // height 100000
                        8, 6, 0, 0, 0};          // 8-bit RGBA
  appendChunk(png, "IHDR", header);
  appendChunk(png, "IDAT", {0x78, 0x9C, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01});
  appendChunk(png, "IEND", {});
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(decode(png), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));

  // The same for a JPEG whose frame header claims 65535 x 65535.
  Bytes jpeg = encodeJPEG(16, 16, pattern(16, 16, 4));
  bool patched = false;
  for (std::size_t i = 0; i + 9 < jpeg.size(); ++i) {
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {
      std::memset(&jpeg[i + 5], 0xFF, 4);  // height, then width
      patched = true;
      break;
    }
  }
  ASSERT_TRUE(patched);
  EXPECT_EQ(decode(jpeg), nullptr);
}

}  // namespace
}  // namespace qel
