#include "relay/media/sdp/negotiation.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace sarnet::relay::sdp {
namespace {

constexpr std::string_view kMidExtension = "urn:ietf:params:rtp-hdrext:sdes:mid";
constexpr std::array<std::string_view, 2> kAnsweredFeedback{"nack", "nack pli"};

bool is_usable(Kind kind, const Codec& codec) {
  if (kind == Kind::kAudio) {
    return is_codec(codec, "opus") && codec.clock_rate == 48000 && codec.channels == 2;
  }
  if (is_codec(codec, "VP8")) return true;
  // The other mode sends each NAL unit in a packet of its own, whatever its size.
  return is_codec(codec, "H264") && fmtp_value(codec, "packetization-mode").value_or("0") == "1";
}

// The payload type that a retransmission format is for, or -1.
int retransmitted(const Codec& codec) {
  const std::string_view apt = fmtp_value(codec, "apt").value_or("");
  int payload = -1;
  if (is_codec(codec, "rtx")) std::from_chars(apt.data(), apt.data() + apt.size(), payload);
  return payload;
}

Section answer_section(const Section& offered) {
  Section section;
  section.kind = offered.kind;
  section.media = offered.media;
  section.protocol = offered.protocol;
  section.formats = offered.formats;
  section.mid = offered.mid;
  section.accepted = false;
  if (!offered.accepted || offered.kind == Kind::kOther) return section;
  if (offered.kind == Kind::kData) {
    section.accepted = true;
    section.sctp_port = kSctpPort;
    section.max_message_size = kMaxText;
    return section;
  }
  const bool sends = offered.direction == Direction::kSend || offered.direction == Direction::kBoth;
  section.reduced_size = offered.reduced_size;
  section.direction = sends ? Direction::kReceive : Direction::kInactive;
  for (const Codec& codec : offered.codecs) {
    if (!is_usable(offered.kind, codec)) continue;
    Codec& taken = section.codecs.emplace_back(codec);
    std::erase_if(taken.feedback, [](const std::string& feedback) {
      return std::ranges::find(kAnsweredFeedback, feedback) == kAnsweredFeedback.end();
    });
  }
  const std::size_t usable = section.codecs.size();
  for (const Codec& codec : offered.codecs) {
    const int of = retransmitted(codec);
    const auto end = section.codecs.begin() + static_cast<std::ptrdiff_t>(usable);
    if (std::find_if(section.codecs.begin(), end,
                     [of](const Codec& each) { return each.payload == of; }) != end) {
      section.codecs.push_back(codec);
      section.codecs.back().feedback.clear();
    }
  }
  for (const HeaderExtension& extension : offered.extensions) {
    if (extension.uri == kMidExtension) section.extensions.push_back(extension);
  }
  section.accepted = usable > 0;
  return section;
}

Section media_section(const char* media, const char* mid, std::size_t index, std::uint32_t ssrc,
                      const std::string& cname) {
  Section section;
  section.kind = std::string_view(media) == "audio" ? Kind::kAudio : Kind::kVideo;
  section.media = media;
  section.protocol = "UDP/TLS/RTP/SAVPF";
  section.mid = mid + std::to_string(index);
  section.direction = Direction::kSend;
  section.reduced_size = true;
  section.ssrcs = {ssrc};
  section.cname = cname;
  section.msid = cname + " " + section.mid;
  return section;
}

}  // namespace

const Section* find_section(const Description& description, Kind kind) {
  const auto found = std::ranges::find_if(description.sections, [kind](const Section& section) {
    return section.accepted && section.kind == kind;
  });
  return found == description.sections.end() ? nullptr : &*found;
}

Description make_offer(const Publication& publication, const TransportInfo& own) {
  Description offer;
  offer.transport = own;
  offer.transport.setup = Setup::kEither;
  auto& sections = offer.sections;
  if (publication.audio) {
    Section& section = sections.emplace_back(media_section(
        "audio", "audio", sections.size(), publication.audio_ssrc, publication.cname));
    const std::string stereo = publication.stereo ? "1" : "0";
    // Opus is always described with two channels; a server refuses anything else.
    section.codecs.push_back({111,
                              "opus",
                              48000,
                              2,
                              "minptime=10;useinbandfec=1;stereo=" + stereo +
                                  ";sprop-stereo=" + stereo + (publication.dtx ? ";usedtx=1" : ""),
                              {"nack"}});
  }
  if (publication.video) {
    Section& section = sections.emplace_back(media_section(
        "video", "video", sections.size(), publication.video_ssrc, publication.cname));
    const std::vector<std::string> feedback{"nack", "nack pli", "ccm fir", "goog-remb"};
    section.codecs.push_back({96, "VP8", 90000, 1, "", feedback});
    section.codecs.push_back(
        {97, "H264", 90000, 1,
         "packetization-mode=1;profile-level-id=42e01f;level-asymmetry-allowed=1", feedback});
  }
  if (publication.data) {
    Section& section = sections.emplace_back();
    section.kind = Kind::kData;
    section.media = "application";
    section.protocol = "UDP/DTLS/SCTP";
    section.formats = "webrtc-datachannel";
    section.mid = "application" + std::to_string(sections.size() - 1);
    section.sctp_port = kSctpPort;
    section.max_message_size = kMaxText;
  }
  return offer;
}

Description make_answer(const Description& offer, TransportInfo own) {
  Description answer;
  answer.transport = std::move(own);
  answer.transport.setup =
      offer.transport.setup == Setup::kPassive ? Setup::kActive : Setup::kPassive;
  bool has_data = false;
  for (const Section& offered : offer.sections) {
    Section& section = answer.sections.emplace_back(answer_section(offered));
    // Several would share one association, of which we run one.
    if (section.kind == Kind::kData && section.accepted) {
      section.accepted = !std::exchange(has_data, true);
    }
  }
  return answer;
}

std::string fault_of_answer(const Description& offer, const Description& answer) {
  if (answer.sections.size() != offer.sections.size()) return "it has another number of sections";
  if (std::string fault = fault_of_successor(offer, answer); !fault.empty()) return fault;
  if (answer.transport.setup == Setup::kEither ||
      (offer.transport.setup != Setup::kEither &&
       offer.transport.setup == answer.transport.setup)) {
    return "it does not say who begins the DTLS handshake";
  }
  for (std::size_t i = 0; i < offer.sections.size(); ++i) {
    const Section& section = answer.sections[i];
    const std::string where = "section " + std::to_string(i);
    if (section.accepted && !offer.sections[i].accepted) return where + " was not offered";
    for (const Codec& codec : section.codecs) {
      const auto& codecs = offer.sections[i].codecs;
      const auto same = std::ranges::find(codecs, codec.payload, &Codec::payload);
      // Servers name formats for retransmission, which nobody offered.
      if (is_codec(codec, "rtx")) continue;
      if (section.accepted && (same == codecs.end() || !is_codec(*same, codec.name))) {
        return where + " has a codec that was not offered";
      }
    }
  }
  return {};
}

}  // namespace sarnet::relay::sdp
