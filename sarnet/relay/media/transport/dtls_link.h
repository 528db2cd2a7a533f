#pragma once

#include <openssl/ssl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "relay/media/sdp/description.h"
#include "relay/media/transport/dtls_identity.h"
#include "relay/signalling/main_loop.h"

namespace sarnet::relay {

// Told by a DtlsLink, from inside its calls and its timer.
class DtlsObserver {
 public:
  virtual ~DtlsObserver() = default;
  virtual void send_datagram(std::span<const std::uint8_t> datagram) = 0;
  // The handshake is over, and the other side is the one that was announced.
  virtual void on_dtls_ready() = 0;
  // Once; the text names the step.
  virtual void on_dtls_failed(const std::string& reason) = 0;
  virtual void on_dtls_data(std::span<const std::uint8_t> data) = 0;
};

// One DTLS 1.2 connection over datagrams that others carry. The loop's thread alone; must not be
// destroyed from inside its observer.
class DtlsLink {
 public:
  DtlsLink(const MainLoop& loop, std::shared_ptr<const DtlsIdentity> identity,
           DtlsObserver& observer);
  ~DtlsLink();
  DtlsLink(const DtlsLink&) = delete;
  DtlsLink& operator=(const DtlsLink&) = delete;

  // Says whose certificate is expected and who begins. Once, before all else.
  void expect(const sdp::Fingerprint& fingerprint, bool active);
  bool expects() const { return ssl_ != nullptr; }
  const sdp::Fingerprint& expected() const { return expected_; }
  bool is_active() const { return active_; }

  // Datagrams get through now: an active side begins, and the time runs for either.
  void begin();
  void receive(std::span<const std::uint8_t> datagram);
  // Lost, and false, while the handshake is not over.
  bool send(std::span<const std::uint8_t> data);
  bool ready() const { return ready_; }
  // Says goodbye. Later calls do nothing.
  void close();

  // OpenSSL's number of the SRTP profile that was agreed on, 0 for none. When ready.
  unsigned long srtp_profile() const;
  // Fills `material` with the keys of RFC 5764, section 4.2. When ready. The caller wipes them.
  bool export_srtp_keys(std::span<std::uint8_t> material) const;

  // For DtlsIdentity's context.
  static int check_certificate(X509_STORE_CTX* store, void* unused);

 private:
  struct FreeSsl {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  struct Datagrams;  // the BIO's functions

  void proceed();
  void shake_hands();
  void read_data();
  void arm_timer();
  void on_timer();
  void fail(const std::string& reason);

  const MainLoop& loop_;
  const std::shared_ptr<const DtlsIdentity> identity_;
  DtlsObserver& observer_;
  std::unique_ptr<SSL, FreeSsl> ssl_;
  sdp::Fingerprint expected_;
  bool active_ = false;
  bool begun_ = false;
  bool ready_ = false;
  bool over_ = false;      // failed or closed
  bool mismatch_ = false;  // the certificate is another
  std::span<const std::uint8_t> incoming_;
  std::array<std::uint8_t, 16384> data_;
  MainLoop::Timer timer_;
  MainLoop::Timer limit_;
};

}  // namespace sarnet::relay
