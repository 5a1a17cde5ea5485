#pragma once

#include <QELMaps/QELBroadcastMapsSnapshot.h>

#include <qel/Image.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace qel::internal {

// The last picture the application was shown, as the host keeps it: taken
// from the service whenever the service has a new one, left in place when
// the service's picture empties, restored from the disk cache at start.
//
// Threading: the host's loop thread only.
//
//   lastPicture.follow(service->mapImage(), source);
//   snapshot.lastPicture = lastPicture.compose(live, service->mapImage(), source);
class QELBroadcastMapsHostLastPicture {
 public:
  using WallClock = std::chrono::system_clock;

  // The service's picture now, and the source of the latest download; a
  // picture other than the kept one replaces it, received now.
  void follow(const std::shared_ptr<const Image>& image, const std::optional<std::string>& source);
  // A picture from an earlier run, received at `receivedAt`.
  void restore(std::shared_ptr<const Image> image, std::string source, WallClock::time_point receivedAt);

  // The picture as the snapshot shows it: stale unless the service is live
  // and shows this very picture from the source it asks for now.
  QELBroadcastMapsLastPicture compose(bool live, const std::shared_ptr<const Image>& serviceImage,
                                      const std::optional<std::string>& source) const;

  bool empty() const { return !picture_.image; }
  bool fromCache() const { return picture_.fromCache; }
  const std::shared_ptr<const Image>& image() const { return picture_.image; }
  WallClock::time_point receivedAt() const { return picture_.receivedAt; }

 private:
  QELBroadcastMapsLastPicture picture_;
};

}  // namespace qel::internal
