#include "qel/core/QELHostname.h"
#include "qel/core/QELLogging.h"

#include <qel/Format.h>
#include <qel/GccWarnings.h>
#include <qel/Image.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace qel::core {
namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

constexpr std::uint16_t kDefaultPort = 443;
constexpr const char* kDefaultEventPath = "/skelion/events";
constexpr int kDefaultLogThreshold = 3;
constexpr long kDefaultMaxMapEntries = 256;
// 1 GiB decoded: more would not fit a passenger device anyway.
constexpr long kLargestMaxPixels = 256l * 1024 * 1024;

// What the application set, and what was last resolved from it and the
// environment. The application may set it on its own thread while a loop
// thread reads it, hence the lock; never destroyed, so that a service kept
// in a static can still read it at exit.
struct Settings {
  std::mutex mutex;
  QELConfiguration application;
  std::shared_ptr<const QELConfiguration> resolved;
  // Counts set() and reread(), so that a reading they overtook is not kept.
  std::uint64_t generation = 0;
};

Settings& settings() {
  static auto* const instance = new Settings;
  return *instance;
}

// The variable's text; empty when unset or set to nothing.
std::optional<std::string> environmentText(const char* name) {
  const char* text = std::getenv(name);
  if (!text || !*text) return std::nullopt;
  return std::string(text);
}

// The variable as an integer within [minimum, maximum]; anything else is
// reported and ignored.
std::optional<long> environmentInteger(const char* name, long minimum, long maximum) {
  const auto text = environmentText(name);
  if (!text) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text->c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || value < minimum || value > maximum) {
    QELLogging::log("Ignoring %s=\"%s\": expected a whole number from %d to %d.", 2, kDomain, name, *text, minimum,
                    maximum);
    return std::nullopt;
  }
  return value;
}

// Fills in what the application left open, reading the environment; an
// unusable value is logged here, so once per reading.
QELConfiguration withFallbacks(QELConfiguration result);

}  // namespace

void QELConfiguration::set(const QELConfiguration& configuration) {
  {
    auto& shared = settings();
    const std::lock_guard lock(shared.mutex);
    shared.application = configuration;
    shared.resolved = nullptr;
    ++shared.generation;
  }
  // Only an explicit threshold is applied, so that a test's or a tool's
  // setting survives an application that leaves it open.
  if (configuration.logThreshold) QELLogging::setThreshold(*configuration.logThreshold);
}

// GCC 12 bug 80635: a bogus -Wmaybe-uninitialized inside libstdc++ when
// optimising the copy of an engaged std::optional<std::string>.
QEL_GCC_IGNORE_BEGIN("-Wmaybe-uninitialized")
void QELConfiguration::reread() {
  auto& shared = settings();
  const std::lock_guard lock(shared.mutex);
  shared.resolved = nullptr;
  ++shared.generation;
}

std::shared_ptr<const QELConfiguration> QELConfiguration::current() {
  auto& shared = settings();
  QELConfiguration application;
  std::uint64_t generation = 0;
  {
    const std::lock_guard lock(shared.mutex);
    if (shared.resolved) return shared.resolved;
    application = shared.application;
    generation = shared.generation;
  }
  // Resolved without the lock: a log sink may be application code.
  auto resolved = std::make_shared<const QELConfiguration>(withFallbacks(std::move(application)));
  const std::lock_guard lock(shared.mutex);
  // A set() in the meantime made this reading stale: it serves this caller only.
  if (!shared.resolved && shared.generation == generation) shared.resolved = resolved;
  return resolved;
}

QELConfiguration QELConfiguration::effective() { return *current(); }

namespace {

QELConfiguration withFallbacks(QELConfiguration result) {
  if (!result.host || result.host->empty()) result.host = environmentText("QEL_SKELION_HOSTNAME");
  if (!result.port) {
    const auto port = environmentInteger("QEL_SKELION_PORT", 1, 65535);
    result.port = port ? static_cast<std::uint16_t>(*port) : kDefaultPort;
  }
  if (!result.caFile || result.caFile->empty()) result.caFile = environmentText("QEL_CA_FILE");
  if (!result.eventPath || result.eventPath->empty()) {
    auto path = environmentText("QEL_EVENT_PATH");
    if (path && path->front() != '/') {
      QELLogging::log("Ignoring QEL_EVENT_PATH=\"%s\": a path starts with \"/\".", 2, kDomain, *path);
      path.reset();
    }
    result.eventPath = path ? *path : kDefaultEventPath;
  }
  if (!result.dnsServers || result.dnsServers->empty()) result.dnsServers = environmentText("QEL_DNS_SERVERS");
  if (!result.maxPixels) {
    const auto pixels = environmentInteger("QEL_MAX_PIXELS", 1, kLargestMaxPixels);
    result.maxPixels = pixels ? static_cast<std::uint64_t>(*pixels) : Image::kMaxPixels;
  }
  if (!result.maxMapEntries) {
    const auto entries = environmentInteger("QEL_MAX_MAP_ENTRIES", 1, 1'000'000);
    result.maxMapEntries = static_cast<std::size_t>(entries.value_or(kDefaultMaxMapEntries));
  }
  if (result.reconnect && !result.reconnect->valid()) {
    QELLogging::log("Ignoring the reconnect policy: each wait needs a positive start, a multiplier of at least 1, "
                    "a cap not below the start and a jitter within [0, 1].", 2, kDomain);
    result.reconnect.reset();
  }
  if (!result.reconnect) result.reconnect = ReconnectPolicy{};
  if (!result.logThreshold) {
    const auto level = environmentInteger("QEL_LOG_LEVEL", 0, 100);
    result.logThreshold = level ? static_cast<int>(*level) : kDefaultLogThreshold;
  }
  return result;
}

}  // namespace
QEL_GCC_IGNORE_END

std::optional<std::string> QELHostname::skelionHostname() {
  auto host = QELConfiguration::current()->host;
  if (host && host->empty()) return std::nullopt;
  return host;
}

}  // namespace qel::core
