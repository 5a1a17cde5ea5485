#pragma once

#include <cstddef>
#include <string>

namespace cabinsim {

// Text of the event frames the simulator pushes.
//
// A map update is {"name": "core.maps.map_update", "userInfo": {"images":
// "<JSON text of the images array>"}}: the images travel as a string that
// holds JSON, not as a nested array.
//
// Threading: pure functions.
//
//   std::string frame = cabinsim::makeUpdateEvent(R"([{"width":400,"height":300,"src":"/maps/400x300/2.png"}])");

inline constexpr const char* kMapUpdateEventName = "core.maps.map_update";

std::string makeUpdateEvent(const std::string& imagesJsonText);

// The ways a pushed frame can be wrong, used in turn by --malformed-events-every.
enum class MalformedKind {
  InvalidJson,        // the frame is not JSON at all (cut off)
  NotAnObject,        // valid JSON whose top level is an array
  ImagesNotAString,   // "images" carries the array itself instead of its text
  ImagesTextInvalid,  // "images" is a string, but its text is not JSON
  Oversize,           // a well-formed update padded beyond 1 MiB
};
inline constexpr std::size_t kMalformedKindCount = 5;

// Frames over this size must be refused by a client.
inline constexpr std::size_t kMaxEventFrameBytes = 1024 * 1024;

const char* toString(MalformedKind kind);

// A frame of the given kind built around the current images text, so that a
// client which skipped the check in question would actually change its map.
std::string makeMalformedEvent(MalformedKind kind, const std::string& imagesJsonText);

}  // namespace cabinsim
