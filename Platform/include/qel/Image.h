#pragma once

#include "qel/Export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace qel {

// An immutable decoded bitmap, 8-bit RGBA, rows top to bottom.
//
// fromData() decodes PNG (libspng) and JPEG (TurboJPEG) and returns empty for
// anything else, for truncated or corrupt data, and for pictures whose header
// declares more pixels than the budget (refused from the header, before any
// buffer for pixels is allocated: a small file may claim a huge picture).
//
// Two images are equal when they show the same picture: same size, same
// pixels, whatever the encoding they came from.
//
// Threading: immutable, safe to share.
//
//   auto image = qel::Image::fromData(bytes);
//   if (image && *image != *previous) show(image);
class QEL_EXPORT Image {
 public:
  // Enough for any map picture; a bigger one costs 64 MiB and more decoded.
  static constexpr std::uint64_t kMaxPixels = 16ull * 1024 * 1024;

  // Why fromData() returned empty: the size a header declared (0 x 0 when
  // none was read), and whether that size alone was the reason.
  struct Refusal {
    std::size_t width = 0;
    std::size_t height = 0;
    bool overBudget = false;
  };

  static std::shared_ptr<const Image> fromData(std::span<const std::uint8_t> data, std::uint64_t maxPixels = kMaxPixels,
                                               Refusal* refusal = nullptr);
  static std::shared_ptr<const Image> fromRGBA(std::size_t width, std::size_t height,
                                               std::vector<std::uint8_t> rgba);

  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  std::size_t width() const { return width_; }
  std::size_t height() const { return height_; }
  std::span<const std::uint8_t> pixels() const { return pixels_; }

  // The picture encoded as PNG (8-bit RGBA); empty if encoding fails.
  std::vector<std::uint8_t> pngRepresentation() const;

  friend QEL_EXPORT bool operator==(const Image& a, const Image& b);

 private:
  Image(std::size_t width, std::size_t height, std::vector<std::uint8_t> rgba);

  std::size_t width_;
  std::size_t height_;
  std::vector<std::uint8_t> pixels_;
};

}  // namespace qel
