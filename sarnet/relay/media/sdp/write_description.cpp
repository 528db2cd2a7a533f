#include <array>
#include <cstdio>

#include "relay/media/sdp/description.h"

namespace sarnet::relay::sdp {
namespace {

constexpr const char* kEnd = "\r\n";

const char* name_of(Direction direction) {
  switch (direction) {
    case Direction::kInactive:
      return "inactive";
    case Direction::kSend:
      return "sendonly";
    case Direction::kReceive:
      return "recvonly";
    case Direction::kBoth:
      break;
  }
  return "sendrecv";
}

const char* name_of(Setup setup) {
  return setup == Setup::kActive ? "active" : setup == Setup::kPassive ? "passive" : "actpass";
}

std::string hex_of(const std::vector<std::uint8_t>& hash) {
  std::string text;
  for (const std::uint8_t byte : hash) {
    std::array<char, 4> digits{};
    std::snprintf(digits.data(), digits.size(), "%02X", byte);
    text += (text.empty() ? "" : ":");
    text += digits.data();
  }
  return text;
}

class Writer {
 public:
  template <class... Parts>
  void line(const Parts&... parts) {
    (append(parts), ...);
    text_ += kEnd;
  }
  std::string take() { return std::move(text_); }

 private:
  void append(std::string_view part) { text_ += part; }
  template <class Number>
  requires std::is_arithmetic_v<Number>
  void append(Number number) { text_ += std::to_string(number); }
  std::string text_;
};

void write_codecs(Writer& out, const Section& section) {
  for (const Codec& codec : section.codecs) {
    if (codec.channels > 1) {
      out.line("a=rtpmap:", codec.payload, " ", codec.name, "/", codec.clock_rate, "/",
               codec.channels);
    } else {
      out.line("a=rtpmap:", codec.payload, " ", codec.name, "/", codec.clock_rate);
    }
    for (const std::string& feedback : codec.feedback) {
      out.line("a=rtcp-fb:", codec.payload, " ", feedback);
    }
    if (!codec.fmtp.empty()) out.line("a=fmtp:", codec.payload, " ", codec.fmtp);
  }
}

void write_sources(Writer& out, const Section& section) {
  if (!section.msid.empty()) out.line("a=msid:", section.msid);
  if (section.retransmission_ssrc != 0 && section.ssrcs.size() > 1) {
    out.line("a=ssrc-group:FID ", section.ssrcs.front(), " ", section.retransmission_ssrc);
  }
  for (const std::uint32_t ssrc : section.ssrcs) {
    out.line("a=ssrc:", ssrc, " cname:", section.cname);
  }
}

void write_section(Writer& out, const Section& section, const TransportInfo& transport) {
  std::string formats;
  for (const Codec& codec : section.codecs) {
    formats += (formats.empty() ? "" : " ") + std::to_string(codec.payload);
  }
  out.line("m=", section.media, section.accepted ? " 9 " : " 0 ", section.protocol, " ",
           section.accepted && !formats.empty() ? formats : section.formats);
  out.line("c=IN IP4 0.0.0.0");
  out.line("a=mid:", section.mid);
  if (!section.accepted) return;
  out.line("a=ice-ufrag:", transport.ufrag);
  out.line("a=ice-pwd:", transport.pwd);
  out.line("a=fingerprint:", transport.fingerprint.algorithm, " ",
           hex_of(transport.fingerprint.hash));
  out.line("a=setup:", name_of(transport.setup));
  if (section.kind == Kind::kData) {
    out.line("a=sctp-port:", section.sctp_port);
    if (section.max_message_size) out.line("a=max-message-size:", *section.max_message_size);
    return;
  }
  out.line("a=rtcp-mux");
  if (section.reduced_size) out.line("a=rtcp-rsize");
  out.line("a=", name_of(section.direction));
  for (const HeaderExtension& extension : section.extensions) {
    out.line("a=extmap:", extension.id, " ", extension.uri);
  }
  write_codecs(out, section);
  write_sources(out, section);
}

}  // namespace

std::string write_description(const Description& description, std::uint64_t session,
                              unsigned version) {
  Writer out;
  out.line("v=0");
  out.line("o=- ", session, " ", version, " IN IP4 0.0.0.0");
  out.line("s=-");
  out.line("t=0 0");
  out.line("a=ice-options:trickle");
  std::string bundle;
  for (const Section& section : description.sections) {
    if (section.accepted) bundle += " " + section.mid;
  }
  out.line("a=group:BUNDLE", bundle);
  for (const Section& section : description.sections) {
    write_section(out, section, description.transport);
  }
  return out.take();
}

}  // namespace sarnet::relay::sdp
