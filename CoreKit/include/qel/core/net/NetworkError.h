#pragma once

#include <qel/Data.h>

#include <string>

namespace qel::core::net {

// The errors the network transports report to the request queue.
//
// A non-2xx answer is reported in its own domain with the HTTP status as the
// code, so callers can tell "the server said no" from "the server could not
// be reached". Everything else is in kNetworkErrorDomain with one of the
// codes below.
//
//   if (error.domain == net::kHTTPStatusErrorDomain && error.code == 404) ...
inline constexpr const char* kNetworkErrorDomain = "QELNetworkErrorDomain";
inline constexpr const char* kHTTPStatusErrorDomain = "QELHTTPStatusErrorDomain";

enum class NetworkErrorCode {
  InvalidURL = 1,  // the request has no URL, or one that cannot be parsed
  RefusedURL,      // a URL the policy does not allow (foreign host, scheme)
  TlsSetup,        // the trust store or CA file could not be loaded
  Resolve,         // the host name did not resolve
  Connect,         // no TCP connection: no route, or no answer in time
  Handshake,       // TLS could not be agreed on
  Timeout,         // connect or whole-request timeout
  Io,              // the connection failed while writing or reading
  Redirect,        // a 3xx answer; redirects are never followed
  TooLarge,        // the body exceeds the request's maximum response size
  Refused,         // the address answered, but nothing listens on the port
  Certificate,     // the server's certificate is not trusted or names another host
};

inline Error networkError(NetworkErrorCode code, std::string description) {
  return Error{kNetworkErrorDomain, static_cast<int>(code), std::move(description)};
}

}  // namespace qel::core::net
