#include "relay/media/receive/subscription_receiver.h"

#include <algorithm>
#include <utility>

namespace sarnet::relay {
namespace {

constexpr Micros kReportInterval{1'000'000};
// Between two requests for the same packet: longer than the way to a server and back mostly is.
constexpr Micros kAskAgain{40'000};
// The server may hold back a second answer about a packet for 200 ms: the last requests are for
// what was lost a second time.
constexpr unsigned kMaxAsked = 8;
// Sound is asked for once: a second answer would come too late.
constexpr unsigned kMaxAskedOfSound = 1;
// Between two requests for a key frame; servers pass on no more than a few a second.
constexpr Micros kKeyInterval{250'000};
// More are not worth asking for: a key frame is sooner here.
constexpr std::size_t kMaxWanted = 200;

std::optional<Micros> earlier(std::optional<Micros> one, std::optional<Micros> other) {
  if (!one || !other) return one ? one : other;
  return std::min(*one, *other);
}

// When the next packet is to be asked for again.
std::optional<Micros> next_request(std::span<const ReorderBuffer::Missing> missing, unsigned most) {
  std::optional<Micros> next;
  for (const ReorderBuffer::Missing& each : missing) {
    if (each.times < most) {
      next = earlier(next, each.times == 0 ? each.since : each.asked + kAskAgain);
    }
  }
  return next;
}

}  // namespace

SubscriptionReceiver::SubscriptionReceiver(const Settings& settings, MediaSink& sink,
                                           Output& output)
    : settings_(settings), sink_(sink), output_(output) {
  wanted_.reserve(kMaxWanted);
}

const SubscriptionReceiver::Format* SubscriptionReceiver::find(std::uint8_t payload_type) const {
  const auto found = std::ranges::find(formats_, payload_type, &Format::payload_type);
  return found == formats_.end() ? nullptr : &*found;
}

void SubscriptionReceiver::take_rtp(Bytes bytes, Micros now) {
  const auto packet = parse_rtp(bytes);
  if (!packet) {
    ++counters_.malformed;
    return;
  }
  const Format* const format = find(packet->payload_type);
  if (format == nullptr) {
    ++counters_.unknown;
  } else if (format->kind == Format::Kind::kRetransmission) {
    take_retransmission(*packet, *format, now);
  } else {
    take_media(*packet, *format, now);
  }
  give_feedback(now);
}

void SubscriptionReceiver::take_retransmission(RtpPacket packet, const Format& format, Micros now) {
  ByteReader reader(packet.payload);
  packet.sequence = reader.u16();  // the original one (RFC 4588, section 4)
  packet.payload = reader.rest();
  packet.payload_type = format.repairs;
  const Format* const repaired = find(format.repairs);
  const Reception& reception = repaired != nullptr && repaired->kind == Format::Kind::kOpus
                                   ? audio_reception_
                                   : video_reception_;
  if (!reader.ok() || packet.payload.empty() || repaired == nullptr || !reception.ssrc()) return;
  packet.ssrc = *reception.ssrc();
  ++counters_.retransmissions;
  take_media(packet, *repaired, now);
}

void SubscriptionReceiver::take_media(const RtpPacket& packet, const Format& format, Micros now) {
  if (format.kind == Format::Kind::kOpus) {
    if (!audio_ || audio_reception_.ssrc() != packet.ssrc) {
      audio_.emplace(format.channels, settings_.audio_patience, sink_);
    }
    audio_nack_ = format.answers_nack;
    audio_reception_.take(packet, now);
    audio_->take(packet, now);
    return;
  }
  if (format.kind == Format::Kind::kRetransmission) return;
  const VideoCodec codec = format.kind == Format::Kind::kVp8 ? VideoCodec::kVp8 : VideoCodec::kH264;
  if (!video_ || codec != codec_ || video_reception_.ssrc() != packet.ssrc) {
    codec_ = codec;
    video_.emplace(codec, settings_.video_patience, sink_);
  }
  video_nack_ = format.answers_nack;
  video_reception_.take(packet, now);
  video_->take(packet, now);
}

void SubscriptionReceiver::take_rtcp(Bytes bytes, Micros now) {
  now_ = now;
  if (!parse_rtcp(bytes, *this)) ++counters_.malformed;
}

void SubscriptionReceiver::on_sender_report(std::uint32_t sender, const SenderInfo& info) {
  for (Reception* each : {&audio_reception_, &video_reception_}) {
    if (each->ssrc() == sender) each->take_sender_report(info, now_);
  }
}

void SubscriptionReceiver::advance(Micros now) {
  if (audio_) audio_->advance(now);
  if (video_) video_->advance(now);
  give_feedback(now);
  if (now >= next_report_) report(now);
}

std::optional<Micros> SubscriptionReceiver::deadline() const {
  std::optional<Micros> next = next_report_;
  if (audio_) {
    next = earlier(next, audio_->deadline());
    next = earlier(next, next_request(audio_->missing(), audio_nack_ ? kMaxAskedOfSound : 0));
  }
  if (video_) {
    next = earlier(next, video_->deadline());
    next = earlier(next, next_request(video_->missing(), video_nack_ ? kMaxAsked : 0));
    if (video_->wants_key_frame() && key_asked_) next = earlier(next, *key_asked_ + kKeyInterval);
  }
  return next;
}

template <class Receiver>
void SubscriptionReceiver::collect(Receiver& receiver, Micros now, unsigned most) {
  wanted_.clear();
  for (ReorderBuffer::Missing& each : receiver.missing()) {
    if (wanted_.size() == kMaxWanted) break;
    if (each.times >= most || (each.times > 0 && now - each.asked < kAskAgain)) continue;
    each.asked = now;
    ++each.times;
    wanted_.push_back(receiver.on_wire(each.sequence));
  }
  counters_.asked_again += wanted_.size();
}

void SubscriptionReceiver::give_feedback(Micros now) {
  if (audio_) {
    collect(*audio_, now, audio_nack_ ? kMaxAskedOfSound : 0);
    if (!wanted_.empty()) send(audio_reception_, now, false);
  }
  if (!video_) return;
  collect(*video_, now, video_nack_ ? kMaxAsked : 0);
  const bool wants_key =
      video_->wants_key_frame() && (!key_asked_ || now - *key_asked_ >= kKeyInterval);
  if (wants_key) {
    key_asked_ = now;
    ++counters_.key_frames_asked;
  }
  if (wants_key || !wanted_.empty()) send(video_reception_, now, wants_key);
}

void SubscriptionReceiver::send(const Reception& about, Micros now, bool wants_key) {
  // The server takes the medium that feedback is about from the first report block.
  const ReportBlock block = about.peek(now);
  rtcp_.clear();
  rtcp_.receiver_report(settings_.own_ssrc, std::span(&block, 1));
  if (!wanted_.empty()) rtcp_.nack(settings_.own_ssrc, block.ssrc, wanted_);
  if (wants_key) rtcp_.picture_loss(settings_.own_ssrc, block.ssrc);
  output_.send_rtcp(rtcp_.bytes());
}

void SubscriptionReceiver::report(Micros now) {
  next_report_ = now + kReportInterval;
  std::array<ReportBlock, 2> blocks;
  std::size_t count = 0;
  for (Reception* each : {&video_reception_, &audio_reception_}) {
    if (each->ssrc()) blocks.at(count++) = each->report(now);
  }
  if (count == 0) return;
  rtcp_.clear();
  rtcp_.receiver_report(settings_.own_ssrc, std::span(blocks).first(count));
  output_.send_rtcp(rtcp_.bytes());
}

}  // namespace sarnet::relay
