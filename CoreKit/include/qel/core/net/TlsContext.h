#pragma once

#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/system/error_code.hpp>

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
//   std::string why;
//   auto context = TlsContext::forCaFile(config.caFile, &why);
//   TlsStream stream(ioContext, *context);
//   TlsContext::prepare(stream, "cabin.local", &why);
class TlsContext {
 public:
  // A verifying client context for `caFile` (empty: the system's store).
  // The last one built is reused while the CA file's contents stay the
  // same. Empty, with `error` set, when the trust store cannot be loaded.
  static std::shared_ptr<boost::asio::ssl::context> forCaFile(const std::optional<std::string>& caFile,
                                                              std::string* error);

  // Readies `stream` to talk to `host`: SNI for a name (never for an IP
  // literal) and the check that the certificate names it.
  static bool prepare(TlsStream& stream, const std::string& host, std::string* error);

  // A handshake failure in words, with the certificate verdict when there is one.
  static std::string describeHandshakeFailure(TlsStream& stream, const boost::system::error_code& error);

  static bool isIPLiteral(const std::string& host);
};

}  // namespace qel::core::net
