// Bytes as the body of the map data REST answer, through the request queue
// to the controller's requestDidFinish, with one engine observing.
//
// Input: one mode byte (see Mode), then the body. With no record yet the
// body answers the first load; otherwise it answers a reload.

#include "MapsFuzzHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  using namespace qel::fuzzing;
  MapsFuzzHarness harness(Mode::fromByte(data[0]));
  const qel::Data body(data + 1, data + size);

  if (harness.mode().prior != Prior::Nil) {
    harness.controller()->reloadData();
    harness.drain();
  }
  // The map data request is the only REST request; a started engine may have
  // an image download open besides it.
  auto& requests = harness.env().requests();
  for (auto index : requests.openAttempts()) {
    if (requests.attempts()[index].kind == qel::core::QELRequest::Kind::REST) {
      requests.finish(index, body);
      break;
    }
  }
  harness.answerDownloads();
  return 0;
}
