// The C API's configuration: every setting an application may give the
// C++ configuration, plus the callbacks, the dispatch hook and the log
// callback. Filled on one thread, then copied by qelmaps_client_create().

#include "CApiHandles.h"

#include <limits>
#include <new>
#include <string>

namespace {

using qel::core::QELConfiguration;

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
