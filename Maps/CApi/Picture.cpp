// The C API's pictures: immutable decoded pixels shared with the host's
// snapshots, counted atomically so that any thread may hold and drop them.

#include "CApiHandles.h"

#include <new>

extern "C" {

qelmaps_error qelmaps_client_last_picture(qelmaps_client* client, qelmaps_picture** picture) {
  if (!client || !picture) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  const auto& last = snapshot->lastPicture;
  if (!last.image) return QELMAPS_ERROR_NO_PICTURE;
  auto* result = new (std::nothrow) qelmaps_picture;
  if (!result) return QELMAPS_ERROR_OUT_OF_MEMORY;
  result->image = last.image;
  result->receivedAtMs = qel::capi::receivedAtMs(*snapshot, last.image);
  *picture = result;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_picture_is_stale(qelmaps_client* client, int* stale) {
  if (!client || !stale) return QELMAPS_ERROR_NULL_ARGUMENT;
  *stale = client->snapshot()->lastPicture.stale ? 1 : 0;
  return QELMAPS_OK;
}

int64_t qelmaps_picture_received_at_ms(const qelmaps_picture* picture) { return picture ? picture->receivedAtMs : 0; }

qelmaps_picture* qelmaps_picture_retain(qelmaps_picture* picture) {
  if (picture) picture->references.fetch_add(1, std::memory_order_relaxed);
  return picture;
}

void qelmaps_picture_release(qelmaps_picture* picture) {
  if (picture && picture->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete picture;
}

size_t qelmaps_picture_width(const qelmaps_picture* picture) { return picture ? picture->image->width() : 0; }

size_t qelmaps_picture_height(const qelmaps_picture* picture) { return picture ? picture->image->height() : 0; }

// Rows are packed: the decoder writes width * 4 bytes per row.
size_t qelmaps_picture_stride(const qelmaps_picture* picture) { return picture ? picture->image->width() * 4 : 0; }

const uint8_t* qelmaps_picture_pixels(const qelmaps_picture* picture) {
  return picture ? picture->image->pixels().data() : nullptr;
}

}  // extern "C"
