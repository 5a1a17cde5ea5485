// The C API over QELBroadcastMapsHost: handles, error codes and callbacks
// for applications that cannot call C++. No exception crosses this file's
// functions: each one either cannot throw or catches and answers with an
// error code.

#include <QELMaps/QELBroadcastMapsHost.h>
#include <QELMaps/qelmaps.h>

#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>

#include <array>
#include <atomic>
#include <cmath>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>

#ifndef QELMAPS_VERSION
#error "QELMAPS_VERSION is defined by the build"
#endif

namespace {

using Snapshot = qel::QELBroadcastMapsHost::Snapshot;

constexpr std::size_t kEventCount = 6;

struct Callback {
  qelmaps_callback function = nullptr;
  void* userData = nullptr;
};

std::optional<qelmaps_event> cEvent(qel::QELBroadcastMapsHostEvent event) {
  using E = qel::QELBroadcastMapsHostEvent;
  switch (event) {
    case E::AvailableResolutionsDidChange: return QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE;
    case E::ImageDidChange: return QELMAPS_EVENT_IMAGE_DID_CHANGE;
    case E::ImageDidStopReceivingImage: return QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE;
    case E::Error: return QELMAPS_EVENT_ERROR;
    case E::ImageDidStartReceivingImage: return QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE;
    case E::StateDidChange: return QELMAPS_EVENT_STATE_DID_CHANGE;
  }
  return std::nullopt;
}

bool validEvent(qelmaps_event event) {
  return static_cast<unsigned>(event) < kEventCount;
}

// Only one client at a time: the log sink and the service's state are
// process-wide, and the sink must not change while a loop thread logs.
std::atomic<bool> clientAlive{false};

// The delivery whose callback runs on this thread, so that reads inside a
// callback see what was announced rather than a later state.
struct Delivery {
  const qelmaps_client* client = nullptr;
  const Snapshot* snapshot = nullptr;
};
thread_local Delivery currentDelivery;

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

}  // namespace

struct qelmaps_config {
  qel::core::QELConfiguration configuration;
  std::array<Callback, kEventCount> callbacks{};
  qelmaps_dispatch dispatch = nullptr;
  void* dispatchUserData = nullptr;
  qelmaps_log_callback log = nullptr;
  void* logUserData = nullptr;
};

struct qelmaps_client {
  std::array<Callback, kEventCount> callbacks{};
  bool logRouted = false;
  bool dispatched = false;
  std::unique_ptr<qel::QELBroadcastMapsHost> host;

  Snapshot snapshot() const {
    if (currentDelivery.client == this) return *currentDelivery.snapshot;
    return host->snapshot();
  }
};

struct qelmaps_task {
  qel::QELBroadcastMapsHost::Task task;
};

struct qelmaps_picture {
  std::shared_ptr<const qel::Image> image;
  std::atomic<std::size_t> references{1};
};

extern "C" {

const char* qelmaps_error_string(qelmaps_error error) {
  switch (static_cast<int>(error)) {
    case QELMAPS_OK: return "QELMAPS_OK";
    case QELMAPS_ERROR_NULL_ARGUMENT: return "QELMAPS_ERROR_NULL_ARGUMENT";
    case QELMAPS_ERROR_INVALID_ARGUMENT: return "QELMAPS_ERROR_INVALID_ARGUMENT";
    case QELMAPS_ERROR_NO_PICTURE: return "QELMAPS_ERROR_NO_PICTURE";
    case QELMAPS_ERROR_NO_RESOLUTION: return "QELMAPS_ERROR_NO_RESOLUTION";
    case QELMAPS_ERROR_BUFFER_TOO_SMALL: return "QELMAPS_ERROR_BUFFER_TOO_SMALL";
    case QELMAPS_ERROR_BUSY: return "QELMAPS_ERROR_BUSY";
    case QELMAPS_ERROR_UNAVAILABLE: return "QELMAPS_ERROR_UNAVAILABLE";
    case QELMAPS_ERROR_WRONG_THREAD: return "QELMAPS_ERROR_WRONG_THREAD";
    case QELMAPS_ERROR_OUT_OF_MEMORY: return "QELMAPS_ERROR_OUT_OF_MEMORY";
  }
  return "QELMAPS_ERROR_UNKNOWN";
}

const char* qelmaps_version(void) { return QELMAPS_VERSION; }

const char* qelmaps_service_version(void) { return "03.19.02.00"; }

const char* qelmaps_event_name(qelmaps_event event) {
  switch (static_cast<int>(event)) {
    case QELMAPS_EVENT_AVAILABLE_RESOLUTIONS_DID_CHANGE: return QELMAPS_AVAILABLE_RESOLUTIONS_DID_CHANGE_NOTIFICATION;
    case QELMAPS_EVENT_IMAGE_DID_CHANGE: return QELMAPS_IMAGE_DID_CHANGE_NOTIFICATION;
    case QELMAPS_EVENT_IMAGE_DID_STOP_RECEIVING_IMAGE: return QELMAPS_IMAGE_DID_STOP_RECEIVING_IMAGE_NOTIFICATION;
    case QELMAPS_EVENT_ERROR: return QELMAPS_ERROR_NOTIFICATION;
    case QELMAPS_EVENT_IMAGE_DID_START_RECEIVING_IMAGE: return QELMAPS_IMAGE_DID_START_RECEIVING_IMAGE_NOTIFICATION;
    case QELMAPS_EVENT_STATE_DID_CHANGE: return "";
  }
  return nullptr;
}

// MARK: - Configuration

qelmaps_config* qelmaps_config_create(void) { return new (std::nothrow) qelmaps_config; }

void qelmaps_config_destroy(qelmaps_config* config) { delete config; }

static qelmaps_error setString(qelmaps_config* config, const char* value,
                               std::optional<std::string> qel::core::QELConfiguration::*field) {
  if (!config || !value) return QELMAPS_ERROR_NULL_ARGUMENT;
  try {
    config->configuration.*field = std::string(value);
  } catch (const std::bad_alloc&) {
    return QELMAPS_ERROR_OUT_OF_MEMORY;
  }
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_host(qelmaps_config* config, const char* host) {
  return setString(config, host, &qel::core::QELConfiguration::host);
}

qelmaps_error qelmaps_config_set_ca_file(qelmaps_config* config, const char* path) {
  return setString(config, path, &qel::core::QELConfiguration::caFile);
}

qelmaps_error qelmaps_config_set_event_path(qelmaps_config* config, const char* path) {
  return setString(config, path, &qel::core::QELConfiguration::eventPath);
}

qelmaps_error qelmaps_config_set_port(qelmaps_config* config, int port) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (port < 1 || port > 65535) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->configuration.port = static_cast<std::uint16_t>(port);
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_log_threshold(qelmaps_config* config, int threshold) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (threshold < 0) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->configuration.logThreshold = threshold;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_log_callback(qelmaps_config* config, qelmaps_log_callback callback,
                                              void* user_data) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  config->log = callback;
  config->logUserData = user_data;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_callback(qelmaps_config* config, qelmaps_event event,
                                          qelmaps_callback callback, void* user_data) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (!validEvent(event)) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->callbacks[static_cast<std::size_t>(event)] = {callback, user_data};
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_dispatch(qelmaps_config* config, qelmaps_dispatch dispatch, void* user_data) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  config->dispatch = dispatch;
  config->dispatchUserData = user_data;
  return QELMAPS_OK;
}

// MARK: - Tasks

void qelmaps_task_run(qelmaps_task* task) {
  if (!task) return;
  // Moved out first, so the task is freed even if the callback destroys the
  // client (and with it whatever the closure refers to).
  auto run = std::move(task->task);
  delete task;
  if (run) run();
}

void qelmaps_task_discard(qelmaps_task* task) { delete task; }

// MARK: - Client

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

qelmaps_error qelmaps_client_picture(qelmaps_client* client, qelmaps_picture** picture) {
  if (!client || !picture) return QELMAPS_ERROR_NULL_ARGUMENT;
  auto image = client->snapshot()->image;
  if (!image) return QELMAPS_ERROR_NO_PICTURE;
  auto* result = new (std::nothrow) qelmaps_picture;
  if (!result) return QELMAPS_ERROR_OUT_OF_MEMORY;
  result->image = std::move(image);
  *picture = result;
  return QELMAPS_OK;
}

// MARK: - Pictures

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
