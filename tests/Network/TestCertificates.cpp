#include "TestServer.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace qel::core::net::testing {
namespace {

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
  check(extension != nullptr, "certificate extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

// A certificate for a new key, signed by `issuer` or, without one, by itself.
TestCertificate make(const std::string& commonName, const TestCertificate* issuer, const std::string& names) {
  static long serial = 0;
  TestCertificate result{std::shared_ptr<EVP_PKEY>(EVP_EC_gen("P-256"), EVP_PKEY_free),
                         std::shared_ptr<X509>(X509_new(), X509_free)};
  check(result.key != nullptr, "EC key generation");
  X509* x = result.certificate.get();
  X509* signer = issuer ? issuer->certificate.get() : x;
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 24 * 3600);
  X509_set_pubkey(x, result.key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509_set_issuer_name(x, X509_get_subject_name(signer));
  addExtension(x, signer, NID_basic_constraints, issuer ? "critical,CA:FALSE" : "critical,CA:TRUE");
  if (issuer) addExtension(x, signer, NID_subject_alt_name, names);
  check(X509_sign(x, (issuer ? issuer : &result)->key.get(), EVP_sha256()) > 0, "signing");
  return result;
}

}  // namespace

TestCertificate TestCertificate::authority(const std::string& commonName) { return make(commonName, nullptr, {}); }

TestCertificate TestCertificate::issue(const std::string& alternativeNames) const {
  return make("server", this, alternativeNames);
}

void TestCertificate::writePem(const std::string& path) const {
  std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "w"), BIO_free);
  check(file && PEM_write_bio_X509(file.get(), certificate.get()) == 1, "writing the certificate");
}

void TestCertificate::writeKeyPem(const std::string& path) const {
  std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "w"), BIO_free);
  check(file && PEM_write_bio_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "writing the key");
}

}  // namespace qel::core::net::testing
