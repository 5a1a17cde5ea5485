// What the C API's handles are, shared by the files that implement them
// (one per handle: Configuration.cpp, Client.cpp, Picture.cpp, Status.cpp, Stats.cpp, and
// Library.cpp for what needs no handle).
//
// No exception crosses a qelmaps_* function: each one either cannot throw
// or catches and answers with an error code.
//
// Threading: a configuration belongs to the thread that fills it; a client
// is used from any thread (the host behind it is); a picture is immutable
// and reference-counted atomically.
#pragma once

#include <QELMaps/QELBroadcastMapsHost.h>
#include <QELMaps/qelmaps.h>

#include <qel/core/QELHostname.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>

namespace qel::capi {

using Snapshot = QELBroadcastMapsHost::Snapshot;

constexpr std::size_t kEventCount = 7;

struct Callback {
  qelmaps_callback function = nullptr;
  void* userData = nullptr;
};

inline bool validEvent(qelmaps_event event) { return static_cast<unsigned>(event) < kEventCount; }

// The delivery whose callback runs on this thread, so that reads inside a
// callback see what was announced rather than a later state.
struct Delivery {
  const qelmaps_client* client = nullptr;
  const Snapshot* snapshot = nullptr;
};
extern thread_local Delivery currentDelivery;

// Hands `trace` to a C trace callback, as the C struct.
void callTrace(qelmaps_client* client, const QELBroadcastMapsTrace& trace, qelmaps_trace_callback callback,
               void* userData);

// The C convention for text out: as much as fits with a NUL, the full
// length always.
qelmaps_error copyText(std::string_view text, char* buffer, std::size_t capacity, std::size_t* length);

// When `image` was received, in Unix milliseconds, if it is the snapshot's
// last picture; else 0.
inline std::int64_t receivedAtMs(const QELBroadcastMapsSnapshot& snapshot, const std::shared_ptr<const Image>& image) {
  if (!image || snapshot.lastPicture.image != image) return 0;
  return std::chrono::duration_cast<std::chrono::milliseconds>(snapshot.lastPicture.receivedAt.time_since_epoch())
      .count();
}

}  // namespace qel::capi

struct qelmaps_config {
  qel::core::QELConfiguration configuration;
  std::array<qel::capi::Callback, qel::capi::kEventCount> callbacks{};
  qelmaps_dispatch dispatch = nullptr;
  void* dispatchUserData = nullptr;
  qelmaps_log_callback log = nullptr;
  void* logUserData = nullptr;
  std::optional<std::string> cacheDirectory;
  bool watchNetwork = false;
  qelmaps_trace_callback trace = nullptr;
  void* traceUserData = nullptr;
};

struct qelmaps_client {
  std::array<qel::capi::Callback, qel::capi::kEventCount> callbacks{};
  bool logRouted = false;
  bool dispatched = false;
  std::unique_ptr<qel::QELBroadcastMapsHost> host;

  qel::capi::Snapshot snapshot() const {
    if (qel::capi::currentDelivery.client == this) return *qel::capi::currentDelivery.snapshot;
    return host->snapshot();
  }
};

struct qelmaps_task {
  qel::QELBroadcastMapsHost::Task task;
};

struct qelmaps_picture {
  std::shared_ptr<const qel::Image> image;
  std::int64_t receivedAtMs = 0;
  std::atomic<std::size_t> references{1};
};
