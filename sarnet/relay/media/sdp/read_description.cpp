#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <set>
#include <utility>

#include "base/printable_text.h"
#include "relay/media/sdp/description.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay::sdp {
namespace {

constexpr std::size_t kMaxLine = 4096;
// Of one section, each.
constexpr std::size_t kMaxCodecs = 64;
constexpr std::size_t kMaxFeedback = 16;
constexpr std::size_t kMaxSsrcs = 64;
constexpr std::size_t kMaxExtensions = 32;
constexpr std::size_t kMaxMid = 64;
// RFC 8839, section 5.4.
constexpr std::size_t kMinUfrag = 4;
constexpr std::size_t kMinPwd = 22;
constexpr std::size_t kMaxIceText = 256;

bool is_space(char c) { return c == ' ' || c == '\t'; }

bool is_control(char c) { return (c >= 0 && c < ' ' && c != '\t') || c == 0x7F; }

// Takes the next word off the front of a line.
std::string_view take_word(std::string_view& line) {
  while (!line.empty() && is_space(line.front())) line.remove_prefix(1);
  const auto end = static_cast<std::size_t>(std::ranges::find_if(line, is_space) - line.begin());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(end);
  return word;
}

template <class Number>
bool read_number(std::string_view text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  return result.ec == std::errc() && result.ptr == end;
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool same_text(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, lower, lower);
}

// The characters of ICE (RFC 8839, section 5.1) and of tokens; nothing that could end a line.
bool is_ice_text(std::string_view text) {
  return std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
  });
}

bool is_printable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7F; });
}

bool read_fingerprint(std::string_view value, Fingerprint& fingerprint) {
  static constexpr std::array<std::pair<std::string_view, std::size_t>, 3> kHashes{
      {{"sha-256", 32}, {"sha-384", 48}, {"sha-512", 64}}};
  const std::string_view name = take_word(value);
  const std::string_view text = take_word(value);
  const auto* const known =
      std::ranges::find_if(kHashes, [&](const auto& each) { return same_text(each.first, name); });
  if (known == kHashes.end() || text.size() != known->second * 3 - 1) return false;
  fingerprint.algorithm = known->first;
  fingerprint.hash.clear();
  for (std::size_t at = 0; at < text.size(); at += 3) {
    std::uint8_t byte = 0;
    const auto result = std::from_chars(text.data() + at, text.data() + at + 2, byte, 16);
    if (result.ec != std::errc() || result.ptr != text.data() + at + 2) return false;
    if (at + 2 < text.size() && text[at + 2] != ':') return false;
    fingerprint.hash.push_back(byte);
  }
  return true;
}

Kind kind_of(std::string_view media, std::string_view protocol, std::string_view formats) {
  const bool rtp = protocol.find("RTP/SAVP") != std::string_view::npos;
  if (media == "audio" && rtp) return Kind::kAudio;
  if (media == "video" && rtp) return Kind::kVideo;
  if (media == "application" && protocol.find("DTLS/SCTP") != std::string_view::npos &&
      formats == "webrtc-datachannel") {
    return Kind::kData;
  }
  return Kind::kOther;
}

// A TransportInfo as it gathers, line by line.
struct TransportLines {
  std::optional<std::string> ufrag;
  std::optional<std::string> pwd;
  std::optional<Fingerprint> fingerprint;
  std::optional<Setup> setup;
};

struct PendingSection {
  Section section;
  TransportLines transport;
  std::vector<int> payloads;
  bool port_zero = false;
  bool bundle_only = false;
  std::vector<std::pair<std::string, std::string>> feedback;  // payload or "*", what
};

// Gathers what the lines say and judges it at the end.
class Reader {
 public:
  Reader(Description& description, std::string& error) : result_(description), error_(error) {}

  bool read(std::string_view text) {
    if (text.size() > kMaxDescription) return refuse("it is too long");
    if (!text.starts_with("v=0")) return refuse("it does not begin with v=0");
    while (!text.empty()) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      std::string_view line = text.substr(0, end);
      text.remove_prefix(std::min(end + 1, text.size()));
      while (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      if (line.empty()) continue;
      if (line.size() > kMaxLine) return refuse("a line is too long");
      if (std::ranges::any_of(line, is_control)) return refuse("it holds control characters");
      if (line.size() < 2 || line[1] != '=') return refuse("a line is none of a description");
      if (line[0] == 'm' && !begin_section(line.substr(2))) return false;
      if (line[0] == 'a' && !take_attribute(line.substr(2))) return false;
    }
    return finish();
  }

 private:
  bool refuse(std::string text) {
    error_ = std::move(text);
    return false;
  }
  // About the section under way, or with its number about any.
  bool refuse_section(std::size_t index, const std::string& text) {
    return refuse("section " + std::to_string(index) + " " + text);
  }
  bool refuse_here(const std::string& text) {
    return pending_.empty()
               ? refuse(text)
               : refuse("section " + std::to_string(pending_.size() - 1) + ": " + text);
  }

  bool begin_section(std::string_view line) {
    if (pending_.size() == kMaxMedia) return refuse("it has too many sections");
    PendingSection& pending = pending_.emplace_back();
    Section& section = pending.section;
    section.media = take_word(line);
    int port = 0;
    if (!read_number(take_word(line), port) || port < 0 || port > 65535) {
      return refuse_here("the port is none");
    }
    pending.port_zero = port == 0;
    section.protocol = take_word(line);
    while (!line.empty() && is_space(line.front())) line.remove_prefix(1);
    section.formats = line;
    section.kind = kind_of(section.media, section.protocol, section.formats);
    section.direction = session_direction_;
    if (!is_printable(section.media) || !is_printable(section.protocol) || section.media.empty() ||
        section.protocol.empty() || section.formats.empty()) {
      return refuse_here("the line m= is incomplete");
    }
    if (section.kind != Kind::kAudio && section.kind != Kind::kVideo) return true;
    while (!line.empty()) {
      int payload = 0;
      const std::string_view word = take_word(line);
      if (word.empty()) break;
      if (!read_number(word, payload) || payload < 0 || payload > 127) {
        return refuse_here("a payload type is none");
      }
      if (std::ranges::find(pending.payloads, payload) != pending.payloads.end()) {
        return refuse_here("a payload type stands twice");
      }
      if (pending.payloads.size() == kMaxCodecs) return refuse_here("too many payload types");
      pending.payloads.push_back(payload);
    }
    return true;
  }

  bool take_attribute(std::string_view line) {
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = line.substr(std::min(colon + 1, line.size()));
    if (name == "group") return take_group(value);
    if (name == "candidate") return take_candidate(line);
    if (name == "end-of-candidates") {
      result_.end_of_candidates = true;
      return true;
    }
    if (name == "ice-lite") {
      result_.ice_lite = true;
      return true;
    }
    if (name == "sendrecv") return take_direction(Direction::kBoth);
    if (name == "sendonly") return take_direction(Direction::kSend);
    if (name == "recvonly") return take_direction(Direction::kReceive);
    if (name == "inactive") return take_direction(Direction::kInactive);
    if (is_transport(name)) {
      return take_transport(name, value, pending_.empty() ? session_ : pending_.back().transport);
    }
    return pending_.empty() || take_media_attribute(pending_.back(), name, value);
  }

  bool take_group(std::string_view value) {
    if (!pending_.empty() || take_word(value) != "BUNDLE") return true;
    if (std::exchange(has_bundle_, true)) return refuse("it has two bundles");
    for (std::string_view mid = take_word(value); !mid.empty(); mid = take_word(value)) {
      if (bundle_.size() == kMaxMedia) return refuse("the bundle is too large");
      bundle_.emplace(mid);
    }
    return true;
  }

  bool take_candidate(std::string_view line) {
    // Each section names the bundle's again.
    if (std::ranges::find(result_.candidates, line) != result_.candidates.end()) return true;
    if (result_.candidates.size() == static_cast<std::size_t>(kMaxCandidates) ||
        line.size() > kMaxCandidate) {
      return refuse("it has too many or too long candidates");
    }
    result_.candidates.emplace_back(line);
    return true;
  }

  bool take_direction(Direction direction) {
    (pending_.empty() ? session_direction_ : pending_.back().section.direction) = direction;
    return true;
  }

  static bool is_transport(std::string_view name) {
    return name == "ice-ufrag" || name == "ice-pwd" || name == "fingerprint" || name == "setup";
  }

  bool take_transport(std::string_view name, std::string_view value, TransportLines& lines) {
    if (name == "ice-ufrag") {
      if (!is_ice_text(value) || value.size() < kMinUfrag || value.size() > kMaxIceText) {
        return refuse_here("ice-ufrag is none");
      }
      lines.ufrag = value;
    } else if (name == "ice-pwd") {
      if (!is_ice_text(value) || value.size() < kMinPwd || value.size() > kMaxIceText) {
        return refuse_here("ice-pwd is none");
      }
      lines.pwd = value;
    } else if (name == "setup") {
      if (value == "actpass") {
        lines.setup = Setup::kEither;
      } else if (value == "active" || value == "passive") {
        lines.setup = value == "active" ? Setup::kActive : Setup::kPassive;
      } else {
        return refuse_here("setup is none");
      }
    } else {
      // There may be one for each of several hashes; the first that we know is as good as any.
      Fingerprint fingerprint;
      if (read_fingerprint(value, fingerprint)) {
        if (!lines.fingerprint) lines.fingerprint = std::move(fingerprint);
      } else {
        odd_fingerprint_ = true;
      }
    }
    return true;
  }

  bool take_media_attribute(PendingSection& pending, std::string_view name,
                            std::string_view value) {
    Section& section = pending.section;
    if (name == "mid") {
      if (value.empty() || value.size() > kMaxMid || !is_printable(value)) {
        return refuse_here("mid is none");
      }
      section.mid = value;
    } else if (name == "bundle-only") {
      pending.bundle_only = true;
    } else if (name == "rtcp-rsize") {
      section.reduced_size = true;
    } else if (name == "msid") {
      section.msid = value;
    } else if (name == "rtpmap") {
      return take_rtpmap(section, value);
    } else if (name == "fmtp") {
      int payload = 0;
      if (!read_number(take_word(value), payload)) return refuse_here("fmtp has no payload type");
      if (Codec* codec = find_codec(section, payload)) {
        codec->fmtp = value.substr(value.empty() ? 0 : 1);
      }
    } else if (name == "rtcp-fb") {
      const std::string_view payload = take_word(value);
      if (pending.feedback.size() == kMaxCodecs * kMaxFeedback || value.size() < 2) return true;
      pending.feedback.emplace_back(payload, value.substr(1));
    } else if (name == "ssrc") {
      return take_ssrc(section, value);
    } else if (name == "ssrc-group") {
      std::uint32_t main = 0;
      if (take_word(value) == "FID" && read_number(take_word(value), main)) {
        read_number(take_word(value), section.retransmission_ssrc);
      }
    } else if (name == "extmap") {
      return take_extension(section, value);
    } else if (name == "sctp-port") {
      if (!read_number(value, section.sctp_port) || section.sctp_port < 1 ||
          section.sctp_port > 65535) {
        return refuse_here("sctp-port is none");
      }
    } else if (name == "max-message-size") {
      std::uint64_t size = 0;
      if (!read_number(value, size)) return refuse_here("max-message-size is none");
      section.max_message_size = size;
    }
    return true;
  }

  static Codec* find_codec(Section& section, int payload) {
    const auto found = std::ranges::find(section.codecs, payload, &Codec::payload);
    return found == section.codecs.end() ? nullptr : &*found;
  }

  bool take_rtpmap(Section& section, std::string_view value) {
    Codec codec;
    if (!read_number(take_word(value), codec.payload)) {
      return refuse_here("rtpmap has no payload type");
    }
    std::string_view encoding = take_word(value);
    const std::size_t slash = encoding.find('/');
    if (slash == 0 || slash == std::string_view::npos || !is_printable(encoding)) {
      return refuse_here("rtpmap has no clock rate");
    }
    codec.name = encoding.substr(0, slash);
    encoding.remove_prefix(slash + 1);
    const std::string_view rate = encoding.substr(0, encoding.find('/'));
    if (!read_number(rate, codec.clock_rate) || codec.clock_rate <= 0) {
      return refuse_here("rtpmap has no clock rate");
    }
    if (rate.size() < encoding.size() &&
        (!read_number(encoding.substr(rate.size() + 1), codec.channels) || codec.channels < 1)) {
      return refuse_here("rtpmap has an odd number of channels");
    }
    if (find_codec(section, codec.payload) != nullptr) {
      return refuse_here("a payload type has two rtpmaps");
    }
    if (section.codecs.size() == kMaxCodecs) return refuse_here("too many rtpmaps");
    section.codecs.push_back(std::move(codec));
    return true;
  }

  bool take_ssrc(Section& section, std::string_view value) {
    std::uint32_t ssrc = 0;
    if (!read_number(take_word(value), ssrc)) return refuse_here("ssrc is none");
    if (std::ranges::find(section.ssrcs, ssrc) == section.ssrcs.end()) {
      if (section.ssrcs.size() == kMaxSsrcs) return refuse_here("too many ssrcs");
      section.ssrcs.push_back(ssrc);
    }
    const std::string_view what = take_word(value);
    if (what.starts_with("cname:")) section.cname = what.substr(sizeof("cname:") - 1);
    return true;
  }

  bool take_extension(Section& section, std::string_view value) {
    HeaderExtension extension;
    const std::string_view id = take_word(value);
    if (!read_number(id.substr(0, id.find('/')), extension.id) || extension.id < 1 ||
        extension.id > 255) {
      return refuse_here("extmap has no id");
    }
    extension.uri = take_word(value);
    if (section.extensions.size() == kMaxExtensions) return refuse_here("too many extmaps");
    section.extensions.push_back(std::move(extension));
    return true;
  }

  // Puts the codecs into the order of the line m= and gives them their feedback.
  static void settle_codecs(PendingSection& pending) {
    std::vector<Codec> ordered;
    for (const int payload : pending.payloads) {
      Codec* codec = find_codec(pending.section, payload);
      if (codec == nullptr) continue;
      for (const auto& [of, what] : pending.feedback) {
        int number = -1;
        const bool matches = of == "*" || (read_number(of, number) && number == payload);
        if (matches && codec->feedback.size() < kMaxFeedback) codec->feedback.push_back(what);
      }
      ordered.push_back(std::move(*codec));
    }
    pending.section.codecs = std::move(ordered);
  }

  bool finish() {
    std::set<std::string> mids;
    bool any = false;
    for (std::size_t i = 0; i < pending_.size(); ++i) {
      PendingSection& pending = pending_[i];
      Section& section = pending.section;
      settle_codecs(pending);
      section.accepted = !pending.port_zero || pending.bundle_only;
      if (section.mid.empty()) return refuse_section(i, "has no mid");
      if (!mids.insert(section.mid).second) return refuse_section(i, "has another's mid");
      if (!section.accepted) continue;
      if (!bundle_.contains(section.mid)) return refuse_section(i, "is not in the bundle");
      if (section.kind == Kind::kData && section.sctp_port == 0) {
        return refuse_section(i, "has no sctp-port");
      }
      if (!settle_transport(i, pending.transport, std::exchange(any, true))) return false;
    }
    if (!any) return refuse("it has no section that is accepted");
    for (PendingSection& pending : pending_) result_.sections.push_back(std::move(pending.section));
    return true;
  }

  bool settle_transport(std::size_t index, const TransportLines& own, bool has_one) {
    const auto& ufrag = own.ufrag ? own.ufrag : session_.ufrag;
    const auto& pwd = own.pwd ? own.pwd : session_.pwd;
    const auto& fingerprint = own.fingerprint ? own.fingerprint : session_.fingerprint;
    const Setup setup = own.setup.value_or(session_.setup.value_or(Setup::kEither));
    TransportInfo& all = result_.transport;
    if (has_one) {
      const bool same = (!ufrag || *ufrag == all.ufrag) && (!pwd || *pwd == all.pwd) &&
                        (!fingerprint || *fingerprint == all.fingerprint) &&
                        (setup == all.setup || !(own.setup || session_.setup));
      return same || refuse_section(index, "has a transport of its own");
    }
    if (!ufrag || !pwd) return refuse_section(index, "has no ice-ufrag or no ice-pwd");
    if (!fingerprint) {
      return refuse_section(
          index, odd_fingerprint_ ? "has no fingerprint that is understood" : "has no fingerprint");
    }
    all = {*ufrag, *pwd, *fingerprint, setup};
    return true;
  }

  Description& result_;
  std::string& error_;
  std::vector<PendingSection> pending_;
  TransportLines session_;
  Direction session_direction_ = Direction::kBoth;
  std::set<std::string> bundle_;
  bool has_bundle_ = false;
  bool odd_fingerprint_ = false;
};

}  // namespace

bool is_codec(const Codec& codec, std::string_view name) { return same_text(codec.name, name); }

std::optional<std::string_view> fmtp_value(const Codec& codec, std::string_view name) {
  std::string_view rest = codec.fmtp;
  while (!rest.empty()) {
    std::string_view each = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(each.size() + 1, rest.size()));
    while (!each.empty() && is_space(each.front())) each.remove_prefix(1);
    const std::size_t equals = each.find('=');
    if (equals != std::string_view::npos && same_text(each.substr(0, equals), name)) {
      return each.substr(equals + 1);
    }
  }
  return std::nullopt;
}

bool read_description(std::string_view text, Description& description, std::string& error) {
  description = {};
  return Reader(description, error).read(text);
}

std::string fault_of_successor(const Description& last, const Description& next) {
  if (next.sections.size() < last.sections.size()) return "sections of the last one are missing";
  for (std::size_t i = 0; i < last.sections.size(); ++i) {
    const Section& before = last.sections[i];
    const Section& after = next.sections[i];
    if (before.kind != after.kind || before.mid != after.mid) {
      return "section " + std::to_string(i) + " was " + printable_text(before.media) + " \"" +
             printable_text(before.mid) + "\" and is now " + printable_text(after.media) + " \"" +
             printable_text(after.mid) + "\"";
    }
  }
  return {};
}

}  // namespace sarnet::relay::sdp
