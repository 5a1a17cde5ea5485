// The C API's monitoring: each picture's trace as a C struct, and the
// stats document as JSON text.

#include "CApiHandles.h"

#include <new>

namespace {

using Trace = qel::QELBroadcastMapsTrace;

std::int64_t microseconds(const std::optional<Trace::TimePoint>& at) {
  if (!at) return 0;
  return std::chrono::duration_cast<std::chrono::microseconds>(at->time_since_epoch()).count();
}

}  // namespace

void qel::capi::callTrace(qelmaps_client* client, const Trace& trace, qelmaps_trace_callback callback,
                          void* userData) {
  qelmaps_trace out{};
  out.source = trace.source.c_str();
  out.update_received_us = microseconds(trace.updateReceived);
  out.queued_us = microseconds(trace.queued);
  out.name_lookup_done_us = microseconds(trace.nameLookupDone);
  out.connected_us = microseconds(trace.connected);
  out.tls_done_us = microseconds(trace.tlsDone);
  out.first_byte_us = microseconds(trace.firstByte);
  out.body_done_us = microseconds(trace.bodyDone);
  out.decoded_us = microseconds(trace.decoded);
  out.shown_us = microseconds(trace.shown);
  out.bytes_received = trace.bytesReceived;
  out.http_version = trace.httpVersion.c_str();
  out.connection_reused = trace.connectionReused ? 1 : 0;
  out.revalidated = trace.revalidated ? 1 : 0;
  out.result = static_cast<qelmaps_trace_result>(trace.result);
  out.failure = trace.failure ? static_cast<qelmaps_failure>(*trace.failure) : QELMAPS_FAILURE_NONE;
  out.failure_message = trace.failureMessage.c_str();
  callback(client, &out, userData);
}

static_assert(static_cast<int>(qel::QELBroadcastMapsTrace::Result::Failed) == QELMAPS_TRACE_FAILED,
              "the C trace results are the host's");

extern "C" {

qelmaps_error qelmaps_client_stats(qelmaps_client* client, char* buffer, size_t capacity, size_t* length) {
  if (!client || !length || (!buffer && capacity > 0)) return QELMAPS_ERROR_NULL_ARGUMENT;
  try {
    return qel::capi::copyText(client->host->stats()->json(), buffer, capacity, length);
  } catch (const std::bad_alloc&) {
    return QELMAPS_ERROR_OUT_OF_MEMORY;
  }
}

}  // extern "C"
