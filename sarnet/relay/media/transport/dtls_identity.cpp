#include "relay/media/transport/dtls_identity.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <array>
#include <cstdint>

#include "relay/media/transport/dtls_link.h"

namespace sarnet::relay {
namespace {

constexpr long kBeforeNow = -24L * 3600;  // clocks differ
constexpr long kAfterNow = 30L * 24 * 3600;

struct FreeKey {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct FreeCertificate {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeKey>;
using Certificate = std::unique_ptr<X509, FreeCertificate>;

Certificate make_certificate(EVP_PKEY* key) {
  Certificate made(X509_new());
  std::array<unsigned char, 8> random{};
  if (!made || RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) return nullptr;
  std::uint64_t serial = 0;
  for (const unsigned char byte : random) serial = serial << 8 | byte;
  X509* x = made.get();
  X509_NAME* name = X509_get_subject_name(x);
  const auto* common = reinterpret_cast<const unsigned char*>("WebRTC");
  const bool filled = X509_set_version(x, X509_VERSION_3) == 1 &&
                      ASN1_INTEGER_set_uint64(X509_get_serialNumber(x), serial >> 1) == 1 &&
                      X509_gmtime_adj(X509_getm_notBefore(x), kBeforeNow) != nullptr &&
                      X509_gmtime_adj(X509_getm_notAfter(x), kAfterNow) != nullptr &&
                      X509_set_pubkey(x, key) == 1 &&
                      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, common, -1, -1, 0) == 1;
  if (!filled || X509_set_issuer_name(x, name) != 1 || X509_sign(x, key, EVP_sha256()) == 0) {
    return nullptr;
  }
  return made;
}

}  // namespace

std::shared_ptr<const DtlsIdentity> DtlsIdentity::create(std::string& error) {
  const std::shared_ptr<DtlsIdentity> identity(new DtlsIdentity);
  return identity->build(error) ? identity : nullptr;
}

DtlsIdentity::~DtlsIdentity() { SSL_CTX_free(context_); }

bool DtlsIdentity::build(std::string& error) {
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate = key ? make_certificate(key.get()) : nullptr;
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> hash{};
  unsigned size = 0;
  if (!certificate || X509_digest(certificate.get(), EVP_sha256(), hash.data(), &size) != 1) {
    error = "DTLS: the certificate cannot be made";
    return false;
  }
  fingerprint_ = {"sha-256", {hash.begin(), hash.begin() + size}};
  context_ = SSL_CTX_new(DTLS_method());
  // SSL_CTX_set_tlsext_use_srtp alone gives 0 for success.
  if (context_ == nullptr || SSL_CTX_set_min_proto_version(context_, DTLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context_, DTLS1_2_VERSION) != 1 ||
      SSL_CTX_use_certificate(context_, certificate.get()) != 1 ||
      SSL_CTX_use_PrivateKey(context_, key.get()) != 1 ||
      SSL_CTX_set_cipher_list(context_, "ECDHE+AESGCM:ECDHE+CHACHA20:ECDHE+AES:!aNULL") != 1 ||
      SSL_CTX_set_tlsext_use_srtp(context_, "SRTP_AEAD_AES_128_GCM:SRTP_AES128_CM_SHA1_80") != 0) {
    error = "DTLS: it cannot be set up";
    return false;
  }
  SSL_CTX_set_verify(context_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  SSL_CTX_set_cert_verify_callback(context_, &DtlsLink::check_certificate, nullptr);
  SSL_CTX_set_options(context_, SSL_OP_NO_QUERY_MTU | SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_read_ahead(context_, 1);
  return true;
}

}  // namespace sarnet::relay
