// The C API's client: a QELBroadcastMapsHost, the application's callbacks
// around it, and the reads that answer from the snapshot a callback was
// given (or the latest one outside a callback).

#include "CApiHandles.h"

#include <qel/core/QELLogging.h>

#include <cmath>
#include <exception>
#include <new>
#include <string>

namespace qel::capi {
thread_local Delivery currentDelivery;
}  // namespace qel::capi

namespace {

using qel::capi::Callback;
using qel::capi::currentDelivery;
using qel::capi::Delivery;
using qel::capi::Snapshot;

std::optional<qelmaps_event> cEvent(qel::QELBroadcastMapsHostEvent event) {
  using E = qel::QELBroadcastMapsHostEvent;
  switch (event) {
    case E::AvailableResolutionsDidChange: return QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE;
    case E::ImageDidChange: return QELMAPS_EVENT_IMAGE_DID_CHANGE;
    case E::ImageDidStopReceivingImage: return QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE;
    case E::Error: return QELMAPS_EVENT_ERROR;
    case E::ImageDidStartReceivingImage: return QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE;
    case E::StateDidChange: return QELMAPS_EVENT_STATE_DID_CHANGE;
    case E::StatusDidChange: return QELMAPS_EVENT_STATUS_DID_CHANGE;
  }
  return std::nullopt;
}

// Only one client at a time: the log sink and the service's state are
// process-wide, and the sink must not change while a loop thread logs.
std::atomic<bool> clientAlive{false};

// True while application code (a callback without a dispatch hook, or the
// log callback) runs on a host's thread.
thread_local bool onLibraryThread = false;

class LibraryThreadScope {
 public:
  explicit LibraryThreadScope(bool active) : previous_(onLibraryThread) { onLibraryThread = previous_ || active; }
  ~LibraryThreadScope() { onLibraryThread = previous_; }
  LibraryThreadScope(const LibraryThreadScope&) = delete;
  LibraryThreadScope& operator=(const LibraryThreadScope&) = delete;

 private:
  bool previous_;
};

// Hands traces to the application's C callback, on the thread callbacks
// run on.
class TraceListener : public qel::QELBroadcastMapsHostListener {
 public:
  TraceListener(qelmaps_client* client, qelmaps_trace_callback callback, void* userData)
      : client_(client), callback_(callback), userData_(userData) {}
  void pictureTraced(const qel::QELBroadcastMapsTrace& trace) override {
    const LibraryThreadScope scope(!client_->dispatched);
    qel::capi::callTrace(client_, trace, callback_, userData_);
  }

 private:
  qelmaps_client* client_;
  qelmaps_trace_callback callback_;
  void* userData_;
};

}  // namespace

extern "C" {


qelmaps_error qelmaps_client_create(const qelmaps_config* config, qelmaps_client** out) {
  if (!config || !out) return QELMAPS_ERROR_NULL_ARGUMENT;
  bool expected = false;
  if (!clientAlive.compare_exchange_strong(expected, true)) return QELMAPS_ERROR_BUSY;
  try {
    auto client = std::make_unique<qelmaps_client>();
    client->callbacks = config->callbacks;

    if (config->log) {
      qel::core::QELLogging::setSink(
          [log = config->log, userData = config->logUserData](int level, std::string_view domain,
                                                               std::string_view message) {
            const std::string d(domain), m(message);
            const LibraryThreadScope scope(true);
            log(level, d.c_str(), m.c_str(), userData);
          });
      client->logRouted = true;
    }

    qel::QELBroadcastMapsHost::Options options;
    options.configuration = config->configuration;
    if (config->cacheDirectory) options.cacheDirectory = *config->cacheDirectory;
    options.watchNetwork = config->watchNetwork;
    client->dispatched = config->dispatch != nullptr;
    if (config->dispatch) {
      options.executor = [dispatch = config->dispatch, userData = config->dispatchUserData](
                             qel::QELBroadcastMapsHost::Task task) {
        auto* boxed = new (std::nothrow) qelmaps_task{std::move(task)};
        if (boxed) dispatch(boxed, userData);
      };
    }
    options.handler = [raw = client.get()](qel::QELBroadcastMapsHostEvent event, Snapshot snapshot) {
      const auto e = cEvent(event);
      if (!e) return;
      const Callback callback = raw->callbacks[static_cast<std::size_t>(*e)];
      if (!callback.function) return;
      const Delivery previous = currentDelivery;
      currentDelivery = {raw, &snapshot};
      const LibraryThreadScope scope(!raw->dispatched);
      callback.function(raw, *e, callback.userData);
      currentDelivery = previous;
    };
    if (config->trace) options.listener = std::make_shared<TraceListener>(client.get(), config->trace, config->traceUserData);
    client->host = qel::QELBroadcastMapsHost::create(std::move(options));
    if (!client->host) {
      if (client->logRouted) qel::core::QELLogging::setSink({});
      clientAlive = false;
      return QELMAPS_ERROR_UNAVAILABLE;
    }
    *out = client.release();
    return QELMAPS_OK;
  } catch (const std::bad_alloc&) {
    clientAlive = false;
    return QELMAPS_ERROR_OUT_OF_MEMORY;
  } catch (const std::exception&) {
    clientAlive = false;
    return QELMAPS_ERROR_UNAVAILABLE;
  }
}

qelmaps_error qelmaps_client_destroy(qelmaps_client* client) {
  if (!client) return QELMAPS_OK;
  // A callback on the host's own thread: the host would wait for itself.
  if (onLibraryThread) return QELMAPS_ERROR_WRONG_THREAD;
  client->host.reset();
  if (client->logRouted) qel::core::QELLogging::setSink({});
  delete client;
  clientAlive = false;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_start(qelmaps_client* client) {
  if (!client) return QELMAPS_ERROR_NULL_ARGUMENT;
  client->host->start();
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_stop(qelmaps_client* client) {
  if (!client) return QELMAPS_ERROR_NULL_ARGUMENT;
  client->host->stop();
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_choose_resolution(qelmaps_client* client, double width, double height) {
  if (!client) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (!std::isfinite(width) || !std::isfinite(height) || width <= 0 || height <= 0) {
    return QELMAPS_ERROR_INVALID_ARGUMENT;
  }
  client->host->setCurrentResolutionWithCGSize({width, height});
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_clear_resolution(qelmaps_client* client) {
  if (!client) return QELMAPS_ERROR_NULL_ARGUMENT;
  client->host->clearCurrentResolution();
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_resolutions(qelmaps_client* client, qelmaps_size* sizes, size_t capacity,
                                         size_t* count) {
  if (!client || !count || (!sizes && capacity > 0)) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  const auto& resolutions = snapshot->resolutions;
  for (std::size_t i = 0; i < resolutions.size() && i < capacity; ++i) {
    sizes[i] = {resolutions[i].width, resolutions[i].height};
  }
  *count = resolutions.size();
  return capacity < resolutions.size() ? QELMAPS_ERROR_BUFFER_TOO_SMALL : QELMAPS_OK;
}

qelmaps_error qelmaps_client_current_resolution(qelmaps_client* client, qelmaps_size* size) {
  if (!client || !size) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  if (!snapshot->currentResolution) return QELMAPS_ERROR_NO_RESOLUTION;
  *size = {snapshot->currentResolution->width, snapshot->currentResolution->height};
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_state(qelmaps_client* client, int* receiving, int* has_map_data) {
  if (!client || (!receiving && !has_map_data)) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  if (receiving) *receiving = snapshot->receiving ? 1 : 0;
  if (has_map_data) *has_map_data = snapshot->hasMapData ? 1 : 0;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_map_data(qelmaps_client* client, qelmaps_map_data* map_data) {
  if (!client || !map_data) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  *map_data = snapshot->hasMapData     ? QELMAPS_MAP_DATA_LISTED
              : snapshot->hasMapRecord ? QELMAPS_MAP_DATA_EMPTY
                                       : QELMAPS_MAP_DATA_NONE;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_network_changed(qelmaps_client* client) {
  if (!client) return QELMAPS_ERROR_NULL_ARGUMENT;
  client->host->networkDidChange();
  return QELMAPS_OK;
}

qelmaps_error qelmaps_client_picture(qelmaps_client* client, qelmaps_picture** picture) {
  if (!client || !picture) return QELMAPS_ERROR_NULL_ARGUMENT;
  const auto snapshot = client->snapshot();
  auto image = snapshot->image;
  if (!image) return QELMAPS_ERROR_NO_PICTURE;
  auto* result = new (std::nothrow) qelmaps_picture;
  if (!result) return QELMAPS_ERROR_OUT_OF_MEMORY;
  result->receivedAtMs = qel::capi::receivedAtMs(*snapshot, image);
  result->image = std::move(image);
  *picture = result;
  return QELMAPS_OK;
}

}  // extern "C"
