// The C API's configuration: every setting an application may give the
// C++ configuration, plus the callbacks, the dispatch hook and the log
// callback. Filled on one thread, then copied by qelmaps_client_create().

#include "CApiHandles.h"

#include <limits>
#include <new>
#include <string>

namespace {

using qel::core::Backoff;
using qel::core::QELConfiguration;
using qel::core::ReconnectPolicy;

Backoff* backoffOf(ReconnectPolicy& policy, qelmaps_backoff_kind kind) {
  switch (kind) {
    case QELMAPS_BACKOFF_EVENTS:
      return &policy.events;
    case QELMAPS_BACKOFF_REQUESTS:
      return &policy.requests;
    case QELMAPS_BACKOFF_ENUM_WIDTH_:
      break;
  }
  return nullptr;
}

// Strings are copied now: the caller's memory stays the caller's.
template <typename Assign>
qelmaps_error assign(qelmaps_config* config, const void* value, Assign assign) {
  if (!config || !value) return QELMAPS_ERROR_NULL_ARGUMENT;
  try {
    assign(config->configuration);
  } catch (const std::bad_alloc&) {
    return QELMAPS_ERROR_OUT_OF_MEMORY;
  }
  return QELMAPS_OK;
}

qelmaps_error setString(qelmaps_config* config, const char* value, std::optional<std::string> QELConfiguration::*field) {
  return assign(config, value, [&](QELConfiguration& c) { c.*field = std::string(value); });
}

}  // namespace

extern "C" {

qelmaps_config* qelmaps_config_create(void) { return new (std::nothrow) qelmaps_config; }

void qelmaps_config_destroy(qelmaps_config* config) { delete config; }

qelmaps_error qelmaps_config_set_host(qelmaps_config* config, const char* host) {
  return setString(config, host, &QELConfiguration::host);
}

qelmaps_error qelmaps_config_set_ca_file(qelmaps_config* config, const char* path) {
  return setString(config, path, &QELConfiguration::caFile);
}

qelmaps_error qelmaps_config_set_ca_pem(qelmaps_config* config, const char* pem, size_t length) {
  if (config && pem && length == 0) return QELMAPS_ERROR_INVALID_ARGUMENT;
  return assign(config, pem, [&](QELConfiguration& c) { c.caPem = std::string(pem, length); });
}

qelmaps_error qelmaps_config_set_event_path(qelmaps_config* config, const char* path) {
  return setString(config, path, &QELConfiguration::eventPath);
}

qelmaps_error qelmaps_config_set_dns_servers(qelmaps_config* config, const char* servers) {
  return setString(config, servers, &QELConfiguration::dnsServers);
}

qelmaps_error qelmaps_config_add_resolve(qelmaps_config* config, const char* entry) {
  return assign(config, entry, [&](QELConfiguration& c) { c.resolve.emplace_back(entry); });
}

qelmaps_error qelmaps_config_set_port(qelmaps_config* config, int port) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (port < 1 || port > 65535) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->configuration.port = static_cast<std::uint16_t>(port);
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_max_pixels(qelmaps_config* config, uint64_t pixels) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (pixels == 0) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->configuration.maxPixels = pixels;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_backoff_default(qelmaps_backoff_kind kind, qelmaps_backoff* backoff) {
  if (!backoff) return QELMAPS_ERROR_NULL_ARGUMENT;
  ReconnectPolicy defaults;
  const auto* chosen = backoffOf(defaults, kind);
  if (!chosen) return QELMAPS_ERROR_INVALID_ARGUMENT;
  *backoff = {static_cast<std::uint32_t>(chosen->initial.count()), chosen->multiplier,
              static_cast<std::uint32_t>(chosen->maximum.count()), chosen->jitter};
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_backoff(qelmaps_config* config, qelmaps_backoff_kind kind,
                                         const qelmaps_backoff* backoff) {
  if (!config || !backoff) return QELMAPS_ERROR_NULL_ARGUMENT;
  const Backoff wanted{std::chrono::milliseconds(backoff->initial_ms), backoff->multiplier,
                       std::chrono::milliseconds(backoff->maximum_ms), backoff->jitter};
  auto policy = config->configuration.reconnect.value_or(ReconnectPolicy{});
  auto* chosen = backoffOf(policy, kind);
  if (!chosen || !wanted.valid()) return QELMAPS_ERROR_INVALID_ARGUMENT;
  *chosen = wanted;
  config->configuration.reconnect = policy;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_max_map_entries(qelmaps_config* config, size_t entries) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (entries == 0) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->configuration.maxMapEntries = entries;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_trace_callback(qelmaps_config* config, qelmaps_trace_callback callback,
                                                void* user_data) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  config->trace = callback;
  config->traceUserData = user_data;
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_cache_dir(qelmaps_config* config, const char* path) {
  if (!config || !path) return QELMAPS_ERROR_NULL_ARGUMENT;
  if (!*path) return QELMAPS_ERROR_INVALID_ARGUMENT;
  try {
    config->cacheDirectory = path;
  } catch (const std::bad_alloc&) {
    return QELMAPS_ERROR_OUT_OF_MEMORY;
  }
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_watch_network(qelmaps_config* config, int watch) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  config->watchNetwork = watch != 0;
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
  if (!qel::capi::validEvent(event)) return QELMAPS_ERROR_INVALID_ARGUMENT;
  config->callbacks[static_cast<std::size_t>(event)] = {callback, user_data};
  return QELMAPS_OK;
}

qelmaps_error qelmaps_config_set_dispatch(qelmaps_config* config, qelmaps_dispatch dispatch, void* user_data) {
  if (!config) return QELMAPS_ERROR_NULL_ARGUMENT;
  config->dispatch = dispatch;
  config->dispatchUserData = user_data;
  return QELMAPS_OK;
}

}  // extern "C"
