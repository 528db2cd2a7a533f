#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "relay/media/sdp/description.h"

namespace sarnet::relay {

// The certificate that a session's connections show, made anew for each session, and what they have
// in common of DTLS. Any thread; shared by the peers of a session.
class DtlsIdentity {
 public:
  // Null, and `error` set, when the key or the certificate cannot be made. Takes about a
  // millisecond.
  static std::shared_ptr<const DtlsIdentity> create(std::string& error);
  ~DtlsIdentity();
  DtlsIdentity(const DtlsIdentity&) = delete;
  DtlsIdentity& operator=(const DtlsIdentity&) = delete;

  // Of the certificate, for descriptions.
  const sdp::Fingerprint& fingerprint() const { return fingerprint_; }
  // DTLS 1.2 alone, both roles. Asks `DtlsLink` whether the other side's certificate is the one
  // that was announced.
  SSL_CTX* context() const { return context_; }

 private:
  DtlsIdentity() = default;
  bool build(std::string& error);

  SSL_CTX* context_ = nullptr;
  sdp::Fingerprint fingerprint_;
};

}  // namespace sarnet::relay
