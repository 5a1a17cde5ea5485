// Bytes as the body of the map data REST answer, through the request queue
// to the controller's requestDidFinish, with one engine observing.
//
// Input: one mode byte (see Mode), then the body. With no record yet the
// body answers the first load; otherwise it answers a reload.

#include "MapsFuzzHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  using namespace qel::fuzzing;
  const Mode mode = Mode::fromByte(data[0]);
  MapsFuzzHarness harness(mode);
  const qel::Data body(data + 1, data + size);

  if (mode.prior != Prior::Nil) harness.controller()->reloadData();
  // The map data request is the only REST request; a started engine may have
  // an image download open besides it.
  harness.finishOpen(qel::core::QELRequest::Kind::REST, body, /*onlyOne=*/true);
  harness.answerDownloads();
  return 0;
}
