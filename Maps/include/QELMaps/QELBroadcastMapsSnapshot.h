#pragma once

#include <QELMaps/QELBroadcastMapsStatus.h>

#include <qel/Geometry.h>
#include <qel/Image.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qel {

// The last picture the application was shown, kept through outages (when
// the service's own picture becomes empty) and, with a cache directory,
// across runs; replaced when a new picture arrives.
struct QELBroadcastMapsLastPicture {
  // Empty when there never was one.
  std::shared_ptr<const Image> image;
  // The source it was downloaded from, as the map record named it.
  std::string source;
  // When it was received: the wall clock for display, the steady clock for
  // ages (a picture from an earlier run gets its true age on this clock).
  std::chrono::system_clock::time_point receivedAt{};
  std::chrono::steady_clock::time_point receivedAtSteady{};
  // Not the picture of the current live record: the channel is down, there
  // is no map data, or the record names another source that has not
  // arrived yet.
  bool stale = true;
  // Read from the cache directory, not received in this run.
  bool fromCache = false;

  // How long ago it was received.
  std::chrono::steady_clock::duration age(std::chrono::steady_clock::time_point now =
                                              std::chrono::steady_clock::now()) const {
    return now - receivedAtSteady;
  }
  bool operator==(const QELBroadcastMapsLastPicture&) const = default;
};

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
  // The service's current picture, or empty (it empties when the map data
  // goes: what an application shows then is lastPicture).
  std::shared_ptr<const Image> image;
  // The last picture shown, with its age and whether it is stale.
  QELBroadcastMapsLastPicture lastPicture;
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
