#include "qel/core/net/UrlPolicy.h"

#include "qel/core/QELLogging.h"
#include "qel/core/net/Resolver.h"
#include "qel/core/net/TlsContext.h"

#include <qel/GccWarnings.h>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace qel::core::net {
namespace {

std::string lowercase(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

// The configured host as URLs carry it inside their brackets: an IPv6 cabin
// host may be configured as "::1" or as "[::1]".
std::string bareHost(std::string_view host) { return lowercase(Resolver::unbracketed(host)); }

// URLs come from the server's map data: escaped, so that the refusal can go
// into a log line as it is. GCC 12 bug 105329: a bogus -Wrestrict inside
// libstdc++ when optimising "literal" + std::string.
QEL_GCC_IGNORE_BEGIN("-Wrestrict")
std::string quoted(std::string_view url) { return "\"" + QELLogging::escaped(url) + "\""; }
QEL_GCC_IGNORE_END

UrlPolicy::Decision refuse(std::string why) {
  UrlPolicy::Decision decision;
  decision.refusal = std::move(why);
  return decision;
}

// Takes an absolute http(s) URL apart; the refusal names the URL.
UrlPolicy::Decision parseAbsolute(std::string_view text, std::uint16_t defaultPort) {
  auto parsed = boost::urls::parse_uri(text);
  if (!parsed) return refuse("not a valid URL: " + quoted(text));
  const boost::urls::url_view url = *parsed;
  const std::string scheme = lowercase(url.scheme());
  if (scheme != "https" && scheme != "http") {
    return refuse("scheme \"" + scheme + "\" not allowed in " + quoted(text));
  }
  if (!url.has_authority() || url.host_address().empty()) return refuse("no host in " + quoted(text));
  if (url.has_userinfo()) return refuse("user information not allowed in " + quoted(text));

  Endpoint endpoint;
  endpoint.tls = scheme == "https";
  endpoint.host = lowercase(url.host_address());
  if (url.host_type() == boost::urls::host_type::ipvfuture) return refuse("unsupported host in " + quoted(text));
  endpoint.port = defaultPort;
  if (url.has_port()) {
    const auto port = url.port();
    unsigned value = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || error != std::errc() || end != port.data() + port.size() || value == 0 || value > 65535) {
      return refuse("invalid port in " + quoted(text));
    }
    endpoint.port = static_cast<std::uint16_t>(value);
  }
  endpoint.target = url.encoded_path().empty() ? "/" : std::string(url.encoded_path());
  if (endpoint.target.front() != '/') endpoint.target.insert(endpoint.target.begin(), '/');
  if (url.has_query()) endpoint.target += "?" + std::string(url.encoded_query());

  const bool ipv6 = url.host_type() == boost::urls::host_type::ipv6;
  endpoint.hostHeader = ipv6 ? "[" + endpoint.host + "]" : endpoint.host;
  const std::uint16_t schemePort = endpoint.tls ? 443 : 80;
  if (endpoint.port != schemePort) endpoint.hostHeader += ":" + std::to_string(endpoint.port);

  UrlPolicy::Decision decision;
  decision.endpoint = std::move(endpoint);
  return decision;
}

}  // namespace

// GCC 12 bug 105329: a bogus -Wrestrict inside libstdc++ when optimising
// "literal" + std::string.
QEL_GCC_IGNORE_BEGIN("-Wrestrict")
std::string Endpoint::url() const {
  std::string text = tls ? "https://" : "http://";
  text += host.find(':') != std::string::npos ? "[" + host + "]" : host;
  text += ":" + std::to_string(port) + target;
  return text;
}
QEL_GCC_IGNORE_END

UrlPolicy::Decision UrlPolicy::resolve(const QELRequest& request, const QELConfiguration& configuration) const {
  const auto url = request.requestURL();
  if (!url || url->empty()) return refuse("the request has no URL");
  return request.kind() == QELRequest::Kind::ImageDownload ? resolveImageSource(*url, configuration)
                                                           : resolveServiceURL(*url, configuration);
}

UrlPolicy::Decision UrlPolicy::resolveServiceURL(std::string_view url, const QELConfiguration& configuration) const {
  return parseAbsolute(url, configuration.port.value_or(443));
}

UrlPolicy::Decision UrlPolicy::resolveImageSource(std::string_view source,
                                                  const QELConfiguration& configuration) const {
  const std::uint16_t port = configuration.port.value_or(443);
  const std::string cabinHost = bareHost(configuration.host.value_or(""));

  if (source.size() >= 1 && source.front() == '/' && !source.starts_with("//")) {
    if (cabinHost.empty()) return refuse("no cabin server host configured to resolve " + quoted(source));
    const bool ipv6 = cabinHost.find(':') != std::string::npos;
    const std::string base = "https://" + (ipv6 ? "[" + cabinHost + "]" : cabinHost) + ":" + std::to_string(port);
    return parseAbsolute(base + std::string(source), port);
  }

  auto decision = parseAbsolute(source, port);
  if (!decision.endpoint) return decision;
  if (!decision.endpoint->tls && !options_.allowPlainHttp) {
    return refuse("refused image URL " + quoted(source) + ": only https is allowed");
  }
  // Same origin as the cabin server: host and port (the scheme is https
  // above), so that another service on the cabin host cannot serve pictures.
  if (!options_.allowOtherHosts && (decision.endpoint->host != cabinHost || decision.endpoint->port != port)) {
    const bool ipv6 = cabinHost.find(':') != std::string::npos;
    return refuse("refused image URL " + quoted(source) + ": only the cabin server (" +
                  (cabinHost.empty()
                       ? std::string("none configured")
                       : "https://" + (ipv6 ? "[" + cabinHost + "]" : cabinHost) + ":" + std::to_string(port)) +
                  ") may serve images");
  }
  return decision;
}

}  // namespace qel::core::net
