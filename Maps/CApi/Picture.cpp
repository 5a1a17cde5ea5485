// The C API's pictures: immutable decoded pixels shared with the host's
// snapshots, counted atomically so that any thread may hold and drop them.

#include "CApiHandles.h"

extern "C" {

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
