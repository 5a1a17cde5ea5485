// The throw-away TLS identity must be one a strict client accepts (that its
// key fits is shown by every handshake in the server tests).
#include "cabinsim/Certificates.h"

#include <gtest/gtest.h>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

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

  // Each run has its own CA: a client holding another run's anchor refuses.
  EXPECT_FALSE(verifies(server.get(), parse(cabinsim::makeThrowAwayIdentity({}).trustAnchorPem).get()));
}

}  // namespace
