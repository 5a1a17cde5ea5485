#include "TestCertificates.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

namespace qel::core::net::testing {
namespace {

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

std::shared_ptr<EVP_PKEY> newKey() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  check(key != nullptr, "EC key generation");
  return std::shared_ptr<EVP_PKEY>(key, EVP_PKEY_free);
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

std::shared_ptr<X509> newCertificate(EVP_PKEY* key, const std::string& commonName) {
  std::shared_ptr<X509> certificate(X509_new(), X509_free);
  X509* x = certificate.get();
  X509_set_version(x, 2);
  unsigned char serial[8];
  RAND_bytes(serial, sizeof serial);
  serial[0] &= 0x7f;
  BIGNUM* number = BN_bin2bn(serial, sizeof serial, nullptr);
  BN_to_ASN1_INTEGER(number, X509_get_serialNumber(x));
  BN_free(number);
  X509_gmtime_adj(X509_getm_notBefore(x), -3600);
  X509_gmtime_adj(X509_getm_notAfter(x), 24 * 3600);
  X509_set_pubkey(x, key);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  return certificate;
}

template <class Write>
std::string toPem(Write write) {
  BIO* bio = BIO_new(BIO_s_mem());
  check(write(bio) == 1, "PEM encoding");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<std::size_t>(size));
  BIO_free(bio);
  return pem;
}

}  // namespace

TestCertificate TestCertificate::authority(const std::string& commonName) {
  TestCertificate result;
  result.key_ = newKey();
  result.certificate_ = newCertificate(result.key_.get(), commonName);
  X509* x = result.certificate_.get();
  X509_set_issuer_name(x, X509_get_subject_name(x));
  addExtension(x, x, NID_basic_constraints, "critical,CA:TRUE");
  addExtension(x, x, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(x, x, NID_subject_key_identifier, "hash");
  check(X509_sign(x, result.key_.get(), EVP_sha256()) > 0, "signing the CA");
  return result;
}

TestCertificate TestCertificate::issue(const TestCertificate& authority, const std::vector<std::string>& dnsNames,
                                       const std::vector<std::string>& ipAddresses) {
  TestCertificate result;
  result.key_ = newKey();
  result.certificate_ = newCertificate(result.key_.get(), dnsNames.empty() ? "server" : dnsNames.front());
  X509* x = result.certificate_.get();
  X509* issuer = authority.certificate_.get();
  X509_set_issuer_name(x, X509_get_subject_name(issuer));
  std::string alternativeNames;
  for (const auto& name : dnsNames) alternativeNames += (alternativeNames.empty() ? "DNS:" : ",DNS:") + name;
  for (const auto& ip : ipAddresses) alternativeNames += (alternativeNames.empty() ? "IP:" : ",IP:") + ip;
  addExtension(x, issuer, NID_basic_constraints, "critical,CA:FALSE");
  addExtension(x, issuer, NID_key_usage, "critical,digitalSignature");
  addExtension(x, issuer, NID_ext_key_usage, "serverAuth");
  addExtension(x, issuer, NID_subject_alt_name, alternativeNames);
  addExtension(x, issuer, NID_authority_key_identifier, "keyid:always");
  check(X509_sign(x, authority.key_.get(), EVP_sha256()) > 0, "signing the server certificate");
  return result;
}

std::string TestCertificate::certificatePem() const {
  return toPem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate_.get()); });
}

std::string TestCertificate::privateKeyPem() const {
  return toPem([&](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key_.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
}

TemporaryFile::TemporaryFile(const std::string& contents) {
  const char* directory = std::getenv("TMPDIR");
  std::string pattern = std::string(directory && *directory ? directory : "/tmp") + "/qel-test-XXXXXX";
  const int descriptor = mkstemp(pattern.data());
  check(descriptor >= 0, "temporary file");
  path_ = pattern;
  const auto written = ::write(descriptor, contents.data(), contents.size());
  ::close(descriptor);
  check(written == static_cast<ssize_t>(contents.size()), "writing the temporary file");
}

void TemporaryFile::rewrite(const std::string& contents) {
  std::FILE* file = std::fopen(path_.c_str(), "wb");
  check(file != nullptr, "rewriting the temporary file");
  const auto written = std::fwrite(contents.data(), 1, contents.size(), file);
  std::fclose(file);
  check(written == contents.size(), "rewriting the temporary file");
}

TemporaryFile::~TemporaryFile() { std::remove(path_.c_str()); }

}  // namespace qel::core::net::testing
