#include "relay/media/transport/srtp_pair.h"

#include <openssl/crypto.h>
#include <openssl/srtp.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace sarnet::relay {
namespace {

constexpr std::size_t kKey = 16;
constexpr std::size_t kGcmSalt = 12;
constexpr std::size_t kCounterSalt = 14;
constexpr std::size_t kRtpHeader = 12;
constexpr std::size_t kRtcpHeader = 8;
// Packets that come later than so many others are taken for repeated.
constexpr unsigned long kReplayWindow = 1024;

std::uint32_t ssrc_at(std::span<const std::uint8_t> packet, std::size_t at) {
  return static_cast<std::uint32_t>(packet[at]) << 24 |
         static_cast<std::uint32_t>(packet[at + 1]) << 16 |
         static_cast<std::uint32_t>(packet[at + 2]) << 8 | packet[at + 3];
}

bool library_ready() {
  static const bool ready = srtp_init() == srtp_err_status_ok;
  return ready;
}

}  // namespace

bool SrtpPair::start(const DtlsLink& link) {
  const unsigned long profile = link.srtp_profile();
  if (profile != SRTP_AEAD_AES_128_GCM && profile != SRTP_AES128_CM_SHA1_80) return false;
  if (!library_ready()) return false;
  const std::size_t salt = profile == SRTP_AEAD_AES_128_GCM ? kGcmSalt : kCounterSalt;
  std::array<std::uint8_t, 2 * (kKey + kCounterSalt)> material{};
  const std::span<std::uint8_t> used = std::span(material).first(2 * (kKey + salt));
  if (link.export_srtp_keys(used)) {
    // First both keys, then both salts; of each the client's first.
    const auto context = [&](bool client, srtp_ssrc_type_t direction) {
      return make(profile, used.subspan(client ? 0 : kKey, kKey),
                  used.subspan(2 * kKey + (client ? 0 : salt), salt), direction);
    };
    sending_ = context(link.is_active(), ssrc_any_outbound);
    receiving_ = context(!link.is_active(), ssrc_any_inbound);
  }
  OPENSSL_cleanse(material.data(), material.size());
  return sending_ && receiving_;
}

SrtpPair::Context SrtpPair::make(unsigned long profile, std::span<const std::uint8_t> key,
                                 std::span<const std::uint8_t> salt, srtp_ssrc_type_t direction) {
  std::array<std::uint8_t, kKey + kCounterSalt> both{};
  std::memcpy(both.data(), key.data(), key.size());
  std::memcpy(both.data() + key.size(), salt.data(), salt.size());
  srtp_policy_t policy{};
  if (profile == SRTP_AEAD_AES_128_GCM) {
    srtp_crypto_policy_set_aes_gcm_128_16_auth(&policy.rtp);
    srtp_crypto_policy_set_aes_gcm_128_16_auth(&policy.rtcp);
  } else {
    srtp_crypto_policy_set_rtp_default(&policy.rtp);
    srtp_crypto_policy_set_rtcp_default(&policy.rtcp);
  }
  policy.ssrc.type = direction;
  policy.key = both.data();
  policy.window_size = kReplayWindow;
  policy.allow_repeat_tx = 1;  // what got lost is sent again as it was
  srtp_t context = nullptr;
  const srtp_err_status_t status = srtp_create(&context, &policy);
  OPENSSL_cleanse(both.data(), both.size());
  return Context(status == srtp_err_status_ok ? context : nullptr);
}

std::span<const std::uint8_t> SrtpPair::protect(std::span<const std::uint8_t> packet,
                                                std::size_t least, Protect how) {
  if (!sending_ || packet.size() < least || packet.size() > kMaxPacket) return {};
  std::memcpy(packet_.data(), packet.data(), packet.size());
  int size = static_cast<int>(packet.size());
  if (how(sending_.get(), packet_.data(), &size) != srtp_err_status_ok) return {};
  return std::span(packet_).first(static_cast<std::size_t>(size));
}

std::span<const std::uint8_t> SrtpPair::protect_rtp(std::span<const std::uint8_t> packet) {
  return protect(packet, kRtpHeader, &srtp_protect);
}

std::span<const std::uint8_t> SrtpPair::protect_rtcp(std::span<const std::uint8_t> packet) {
  return protect(packet, kRtcpHeader, &srtp_protect_rtcp);
}

bool SrtpPair::knows(std::uint32_t ssrc) const {
  const auto known = std::span(ssrcs_).first(ssrc_count_);
  return std::ranges::find(known, ssrc) != known.end();
}

std::span<const std::uint8_t> SrtpPair::unprotect(std::span<std::uint8_t> packet, std::size_t least,
                                                  std::size_t ssrc_place, Protect how) {
  if (!receiving_ || packet.size() < least || packet.size() > kMaxPacket) return {};
  const std::uint32_t ssrc = ssrc_at(packet, ssrc_place);
  const bool known = knows(ssrc);
  if (!known && ssrc_count_ == ssrcs_.size()) return {};
  int size = static_cast<int>(packet.size());
  if (how(receiving_.get(), packet.data(), &size) != srtp_err_status_ok) return {};
  if (!known) ssrcs_.at(ssrc_count_++) = ssrc;
  return packet.first(static_cast<std::size_t>(size));
}

std::span<const std::uint8_t> SrtpPair::unprotect_rtp(std::span<std::uint8_t> packet) {
  return unprotect(packet, kRtpHeader, 8, &srtp_unprotect);
}

std::span<const std::uint8_t> SrtpPair::unprotect_rtcp(std::span<std::uint8_t> packet) {
  return unprotect(packet, kRtcpHeader, 4, &srtp_unprotect_rtcp);
}

}  // namespace sarnet::relay
