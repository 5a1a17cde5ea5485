#pragma once

#include <QELMaps/QELBroadcastMapsStatus.h>

#include <qel/Geometry.h>
#include <qel/Image.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace qel {

// What an application reads of the broadcast map at one moment: published
// whole by the host's loop thread after each change, never modified after.
//
// Plain values and a shared picture, so a snapshot can be copied out
// whole (into another language's objects, a UI model, a C struct) without
// asking the loop anything. The picture's pixels are shared with the decoded
// image, not copied.
//
// Threading: immutable once published; read it from any thread.
//
//   auto snapshot = host->snapshot();
//   if (snapshot->image) show(snapshot->image->pixels(), snapshot->image->width());
//   for (const auto& size : snapshot->resolutions) addToPicker(size.width, size.height);
struct QELBroadcastMapsSnapshot {
  // One more than the previous snapshot's; the first one published is 1.
  std::uint64_t version = 0;
  // The latest decoded map picture, or empty.
  std::shared_ptr<const Image> image;
  // The picture sizes the server offers, in the server's listing order;
  // empty when there is no map data.
  std::vector<CGSize> resolutions;
  // The size the application chose, or none (the service then takes the
  // first one the server lists).
  std::optional<CGSize> currentResolution;
  // Between start() and stop() (or the service stopping by itself).
  bool receiving = false;
  // The cabin server answered with a map record that lists at least one
  // picture.
  bool hasMapData = false;
  // There is a map record at all, also one that lists no picture (the server
  // answered, with nothing to show). Without one (no answer yet, a failed
  // load, the event channel down) the service reports an error; with an
  // empty one it does not.
  bool hasMapRecord = false;
  // Why the map is or is not live, and what failed last on each way to the
  // server. A change of it alone is announced as StatusDidChange.
  QELBroadcastMapsStatus status;
};

}  // namespace qel
