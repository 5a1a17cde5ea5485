#pragma once

#include "qel/core/ReconnectPolicy.h"

#include <qel/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qel::core {

// Where the cabin server is and how to trust it. Applications set it once at
// start-up; every field left empty falls back to an environment variable,
// then to a built-in default:
//   host            QEL_SKELION_HOSTNAME   (none)
//   port            QEL_SKELION_PORT       443
//   caFile          QEL_CA_FILE            (the system's trust store)
//   eventPath       QEL_EVENT_PATH         "/skelion/events"
//   logThreshold    QEL_LOG_LEVEL          2
//   dnsServers      QEL_DNS_SERVERS        (the system's name servers)
//   maxPixels       QEL_MAX_PIXELS         16777216 (a decoded picture's budget)
//   maxMapEntries   QEL_MAX_MAP_ENTRIES    256 (entries of the map record)
//   reconnect       (none)                 ReconnectPolicy's defaults
// `resolve` has no fallback.
struct QEL_EXPORT QELConfiguration {
  std::optional<std::string> host;
  std::optional<std::uint16_t> port;
  std::optional<std::string> caFile;
  // The authorities to trust as PEM text held in memory (an application
  // that carries its cabin authority in its bundle); takes precedence over
  // caFile. No environment fallback.
  std::optional<std::string> caPem;
  std::optional<std::string> eventPath;
  std::optional<int> logThreshold;
  // A fixed host table for both channels: entries "HOST:PORT:ADDR[,ADDR...]"
  // replace the name lookup for that host and port (addresses are tried in
  // the order given). For tests and for cabins without working DNS.
  std::vector<std::string> resolve;
  // Name servers to ask instead of the system's, "ADDR[:PORT][,...]"
  // (bracket an IPv6 address that has a port).
  std::optional<std::string> dnsServers;
  // Limits against a careless or hostile server: a picture whose header
  // declares more pixels is not decoded, and map data that would make the
  // record hold more entries is refused whole.
  std::optional<std::uint64_t> maxPixels;
  std::optional<std::size_t> maxMapEntries;
  // How the event channel and failed requests wait before trying again; a
  // policy that is not valid() is logged and the defaults used instead.
  std::optional<ReconnectPolicy> reconnect;

  // Replaces the application's settings (the log threshold is applied now).
  static void set(const QELConfiguration& configuration);
  // The settings in force, with the fallbacks filled in (host and caFile may
  // still be empty). The environment is read, and an unusable value in it
  // logged, once: the result is kept until set() or reread(), so that the
  // map data and every picture do not read it again.
  static std::shared_ptr<const QELConfiguration> current();
  // A copy of current(), for changing and setting again.
  static QELConfiguration effective();
  // Reads the environment again at the next current(): each new service
  // calls it, so that a service reads it once.
  static void reread();
};

class QEL_EXPORT QELHostname {
 public:
  // The cabin server's host name, or empty when none is configured.
  static std::optional<std::string> skelionHostname();
};

}  // namespace qel::core
