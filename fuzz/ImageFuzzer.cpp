// Bytes as a downloaded map image, through Image::fromData, and the decoded
// picture through what the engine does with it: compare it with a second
// decode.

#include <qel/Image.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken invariant: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  const auto image = qel::Image::fromData(bytes);
  if (!image) return 0;
  check(image->width() > 0 && image->height() > 0, "a decoded picture has a size");
  check(image->width() * image->height() <= qel::Image::kMaxPixels, "within the pixel budget");
  check(image->pixels().size() == image->width() * image->height() * 4, "RGBA pixels");

  const auto again = qel::Image::fromData(bytes);
  check(again && *again == *image, "decoding is deterministic");
  return 0;
}
