#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>
#include <vector>

namespace cabinsim {

// PEM texts of the server's TLS identity.
struct ServerIdentity {
  std::string certificateChainPem;  // the server certificate (and any intermediates)
  std::string privateKeyPem;
  std::string trustAnchorPem;       // what a client must trust: the throw-away CA, or the loaded chain
};

// A throw-away certificate authority (EC P-256, self-signed, valid for a
// week) that issues server certificates for the names a server answers to.
// Nothing is written to disk. Throws std::runtime_error on failure.
//
// Threading: any thread; issue() may run on several at once.
//
//   cabinsim::CertificateAuthority authority("Test CA");
//   auto identity = authority.issue({"localhost", "127.0.0.1"});
//   sslContext.use_certificate_chain(boost::asio::buffer(identity.certificateChainPem));
//   std::ofstream("ca.pem") << authority.certificatePem();
class CertificateAuthority {
 public:
  explicit CertificateAuthority(const std::string& commonName);
  CertificateAuthority(const CertificateAuthority&) = delete;
  CertificateAuthority& operator=(const CertificateAuthority&) = delete;

  // A new key and a certificate for it whose subjectAltName holds exactly
  // `names` (each an IP address or a DNS name, as it parses); the trust anchor
  // is this authority.
  ServerIdentity issue(const std::vector<std::string>& names) const;
  const std::string& certificatePem() const { return certificatePem_; }

 private:
  std::shared_ptr<EVP_PKEY> key_;
  std::shared_ptr<X509> certificate_;
  std::string certificatePem_;
};

// A server identity from a new authority, for localhost, 127.0.0.1 and each
// of `extraNames`.
//
//   auto identity = cabinsim::makeThrowAwayIdentity({"10.0.0.5"});
ServerIdentity makeThrowAwayIdentity(const std::vector<std::string>& extraNames);

// Reads a certificate chain and a private key (PEM files). The trust anchor is
// the last certificate of the chain, which for a self-signed certificate is
// the certificate itself. Throws std::runtime_error when a file is unreadable
// or holds no PEM block.
ServerIdentity loadIdentity(const std::string& certificateFile, const std::string& keyFile);

}  // namespace cabinsim
