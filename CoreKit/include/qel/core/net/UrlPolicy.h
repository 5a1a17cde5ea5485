#pragma once

#include "qel/core/QELHostname.h"
#include "qel/core/QELRequest.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qel::core::net {

// Where one request goes: everything a connection needs, taken apart.
struct Endpoint {
  bool tls = true;
  std::string host;         // a name or an IP literal (IPv6 without brackets)
  std::uint16_t port = 443;
  std::string target;       // path and query, "/" at least
  std::string hostHeader;   // "host" or "host:port" as the Host field wants it

  // The URL as it will be fetched, for log lines.
  std::string url() const;
};

// Decides which URL a request may fetch, and turns it into an Endpoint.
//
// An image source comes from the cabin server's data, which a pushed event can
// change, so it must not be able to send passengers' devices anywhere: an
// absolute URL is used as it is only when it names the cabin server's origin
// (https, its host and its port: another port on the same host is another
// origin); a path ("/maps/...") is resolved against https://<host>:<port>.
// Service (REST) URLs are composed by the framework from the configured host
// and may use http or https. A URL without a port uses the configured port.
//
// Threading: none; a value type.
//
//   UrlPolicy policy;
//   auto decision = policy.resolve(request, *QELConfiguration::current());
//   if (!decision.endpoint) log(decision.refusal);
class UrlPolicy {
 public:
  struct Options {
    // Let images come from any host (still only http/https).
    bool allowOtherHosts = false;
    // Let images use plain http.
    bool allowPlainHttp = false;
  };

  struct Decision {
    std::optional<Endpoint> endpoint;
    std::string refusal;  // why there is no endpoint, naming the URL
  };

  UrlPolicy() = default;
  explicit UrlPolicy(Options options) : options_(options) {}

  Decision resolve(const QELRequest& request, const QELConfiguration& configuration) const;
  Decision resolveImageSource(std::string_view source, const QELConfiguration& configuration) const;
  Decision resolveServiceURL(std::string_view url, const QELConfiguration& configuration) const;

 private:
  Options options_;
};

}  // namespace qel::core::net
