#include "cabinsim/Certificates.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <boost/asio/ip/address.hpp>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

namespace cabinsim {

namespace {

constexpr long kValidSeconds = 7 * 24 * 3600;

template <class T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;

[[noreturn]] void fail(const std::string& what) {
  std::string detail;
  if (const unsigned long code = ERR_get_error(); code != 0) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    detail = std::string(": ") + buffer;
  }
  ERR_clear_error();
  throw std::runtime_error("certificate generation: " + what + detail);
}

void check(int ok, const char* what) {
  if (ok != 1) {
    fail(what);
  }
}

KeyPtr makeKey() {
  KeyPtr key(EVP_EC_gen("P-256"));
  if (!key) {
    fail("EVP_EC_gen");
  }
  return key;
}

void setRandomSerial(X509* cert) {
  unsigned char bytes[16];
  check(RAND_bytes(bytes, sizeof bytes), "RAND_bytes");
  bytes[0] &= 0x7f;  // positive, as serial numbers must be
  std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>> bn(BN_bin2bn(bytes, sizeof bytes, nullptr));
  if (!bn || !BN_to_ASN1_INTEGER(bn.get(), X509_get_serialNumber(cert))) {
    fail("serial number");
  }
}

void setName(X509_NAME* name, const std::string& commonName) {
  check(X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>("cabin-sim"), -1, -1, 0),
        "subject O");
  check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0),
        "subject CN");
}

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
  if (!ext) {
    fail("extension " + value);
  }
  check(X509_add_ext(cert, ext.get(), -1), "X509_add_ext");
}

// A certificate with the common fields set, not yet signed.
CertPtr makeCertificate(EVP_PKEY* key, const std::string& commonName, long validSeconds) {
  CertPtr cert(X509_new());
  if (!cert) {
    fail("X509_new");
  }
  check(X509_set_version(cert.get(), X509_VERSION_3), "X509_set_version");
  setRandomSerial(cert.get());
  // Back-dated an hour so a client whose clock is slightly behind accepts it.
  if (!X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) ||
      !X509_gmtime_adj(X509_getm_notAfter(cert.get()), validSeconds)) {
    fail("validity");
  }
  check(X509_set_pubkey(cert.get(), key), "X509_set_pubkey");
  setName(X509_get_subject_name(cert.get()), commonName);
  return cert;
}

std::string toPem(X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509(bio.get(), cert), "PEM_write_bio_X509");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

std::string toPem(EVP_PKEY* key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr),
        "PEM_write_bio_PrivateKey");
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

// Each name as an IP address or a DNS name, as it parses; blanks and repeats left out.
std::string subjectAltNames(const std::vector<std::string>& names) {
  std::set<std::string> seen;
  std::string out;
  for (const auto& name : names) {
    boost::system::error_code ec;
    boost::asio::ip::make_address(name, ec);
    if (!name.empty() && seen.insert(name).second) {
      // Appended piece by piece: GCC 12 warns falsely (bug 105329) about
      // "literal" + std::string when optimising.
      if (!out.empty()) out += ',';
      out += ec ? "DNS:" : "IP:";
      out += name;
    }
  }
  return out;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read " + path);
  }
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

CertificateAuthority::CertificateAuthority(const std::string& commonName) {
  KeyPtr key = makeKey();
  CertPtr ca = makeCertificate(key.get(), commonName, kValidSeconds);
  check(X509_set_issuer_name(ca.get(), X509_get_subject_name(ca.get())), "CA issuer");
  addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
  if (X509_sign(ca.get(), key.get(), EVP_sha256()) <= 0) {
    fail("signing the CA");
  }
  certificatePem_ = toPem(ca.get());
  key_ = std::shared_ptr<EVP_PKEY>(key.release(), EVP_PKEY_free);
  certificate_ = std::shared_ptr<X509>(ca.release(), X509_free);
}

ServerIdentity CertificateAuthority::issue(const std::vector<std::string>& names) const {
  KeyPtr serverKey = makeKey();
  CertPtr server = makeCertificate(serverKey.get(), "cabin-sim server", kValidSeconds);
  X509* ca = certificate_.get();
  check(X509_set_issuer_name(server.get(), X509_get_subject_name(ca)), "server issuer");
  addExtension(server.get(), ca, NID_basic_constraints, "critical,CA:FALSE");
  addExtension(server.get(), ca, NID_key_usage, "critical,digitalSignature");
  addExtension(server.get(), ca, NID_ext_key_usage, "serverAuth");
  addExtension(server.get(), ca, NID_subject_key_identifier, "hash");
  addExtension(server.get(), ca, NID_authority_key_identifier, "keyid:always");
  addExtension(server.get(), ca, NID_subject_alt_name, subjectAltNames(names));
  if (X509_sign(server.get(), key_.get(), EVP_sha256()) <= 0) {
    fail("signing the server certificate");
  }
  return {toPem(server.get()), toPem(serverKey.get()), certificatePem_};
}

ServerIdentity makeThrowAwayIdentity(const std::vector<std::string>& extraNames) {
  std::vector<std::string> names{"localhost", "127.0.0.1"};
  names.insert(names.end(), extraNames.begin(), extraNames.end());
  return CertificateAuthority("cabin-sim throw-away CA").issue(names);
}

ServerIdentity loadIdentity(const std::string& certificateFile, const std::string& keyFile) {
  ServerIdentity identity;
  identity.certificateChainPem = readFile(certificateFile);
  identity.privateKeyPem = readFile(keyFile);
  constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
  const auto last = identity.certificateChainPem.rfind(kBegin);
  if (last == std::string::npos) {
    throw std::runtime_error(certificateFile + " holds no PEM certificate");
  }
  if (identity.privateKeyPem.find("-----BEGIN") == std::string::npos) {
    throw std::runtime_error(keyFile + " holds no PEM key");
  }
  identity.trustAnchorPem = identity.certificateChainPem.substr(last);
  return identity;
}

}  // namespace cabinsim
