#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "relay/media/sdp/description.h"

// What this side offers and accepts. Plain values, any thread.
namespace sarnet::relay::sdp {

// The longest text that goes through a data channel, either way, in bytes.
inline constexpr std::size_t kMaxText = std::size_t{1024} * 1024;
inline constexpr int kSctpPort = 5000;

// What is to be published. Payload types are 111 for Opus, 96 for VP8 and 97 for H.264.
struct Publication {
  bool audio = true;
  bool video = true;
  bool data = false;
  bool stereo = false;
  bool dtx = false;
  std::uint32_t audio_ssrc = 0;
  std::uint32_t video_ssrc = 0;
  std::string cname;  // the same for what is played in step
};

// A description of what is sent; VP8 is preferred. Mids are "audio0", "video1", "application2",
// counted through what there is.
Description make_offer(const Publication& publication, const TransportInfo& own);

// What is taken of an offer: Opus, VP8 and H.264 with packetisation mode 1, for receiving; one data
// channel section; with each codec the retransmission that is offered for it. The server is left to
// begin the DTLS handshake if it may: our first packet often comes before it is ready and goes out
// again only a second later. PLI is the one request for key frames that is allowed, as FIR goes out
// without the stream that it is about. `own.setup` is overwritten.
Description make_answer(const Description& offer, TransportInfo own);

// Whether an answer fits its offer: the same sections in the same places, codecs and roles that
// were offered. Empty when it does, else what is wrong.
std::string fault_of_answer(const Description& offer, const Description& answer);

// The first accepted section of a kind, or null.
const Section* find_section(const Description& description, Kind kind);

}  // namespace sarnet::relay::sdp
