#pragma once

#include <srtp2/srtp.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "relay/media/transport/dtls_link.h"

namespace sarnet::relay {

// Encrypts what is sent and decrypts what is received, all streams of one connection. One thread.
// Nothing of ours is allocated but when a stream begins.
class SrtpPair {
 public:
  // Longer packets are neither sent nor decrypted.
  static constexpr std::size_t kMaxPacket = 1500;

  // Takes the keys that the handshake agreed on; false when it agreed on none of use.
  bool start(const DtlsLink& link);
  bool started() const { return receiving_ != nullptr; }

  // The encrypted packet, valid until the next call; empty when it cannot be sent.
  std::span<const std::uint8_t> protect_rtp(std::span<const std::uint8_t> packet);
  std::span<const std::uint8_t> protect_rtcp(std::span<const std::uint8_t> packet);
  // Decrypts in place; empty for what is forged, damaged, repeated or of a stream too many.
  std::span<const std::uint8_t> unprotect_rtp(std::span<std::uint8_t> packet);
  std::span<const std::uint8_t> unprotect_rtcp(std::span<std::uint8_t> packet);

 private:
  struct Free {
    void operator()(srtp_ctx_t_* context) const { srtp_dealloc(context); }
  };
  using Context = std::unique_ptr<srtp_ctx_t_, Free>;
  // Either way.
  using Protect = srtp_err_status_t (*)(srtp_t, void*, int*);

  static Context make(unsigned long profile, std::span<const std::uint8_t> key,
                      std::span<const std::uint8_t> salt, srtp_ssrc_type_t direction);
  std::span<const std::uint8_t> protect(std::span<const std::uint8_t> packet, std::size_t least,
                                        Protect how);
  std::span<const std::uint8_t> unprotect(std::span<std::uint8_t> packet, std::size_t least,
                                          std::size_t ssrc_place, Protect how);
  bool knows(std::uint32_t ssrc) const;

  Context receiving_;
  Context sending_;
  // Each stream is an allocation in the receiving context; a server that makes up ever new ones
  // would fill memory.
  std::array<std::uint32_t, 128> ssrcs_{};
  std::size_t ssrc_count_ = 0;
  alignas(8) std::array<std::uint8_t, kMaxPacket + SRTP_MAX_TRAILER_LEN + 8> packet_;
};

}  // namespace sarnet::relay
