#pragma once

#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/system/error_code.hpp>

#include <qel/core/QELHostname.h>

#include <memory>
#include <optional>
#include <string>

namespace qel::core::net {

using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

// The client side of TLS for every connection to the cabin server.
//
// Verification is always on: the peer must present a chain that ends in a
// trusted CA (the system's store, or only the CA file when one is
// configured), and the certificate must name the host we asked for (a DNS
// name, or an IP address for an IP literal). There is deliberately no way to
// turn this off: an application that cannot verify the server gets no data.
//
// Threading: contexts are built and cached per thread; a stream is prepared
// on the thread that runs it.
//
//   std::optional<std::string> pem;
//   std::string why;
//   if (!TlsContext::trustedPem(configuration, pem, &why)) fail(why);
//   auto context = TlsContext::forTrust(pem, &why);
//   TlsStream stream(ioContext, *context);
//   TlsContext::prepare(stream, "cabin.local", &why);
class TlsContext {
 public:
  // The authorities to trust instead of the system's store, as PEM text:
  // the configuration's caPem, else the CA file's contents (read now, so a
  // tool that writes a new CA to the same path is followed); left empty for
  // the system's store. False, with `error` set, when the CA file cannot be
  // read or is empty.
  static bool trustedPem(const QELConfiguration& configuration, std::optional<std::string>& pem,
                         std::string* error);

  // A verifying client context that trusts `pem` (empty: the system's
  // store). The last one built is reused while the trust stays the same.
  // Empty, with `error` set, when the trust cannot be loaded.
  static std::shared_ptr<boost::asio::ssl::context> forTrust(const std::optional<std::string>& pem,
                                                             std::string* error);

  // Readies `stream` to talk to `host`: SNI for a name (never for an IP
  // literal) and the check that the certificate names it.
  static bool prepare(TlsStream& stream, const std::string& host, std::string* error);

  // A handshake failure in words, with the certificate verdict when there is one.
  static std::string describeHandshakeFailure(TlsStream& stream, const boost::system::error_code& error);
  // Why the certificate was not accepted ("unable to get local issuer
  // certificate"), or none when it was.
  static std::optional<std::string> certificateVerdict(TlsStream& stream);

  static bool isIPLiteral(const std::string& host);
};

}  // namespace qel::core::net
