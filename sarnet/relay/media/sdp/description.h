#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Session descriptions (RFC 8866), as much of them as WebRTC with a bundle of all media needs (RFC
// 8829): read from a server that nobody vouches for, and written. Plain values, any thread.
namespace sarnet::relay::sdp {

enum class Kind { kAudio, kVideo, kData, kOther };
enum class Direction { kInactive, kSend, kReceive, kBoth };
// Who begins the DTLS handshake.
enum class Setup { kEither, kActive, kPassive };

// The hash of a certificate.
struct Fingerprint {
  std::string algorithm;  // "sha-256", "sha-384" or "sha-512"
  std::vector<std::uint8_t> hash;
  bool operator==(const Fingerprint&) const = default;
};

// How the other side is reached, one way for all media.
struct TransportInfo {
  std::string ufrag;
  std::string pwd;
  Fingerprint fingerprint;
  Setup setup = Setup::kEither;
};

struct Codec {
  int payload = 0;   // 0 to 127
  std::string name;  // "opus", "VP8", "rtx"; as it was written
  int clock_rate = 0;
  int channels = 1;
  std::string fmtp;                   // "useinbandfec=1;stereo=1"; may be empty
  std::vector<std::string> feedback;  // "nack", "nack pli"
};

// A parameter of an fmtp; nothing when it is not there.
std::optional<std::string_view> fmtp_value(const Codec& codec, std::string_view name);
// Whether the codec goes by that name, whatever the case.
bool is_codec(const Codec& codec, std::string_view name);

struct HeaderExtension {
  int id = 0;
  std::string uri;
};

struct Section {
  Kind kind = Kind::kOther;
  std::string media;     // "audio", "video", "application" or what else is written there
  std::string protocol;  // "UDP/TLS/RTP/SAVPF"
  std::string formats;   // the payload types or the name of a protocol, as one text
  std::string mid;
  bool accepted = true;  // port 0 and not of the bundle: refused
  Direction direction = Direction::kBoth;
  bool reduced_size = false;  // RTCP may leave out the report (RFC 5506)
  std::vector<Codec> codecs;  // in the order of preference, those with an rtpmap
  std::vector<HeaderExtension> extensions;
  std::vector<std::uint32_t> ssrcs;
  std::uint32_t retransmission_ssrc = 0;  // the second of a group "FID"; 0: none
  std::string msid;
  std::string cname;
  int sctp_port = 0;                              // data alone
  std::optional<std::uint64_t> max_message_size;  // data alone; 0: any size
};

struct Description {
  TransportInfo transport;
  std::vector<Section> sections;
  std::vector<std::string> candidates;  // "candidate:...", each once
  bool end_of_candidates = false;
  bool ice_lite = false;  // only answers checks: we lead the choice of a way
};

// Reads a description; on a fault false, and `error` says which. What is read is usable as it
// stands: at least one section is accepted, each has a mid of its own, those accepted are of one
// bundle with one transport, and a transport is complete.
bool read_description(std::string_view text, Description& description, std::string& error);

// Whether `next` may follow `last` on the same connection: sections keep place, kind and mid, and
// there are not fewer. Empty when it may, else what is wrong.
std::string fault_of_successor(const Description& last, const Description& next);

// The text of a description with rtcp-mux and one bundle of all that is accepted. Candidates are
// left out, they follow one by one. `session` and `version` go into its origin; the version grows
// with each description of a connection.
std::string write_description(const Description& description, std::uint64_t session,
                              unsigned version);

}  // namespace sarnet::relay::sdp
