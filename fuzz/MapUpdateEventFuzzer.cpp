// Bytes as the "images" text of a map update event, delivered through the
// event channel to a live controller with one observing engine.
//
// Input: one mode byte (see Mode), then the text. A second update with the
// same text follows, so that merging into a record the first one built runs
// too.

#include "MapsFuzzHarness.h"

#include <boost/json/object.hpp>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  using namespace qel::fuzzing;
  MapsFuzzHarness harness(Mode::fromByte(data[0]));
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

  for (int round = 0; round < 2; ++round) {
    harness.env().events().deliver(kMapUpdateEvent, boost::json::object{{"images", text}});
    harness.answerDownloads();
  }
  return 0;
}
