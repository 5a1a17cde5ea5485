#include "Host/_QELBroadcastMapsHostLastPicture.h"

namespace qel::internal {

void QELBroadcastMapsHostLastPicture::follow(const std::shared_ptr<const Image>& image,
                                             const std::optional<std::string>& source) {
  if (!image || image == picture_.image) return;
  picture_.image = image;
  picture_.source = source.value_or("");
  picture_.receivedAt = WallClock::now();
  picture_.receivedAtSteady = std::chrono::steady_clock::now();
  picture_.fromCache = false;
}

void QELBroadcastMapsHostLastPicture::restore(std::shared_ptr<const Image> image, std::string source,
                                              WallClock::time_point receivedAt) {
  picture_.image = std::move(image);
  picture_.source = std::move(source);
  picture_.receivedAt = receivedAt;
  // Its age goes on from when it was received, on the clock ages are read
  // on; a wall clock set back since makes it no younger than new.
  const auto age = std::max(WallClock::duration::zero(), WallClock::now() - receivedAt);
  picture_.receivedAtSteady =
      std::chrono::steady_clock::now() - std::chrono::duration_cast<std::chrono::steady_clock::duration>(age);
  picture_.fromCache = true;
}

QELBroadcastMapsLastPicture QELBroadcastMapsHostLastPicture::compose(bool live,
                                                                     const std::shared_ptr<const Image>& serviceImage,
                                                                     const std::optional<std::string>& source) const {
  auto picture = picture_;
  picture.stale = !(live && picture.image && serviceImage == picture.image && source &&
                    *source == picture.source);
  return picture;
}

}  // namespace qel::internal
