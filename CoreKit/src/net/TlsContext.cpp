#include "qel/core/net/TlsContext.h"

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/error.hpp>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <fstream>
#include <iterator>

namespace qel::core::net {
namespace ssl = boost::asio::ssl;

namespace {

struct CachedContext {
  std::optional<std::string> pem;
  std::shared_ptr<ssl::context> context;
};

}  // namespace

bool TlsContext::isIPLiteral(const std::string& host) {
  boost::system::error_code error;
  boost::asio::ip::make_address(host, error);
  return !error;
}

bool TlsContext::trustedPem(const QELConfiguration& configuration, std::optional<std::string>& pem,
                            std::string* error) {
  pem.reset();
  if (configuration.caPem && !configuration.caPem->empty()) {
    pem = configuration.caPem;
    return true;
  }
  if (!configuration.caFile || configuration.caFile->empty()) return true;
  std::ifstream file(*configuration.caFile, std::ios::binary);
  std::string contents{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file.good() && !file.eof()) contents.clear();
  if (contents.empty()) {
    if (error) *error = "cannot read the CA file \"" + *configuration.caFile + "\"";
    return false;
  }
  pem = std::move(contents);
  return true;
}

std::shared_ptr<ssl::context> TlsContext::forTrust(const std::optional<std::string>& pem, std::string* error) {
  // Loading the system store parses hundreds of certificates; every request
  // of a session uses the same trust, so keep the last context.
  thread_local CachedContext cache;
  if (cache.context && cache.pem == pem) return cache.context;

  auto context = std::make_shared<ssl::context>(ssl::context::tls_client);
  context->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                       ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
  context->set_verify_mode(ssl::verify_peer);
  boost::system::error_code loadError;
  if (pem) {
    // Adds every certificate of the text, not only the first.
    context->add_certificate_authority(boost::asio::buffer(*pem), loadError);
    if (loadError) {
      if (error) *error = "cannot load the trusted authorities: " + loadError.message();
      return nullptr;
    }
  } else {
    context->set_default_verify_paths(loadError);
    if (loadError) {
      if (error) *error = "cannot load the system's trust store: " + loadError.message();
      return nullptr;
    }
  }
  cache = CachedContext{pem, context};
  return context;
}

bool TlsContext::prepare(TlsStream& stream, const std::string& host, std::string* error) {
  SSL* ssl = stream.native_handle();
  if (isIPLiteral(host)) {
    // SNI carries names only; an address is checked against the
    // certificate's IP entries instead.
    if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) != 1) {
      if (error) *error = "cannot check the certificate against the address " + host;
      return false;
    }
    return true;
  }
  if (SSL_set_tlsext_host_name(ssl, host.c_str()) != 1) {
    if (error) *error = "cannot set the server name " + host;
    return false;
  }
  // OpenSSL's own name check reports a mismatch as such, which makes the
  // log line say what went wrong rather than a bare "verify failed".
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  if (SSL_set1_host(ssl, host.c_str()) != 1) {
    if (error) *error = "cannot check the certificate against the name " + host;
    return false;
  }
  return true;
}

std::optional<std::string> TlsContext::certificateVerdict(TlsStream& stream) {
  const long verdict = SSL_get_verify_result(stream.native_handle());
  if (verdict == X509_V_OK) return std::nullopt;
  return X509_verify_cert_error_string(verdict);
}

std::string TlsContext::describeHandshakeFailure(TlsStream& stream, const boost::system::error_code& error) {
  const long verdict = SSL_get_verify_result(stream.native_handle());
  if (verdict != X509_V_OK) {
    return std::string("certificate not accepted: ") + X509_verify_cert_error_string(verdict);
  }
  return "TLS handshake failed: " + error.message();
}

}  // namespace qel::core::net
