#include "qel/Image.h"

#include <gtest/gtest.h>

#include <boost/crc.hpp>

#include <spng.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qel {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A picture with some structure, the same in RGB as in opaque RGBA, so that
// compressors have work to do and a cut in the middle loses real pixels.
Bytes pattern(std::size_t width, std::size_t height, int channels) {
  Bytes pixels(width * height * channels);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    const std::size_t pixel = i / channels, channel = i % channels;
    pixels[i] = channel == 3 ? 255 : static_cast<std::uint8_t>((pixel * 3 + channel) * 7919 % 251);
  }
  return pixels;
}

Bytes encodePNG(std::uint32_t width, std::uint32_t height, const Bytes& pixels, int channels = 4) {
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr header{};
  header.width = width;
  header.height = height;
  header.bit_depth = 8;
  header.color_type = channels == 4 ? SPNG_COLOR_TYPE_TRUECOLOR_ALPHA : SPNG_COLOR_TYPE_TRUECOLOR;
  spng_set_ihdr(ctx, &header);
  EXPECT_EQ(
      spng_encode_image(ctx, pixels.data(), pixels.size(), SPNG_FMT_PNG, SPNG_ENCODE_FINALIZE), 0);
  std::size_t length = 0;
  int error = 0;
  auto* buffer = static_cast<std::uint8_t*>(spng_get_png_buffer(ctx, &length, &error));
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

void putBigEndian(Bytes& bytes, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

// A 16 x 16 PNG whose header, with a valid checksum, claims another size.
Bytes pngClaiming(std::uint32_t width, std::uint32_t height) {
  Bytes png = encodePNG(16, 16, pattern(16, 16, 4));
  putBigEndian(png, 16, width);  // after the signature and the IHDR length and type
  putBigEndian(png, 20, height);
  boost::crc_32_type crc;
  crc.process_bytes(&png[12], 17);  // IHDR type and data
  putBigEndian(png, 29, crc.checksum());
  return png;
}

std::shared_ptr<const Image> decode(const Bytes& bytes) { return Image::fromData(bytes); }

TEST(PlatformImage, DecodesPNGAndComparesPicturesNotEncodings) {
  const Bytes rgb = pattern(16, 16, 3), rgba = pattern(16, 16, 4);
  auto fromRGBA = decode(encodePNG(16, 16, rgba));
  ASSERT_NE(fromRGBA, nullptr);
  EXPECT_EQ(Bytes(fromRGBA->pixels().begin(), fromRGBA->pixels().end()), rgba);
  auto fromRGB = decode(encodePNG(16, 16, rgb, 3));
  auto raw = Image::fromRGBA(16, 16, rgba);
  ASSERT_TRUE(fromRGB && raw);
  EXPECT_TRUE(*fromRGB == *fromRGBA);
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

TEST(PlatformImage, RefusesWhatIsNotACompletePictureAndOversizedOnesFromTheirHeader) {
  const std::string text = "<html>not found</html>";
  const Bytes png = encodePNG(64, 64, pattern(64, 64, 4)), jpeg = encodeJPEG(64, 64, pattern(64, 64, 4));
  const auto half = [](const Bytes& bytes) { return Bytes(bytes.begin(), bytes.begin() + bytes.size() / 2); };
  Bytes corrupt = png;
  corrupt[corrupt.size() / 2] ^= 0x55;  // inside the image data: its CRC no longer holds
  const std::pair<const char*, Bytes> refused[] = {
      {"nothing", {}}, {"text", Bytes(text.begin(), text.end())}, {"half a PNG", half(png)},
      {"a corrupt PNG", corrupt}, {"half a JPEG", half(jpeg)}};
  for (const auto& [what, bytes] : refused) EXPECT_EQ(decode(bytes), nullptr) << what;

  // Oversized pictures (8192 x 8192 is 256 MiB decoded) are refused from their header, not the data behind it.
  ASSERT_NE(Image::fromData(pngClaiming(16, 16), 256), nullptr) << "the budget is the caller's";
  Image::Refusal refusal;
  for (const std::uint32_t side : {8192u, 100000u}) {
    EXPECT_EQ(Image::fromData(pngClaiming(side, side), Image::kMaxPixels, &refusal), nullptr);
    EXPECT_TRUE(refusal.overBudget && refusal.width == side && refusal.height == side) << side;
  }

  // The same for a JPEG whose frame header claims 65535 x 65535, once it
  // is seen to decode, in RGBA order, as it is.
  Bytes flat(32 * 16 * 4);
  for (std::size_t i = 0; i < flat.size(); i += 4) std::memcpy(&flat[i], "\xC8\x64\x32\xFF", 4);
  Bytes flatJpeg = encodeJPEG(32, 16, flat);
  auto image = decode(flatJpeg);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(std::pair(image->width(), image->height()), (std::pair<std::size_t, std::size_t>(32, 16)));
  for (int c = 0; c < 4; ++c) EXPECT_NEAR(image->pixels()[c], flat[c], 3) << "channel " << c;
  const std::uint8_t startOfFrame[] = {0xFF, 0xC0};
  const auto frame = std::search(flatJpeg.begin(), flatJpeg.end(), startOfFrame, startOfFrame + 2);
  ASSERT_LT(frame + 9, flatJpeg.end());
  std::fill(frame + 5, frame + 9, 0xFF);  // height, then width
  EXPECT_EQ(decode(flatJpeg), nullptr);
}

}  // namespace
}  // namespace qel
