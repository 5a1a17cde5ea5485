#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace qel::core::net::testing {

// Throw-away certificates made in the test: a CA, and server certificates it
// signs for the names and addresses a test needs.
//
//   auto ca = TestCertificate::authority("Test CA");
//   auto server = TestCertificate::issue(ca, {"localhost"}, {"127.0.0.1"});
//   writeFile(caPath, ca.certificatePem());
class TestCertificate {
 public:
  static TestCertificate authority(const std::string& commonName);
  static TestCertificate issue(const TestCertificate& authority, const std::vector<std::string>& dnsNames,
                               const std::vector<std::string>& ipAddresses);

  std::string certificatePem() const;
  std::string privateKeyPem() const;

 private:
  std::shared_ptr<EVP_PKEY> key_;
  std::shared_ptr<X509> certificate_;
};

// A file in the temporary directory, removed when this goes away.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& contents);
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& path() const { return path_; }
  void rewrite(const std::string& contents);

 private:
  std::string path_;
};

}  // namespace qel::core::net::testing
