#pragma once

#include <string>
#include <vector>

namespace cabinsim {

// PEM texts of the server's TLS identity.
struct ServerIdentity {
  std::string certificateChainPem;  // the server certificate (and any intermediates)
  std::string privateKeyPem;
  std::string trustAnchorPem;       // what a client must trust: the throw-away CA, or the loaded chain
};

// Creates a throw-away certificate authority (EC P-256, self-signed, valid for
// a few days) and a server certificate signed by it whose subjectAltName
// holds localhost, 127.0.0.1 and each of `extraNames` (IP or DNS name as they
// parse). Nothing is written to disk. Throws std::runtime_error on failure.
//
// Threading: any thread.
//
//   auto identity = cabinsim::makeThrowAwayIdentity({"127.0.0.1"});
//   sslContext.use_certificate_chain(boost::asio::buffer(identity.certificateChainPem));
ServerIdentity makeThrowAwayIdentity(const std::vector<std::string>& extraNames);

// Reads a certificate chain and a private key (PEM files). The trust anchor is
// the last certificate of the chain, which for a self-signed certificate is
// the certificate itself. Throws std::runtime_error when a file is unreadable
// or holds no PEM block.
ServerIdentity loadIdentity(const std::string& certificateFile, const std::string& keyFile);

}  // namespace cabinsim
