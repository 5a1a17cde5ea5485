// The throw-away TLS identity must be one a strict client accepts.
#include "cabinsim/Certificates.h"

#include <gtest/gtest.h>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace {

using CertPtr = std::unique_ptr<X509, decltype(&X509_free)>;

CertPtr parse(const std::string& pem) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                 &BIO_free);
  return CertPtr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), &X509_free);
}

// Verifies `leaf` for TLS server use against `anchor` alone.
bool verifies(X509* leaf, X509* anchor) {
  std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), &X509_STORE_free);
  X509_STORE_add_cert(store.get(), anchor);
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> ctx(X509_STORE_CTX_new(),
                                                                     &X509_STORE_CTX_free);
  X509_STORE_CTX_init(ctx.get(), store.get(), leaf, nullptr);
  X509_STORE_CTX_set_purpose(ctx.get(), X509_PURPOSE_SSL_SERVER);
  return X509_verify_cert(ctx.get()) == 1;
}

TEST(Certificates, ServerCertificateVerifiesAgainstItsCaForEveryHostName) {
  const auto identity = cabinsim::makeThrowAwayIdentity({"cabin.local", "10.1.2.3"});
  const CertPtr server = parse(identity.certificateChainPem);
  const CertPtr ca = parse(identity.trustAnchorPem);
  ASSERT_TRUE(server);
  ASSERT_TRUE(ca);

  EXPECT_TRUE(verifies(server.get(), ca.get()));
  EXPECT_EQ(X509_check_ca(ca.get()), 1);
  EXPECT_EQ(X509_check_ca(server.get()), 0);

  for (const char* host : {"localhost", "cabin.local"}) {
    EXPECT_EQ(X509_check_host(server.get(), host, 0, 0, nullptr), 1) << host;
  }
  for (const char* ip : {"127.0.0.1", "10.1.2.3"}) {
    EXPECT_EQ(X509_check_ip_asc(server.get(), ip, 0), 1) << ip;
  }
  EXPECT_NE(X509_check_host(server.get(), "example.org", 0, 0, nullptr), 1);

  // The key handed to TLS belongs to the certificate.
  std::unique_ptr<BIO, decltype(&BIO_free)> keyBio(
      BIO_new_mem_buf(identity.privateKeyPem.data(), static_cast<int>(identity.privateKeyPem.size())), &BIO_free);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
  ASSERT_TRUE(key);
  EXPECT_EQ(X509_check_private_key(server.get(), key.get()), 1);
}

TEST(Certificates, EachRunHasItsOwnCa) {
  const auto first = cabinsim::makeThrowAwayIdentity({});
  const auto second = cabinsim::makeThrowAwayIdentity({});
  const CertPtr server = parse(first.certificateChainPem);
  const CertPtr otherCa = parse(second.trustAnchorPem);
  EXPECT_FALSE(verifies(server.get(), otherCa.get()));
}

TEST(Certificates, LoadedChainTrustsItsLastCertificate) {
  const auto made = cabinsim::makeThrowAwayIdentity({});
  const auto dir = std::filesystem::temp_directory_path() /
                   ("cabin-sim-cert-test-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                    "-" + std::to_string(reinterpret_cast<std::uintptr_t>(&made)));
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "chain.pem") << made.certificateChainPem << made.trustAnchorPem;
  std::ofstream(dir / "key.pem") << made.privateKeyPem;

  const auto loaded = cabinsim::loadIdentity((dir / "chain.pem").string(), (dir / "key.pem").string());
  EXPECT_EQ(loaded.trustAnchorPem, made.trustAnchorPem);
  EXPECT_EQ(loaded.privateKeyPem, made.privateKeyPem);
  EXPECT_THROW(cabinsim::loadIdentity((dir / "missing.pem").string(), (dir / "key.pem").string()),
               std::runtime_error);
  EXPECT_THROW(cabinsim::loadIdentity((dir / "key.pem").string(), (dir / "key.pem").string()),
               std::runtime_error);
  std::filesystem::remove_all(dir);
}

}  // namespace
