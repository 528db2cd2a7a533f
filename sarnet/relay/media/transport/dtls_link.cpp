#include "relay/media/transport/dtls_link.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

namespace sarnet::relay {
namespace {

// Leaves room for IP, UDP and TURN on any way.
constexpr long kMtu = 1200;
constexpr std::chrono::seconds kHandshakeLimit{20};
// A lost packet of the handshake delays the first picture by this much, in microseconds.
constexpr unsigned kFirstRetry = 250'000;
constexpr unsigned kLastRetry = 4'000'000;

unsigned next_retry(SSL*, unsigned last) {
  return last == 0 ? kFirstRetry : std::min(2 * last, kLastRetry);
}

std::string last_error() {
  const unsigned long code = ERR_peek_last_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  return reason == nullptr ? "unknown" : reason;
}

}  // namespace

struct DtlsLink::Datagrams {
  static int write(BIO* bio, const char* bytes, int size) {
    auto* link = static_cast<DtlsLink*>(BIO_get_data(bio));
    link->observer_.send_datagram(
        {reinterpret_cast<const std::uint8_t*>(bytes), static_cast<std::size_t>(size)});
    return size;  // what is lost is sent again
  }

  static int read(BIO* bio, char* bytes, int size) {
    auto* link = static_cast<DtlsLink*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const std::span<const std::uint8_t> datagram = std::exchange(link->incoming_, {});
    if (datagram.empty()) {
      BIO_set_retry_read(bio);
      return -1;
    }
    const std::size_t taken = std::min(datagram.size(), static_cast<std::size_t>(size));
    std::memcpy(bytes, datagram.data(), taken);
    return static_cast<int>(taken);
  }

  static long control(BIO*, int command, long, void*) {
    switch (command) {
      case BIO_CTRL_FLUSH:
        return 1;
      case BIO_CTRL_DGRAM_QUERY_MTU:
      case BIO_CTRL_DGRAM_GET_MTU:
      case BIO_CTRL_DGRAM_GET_FALLBACK_MTU:
        return kMtu;
      default:
        return 0;
    }
  }

  static BIO_METHOD* method() {
    static BIO_METHOD* const made = [] {
      BIO_METHOD* fresh = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "datagrams");
      BIO_meth_set_write(fresh, &write);
      BIO_meth_set_read(fresh, &read);
      BIO_meth_set_ctrl(fresh, &control);
      return fresh;
    }();
    return made;
  }
};

DtlsLink::DtlsLink(const MainLoop& loop, std::shared_ptr<const DtlsIdentity> identity,
                   DtlsObserver& observer)
    : loop_(loop), identity_(std::move(identity)), observer_(observer) {}

DtlsLink::~DtlsLink() = default;

int DtlsLink::check_certificate(X509_STORE_CTX* store, void*) {
  const auto* ssl = static_cast<const SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* link = static_cast<DtlsLink*>(SSL_get_app_data(ssl));
  const EVP_MD* digest = link->expected_.algorithm == "sha-512"   ? EVP_sha512()
                         : link->expected_.algorithm == "sha-384" ? EVP_sha384()
                                                                  : EVP_sha256();
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> hash{};
  unsigned size = 0;
  const X509* certificate = X509_STORE_CTX_get0_cert(store);
  const bool same = certificate != nullptr &&
                    X509_digest(certificate, digest, hash.data(), &size) == 1 &&
                    std::ranges::equal(std::span(hash).first(size), link->expected_.hash);
  if (!same) {
    link->mismatch_ = true;
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED);
  }
  return same ? 1 : 0;
}

void DtlsLink::expect(const sdp::Fingerprint& fingerprint, bool active) {
  expected_ = fingerprint;
  active_ = active;
  ssl_.reset(SSL_new(identity_->context()));
  BIO* bio = ssl_ ? BIO_new(Datagrams::method()) : nullptr;
  if (bio == nullptr) {
    ssl_.reset();
    fail("DTLS: it cannot be set up");
    return;
  }
  BIO_set_data(bio, this);
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl_.get(), bio, bio);
  SSL_set_app_data(ssl_.get(), this);
  SSL_set_mtu(ssl_.get(), kMtu);
  DTLS_set_timer_cb(ssl_.get(), &next_retry);
  if (active) {
    SSL_set_connect_state(ssl_.get());
  } else {
    SSL_set_accept_state(ssl_.get());
  }
}

void DtlsLink::begin() {
  if (!ssl_ || over_ || std::exchange(begun_, true)) return;
  limit_ = MainLoop::Timer(loop_, kHandshakeLimit, [this] {
    if (!ready_) fail("DTLS: the handshake does not end");
  });
  if (active_) proceed();
}

void DtlsLink::receive(std::span<const std::uint8_t> datagram) {
  if (!ssl_ || over_) return;
  // A side that waits answers at once, even if it does not know yet that its answers get through.
  if (active_ && !begun_) return;
  incoming_ = datagram;
  proceed();
  incoming_ = {};
}

void DtlsLink::proceed() {
  if (!ready_) shake_hands();
  if (ready_) read_data();
}

void DtlsLink::shake_hands() {
  ERR_clear_error();
  const int result = SSL_do_handshake(ssl_.get());
  if (result == 1) {
    ready_ = true;
    timer_.stop();
    limit_.stop();
    observer_.on_dtls_ready();
    return;
  }
  const int error = SSL_get_error(ssl_.get(), result);
  if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
    arm_timer();
  } else if (mismatch_) {
    fail("DTLS: the certificate is not the one that was announced");
  } else {
    fail("DTLS: the handshake failed: " + last_error());
  }
}

void DtlsLink::read_data() {
  while (!over_) {
    ERR_clear_error();
    const int size = SSL_read(ssl_.get(), data_.data(), static_cast<int>(data_.size()));
    if (size <= 0) break;
    observer_.on_dtls_data(std::span(data_).first(static_cast<std::size_t>(size)));
  }
  // A damaged record is passed over, and a goodbye is left to the signalling and to ICE, which tell
  // whether the connection is of use still.
}

bool DtlsLink::send(std::span<const std::uint8_t> data) {
  if (!ready_ || over_) return false;
  ERR_clear_error();
  return SSL_write(ssl_.get(), data.data(), static_cast<int>(data.size())) > 0;
}

void DtlsLink::arm_timer() {
  timeval left{};
  if (DTLSv1_get_timeout(ssl_.get(), &left) != 1) {
    timer_.stop();
    return;
  }
  const std::chrono::milliseconds delay{left.tv_sec * 1000L + left.tv_usec / 1000 + 1};
  timer_ = MainLoop::Timer(loop_, delay, [this] { on_timer(); });
}

void DtlsLink::on_timer() {
  timer_.stop();
  if (ready_ || over_) return;
  ERR_clear_error();
  if (DTLSv1_handle_timeout(ssl_.get()) < 0) {
    fail("DTLS: the other side does not answer");
  } else {
    arm_timer();
  }
}

void DtlsLink::fail(const std::string& reason) {
  if (std::exchange(over_, true)) return;
  timer_.stop();
  limit_.stop();
  observer_.on_dtls_failed(reason);
}

void DtlsLink::close() {
  if (std::exchange(over_, true)) return;
  timer_.stop();
  limit_.stop();
  if (ready_) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
  }
}

unsigned long DtlsLink::srtp_profile() const {
  const SRTP_PROTECTION_PROFILE* profile = SSL_get_selected_srtp_profile(ssl_.get());
  return profile == nullptr ? 0 : profile->id;
}

bool DtlsLink::export_srtp_keys(std::span<std::uint8_t> material) const {
  static constexpr std::string_view kLabel = "EXTRACTOR-dtls_srtp";
  return SSL_export_keying_material(ssl_.get(), material.data(), material.size(), kLabel.data(),
                                    kLabel.size(), nullptr, 0, 0) == 1;
}

}  // namespace sarnet::relay
