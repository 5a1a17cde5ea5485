#pragma once

#include <qel/Format.h>
#include <qel/URL.h>
#include <qel/core/QELLogging.h>

#include <optional>
#include <string>
#include <string_view>

namespace qel::internal {

// The URL scheme names of the cabin server's services, with and without
// transport security.
inline constexpr std::string_view kSecScheme = "https";
inline constexpr std::string_view kNonSecScheme = "http";

// Composes the URL of a cabin service: scheme, host, then path and sub-path
// joined by exactly the slash they lack. A path ending in "/" joined with a
// sub-path starting with "/" keeps both slashes; servers are addressed by the
// path they are configured with, so nothing is normalised away. The result is
// the composed URL with its escapes removed, empty when that fails; an empty
// host leaves the URL without one. Every call logs the URL at level 5.
//
//   QELGetURLWithHost("cabin.local", true, "skelion/services", "maps/v1/flight_map");
//   // "https://cabin.local/skelion/services/maps/v1/flight_map"
inline std::optional<std::string> QELGetURLWithHost(const std::optional<std::string>& host,
                                                    bool secure, std::string_view path,
                                                    std::string_view subpath) {
  std::string fullPath(path);
  if (!fullPath.starts_with('/')) fullPath.insert(fullPath.begin(), '/');
  std::string sub(subpath);
  if (!sub.starts_with('/') && !fullPath.ends_with('/')) sub.insert(sub.begin(), '/');
  fullPath += sub;

  URLComponents components;
  components.setScheme(secure ? kSecScheme : kNonSecScheme);
  components.setHost(host);
  components.setPath(fullPath);
  std::optional<std::string> url = removingPercentEncoding(components.string());

  core::QELLogging::log(
      "%s Service url: %@", 5, lastPathComponent(__FILE__),
      "NSString *_QELGetURLWithHost(NSString *__strong, BOOL, NSString *__strong, NSString *__strong)",
      url);
  return url;
}

}  // namespace qel::internal
