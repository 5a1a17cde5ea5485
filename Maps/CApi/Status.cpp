// The C API's status: the connection's phase and each channel's last
// failure, read from the same snapshot as the client's other reads.

#include "CApiHandles.h"

#include <qel/core/TransportMonitor.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

namespace {

using Status = qel::QELBroadcastMapsStatus;
using qel::capi::copyText;

std::int64_t unixMilliseconds(Status::Clock::time_point at) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(at.time_since_epoch()).count();
}

bool validChannel(qelmaps_channel channel) { return static_cast<unsigned>(channel) < 3; }

}  // namespace

qelmaps_error qel::capi::copyText(std::string_view text, char* buffer, std::size_t capacity, std::size_t* length) {
  *length = text.size();
  if (capacity == 0) return buffer ? QELMAPS_ERROR_BUFFER_TOO_SMALL : QELMAPS_OK;
  const std::size_t copied = std::min(text.size(), capacity - 1);
  if (copied > 0) std::memcpy(buffer, text.data(), copied);  // an empty view may have no data at all
  buffer[copied] = '\0';
  return copied < text.size() ? QELMAPS_ERROR_BUFFER_TOO_SMALL : QELMAPS_OK;
}

static_assert(static_cast<int>(qel::core::FailureKind::ConnectionLost) == QELMAPS_FAILURE_CONNECTION_LOST &&
                  static_cast<int>(qel::core::FailureKind::NameLookup) == QELMAPS_FAILURE_NAME_LOOKUP &&
                  qel::core::kFailureKindCount == QELMAPS_FAILURE_CONNECTION_LOST,
              "the C failure codes are the core kit's kinds");
static_assert(static_cast<int>(Status::Phase::NoMapData) == QELMAPS_PHASE_NO_MAP_DATA &&
                  static_cast<int>(qel::core::TransportChannel::Picture) == QELMAPS_CHANNEL_PICTURE,
              "the C phases and channels are the host's");

extern "C" {

qelmaps_error qelmaps_client_status(qelmaps_client* client, qelmaps_status* status) {
  if (!client || !status) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  const Status& from = snapshot->status;
  qelmaps_status out{};
  out.phase = static_cast<qelmaps_phase>(from.phase);
  out.since_ms = unixMilliseconds(from.since);
  out.next_attempt_ms = from.nextAttempt ? unixMilliseconds(*from.nextAttempt) : 0;
  for (int channel = 0; channel < 3; ++channel) {
    const auto& failure = from.failure(static_cast<qel::core::TransportChannel>(channel));
    if (!failure) continue;
    auto& to = out.channels[channel];
    to.failure = static_cast<qelmaps_failure>(failure->kind);
    to.code = failure->code;
    to.failed_at_ms = unixMilliseconds(failure->at);
    to.consecutive_failures = static_cast<std::uint32_t>(failure->consecutive);
  }
  *status = out;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_failure_message(qelmaps_client* client, qelmaps_channel channel, char* buffer,
                                             size_t capacity, size_t* length) {
  if (!client || !length || (!buffer && capacity > 0)) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (!validChannel(channel)) return QELMAPS_ERROR_INVALID_ARGUMENT;
  const auto snapshot = client->snapshot();
  const auto& failure = snapshot->status.failure(static_cast<qel::core::TransportChannel>(channel));
  return copyText(failure ? failure->message : std::string_view(), buffer, capacity, length);
}

qelmaps_error qelmaps_client_status_text(qelmaps_client* client, char* buffer, size_t capacity, size_t* length) {
  if (!client || !length || (!buffer && capacity > 0)) return QELMAPS_ERROR_NULL_ARGUMENT;
  try {
    const auto snapshot = client->snapshot();
    return copyText(snapshot->status.describe(), buffer, capacity, length);
  } catch (const std::bad_alloc&) {
    return QELMAPS_ERROR_OUT_OF_MEMORY;
  }
}

const char* qelmaps_failure_string(qelmaps_failure failure) {
  const int value = static_cast<int>(failure);
  if (value == QELMAPS_FAILURE_NONE) return "none";
  if (value < 1 || value > qel::core::kFailureKindCount) return nullptr;
  // Views of string literals: NUL-terminated.
  return qel::core::failureKindName(static_cast<qel::core::FailureKind>(value)).data();
}

const char* qelmaps_phase_string(qelmaps_phase phase) {
  const int value = static_cast<int>(phase);
  if (value < QELMAPS_PHASE_STOPPED || value > QELMAPS_PHASE_NO_MAP_DATA) return nullptr;
  return Status::phaseName(static_cast<Status::Phase>(value));
}

}  // extern "C"
