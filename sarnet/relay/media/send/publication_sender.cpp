#include "relay/media/send/publication_sender.h"

#include <algorithm>
#include <array>
#include <utility>

#include "relay/media/payloads/h264_packets.h"
#include "relay/media/payloads/vp8_packets.h"

namespace sarnet::relay {
namespace {

constexpr Micros kReportInterval{1'000'000};
// Between two key frames that are asked for.
constexpr Micros kKeyInterval{250'000};
constexpr std::size_t kHeader = 12;
constexpr std::size_t kMaxPayload = kMaxPacket - kHeader;
// Seconds from 1900, where NTP begins, to 1970.
constexpr std::uint64_t kNtpEpoch = 2'208'988'800;
// Faster than the encoder, so that what waits goes out before the next frame comes.
constexpr std::uint64_t kPacing = 5;
constexpr std::uint64_t kLeastPacing = 2'500'000;

std::uint64_t ntp(Micros since_unix_epoch) {
  const auto micros = static_cast<std::uint64_t>(since_unix_epoch.count());
  return (micros / 1'000'000 + kNtpEpoch) << 32 | (micros % 1'000'000 << 32) / 1'000'000;
}

}  // namespace

std::uint32_t PublicationSender::Stream::timestamp(Micros stamp) const {
  return offset + static_cast<std::uint32_t>(stamp.count() * clock_rate / 1'000'000);
}

PublicationSender::PublicationSender(Settings settings, Micros wall_clock, Output& output)
    : settings_(std::move(settings)), wall_clock_(wall_clock), output_(output) {
  audio_.ssrc = settings_.audio_ssrc;
  audio_.payload_type = settings_.audio_payload;
  audio_.clock_rate = 48000;
  video_.ssrc = settings_.video_ssrc;
  video_.payload_type = settings_.video_payload;
  video_.clock_rate = 90000;
  // Where they begin is to tell nothing (RFC 3550, section 5.1); the SSRCs are random.
  for (Stream* stream : {&audio_, &video_}) {
    stream->offset = stream->ssrc * 2654435761U;
    stream->sequence = static_cast<std::uint16_t>(stream->ssrc * 40503U & 0x7FFFU);
  }
}

void PublicationSender::set_video(VideoCodec codec, std::uint8_t payload_type) {
  settings_.codec = codec;
  video_.payload_type = payload_type;
}

void PublicationSender::send_audio(Bytes packet, Micros stamp, bool begins, Micros now) {
  now_ = now;
  // Past what waits of the pictures: sound first.
  send(audio_, audio_.timestamp(stamp), begins, packet, false);
}

void PublicationSender::send_video(Bytes frame, Micros stamp, Micros now) {
  now_ = now;
  pacer_.set_rate(std::max(kLeastPacing, rate_.target() * kPacing));
  const std::uint32_t timestamp = video_.timestamp(stamp);
  const auto add = [&](Bytes payload, bool is_last) {
    send(video_, timestamp, is_last, payload, true);
  };
  if (settings_.codec == VideoCodec::kVp8) {
    packetise_vp8(frame, picture_id_++, kMaxPayload, add);
  } else {
    packetise_h264(frame, kMaxPayload, add);
  }
  flush();
}

void PublicationSender::send(Stream& stream, std::uint32_t timestamp, bool marker, Bytes payload,
                             bool paced) {
  std::array<std::uint8_t, kMaxPacket> bytes;
  RtpHeader header;
  header.payload_type = stream.payload_type;
  header.marker = marker;
  header.sequence = stream.sequence++;
  header.timestamp = timestamp;
  header.ssrc = stream.ssrc;
  const Bytes packet = Bytes(bytes).first(write_rtp(header, payload, bytes));
  if (packet.empty()) return;
  ++stream.packets;
  stream.octets += static_cast<std::uint32_t>(payload.size());
  ++counters_.packets;
  stream.history.add(header.sequence, packet);
  if (!paced) {
    output_.send_rtp(packet);
  } else if (!pacer_.add(packet, now_)) {
    ++counters_.dropped;
  }
}

void PublicationSender::flush() {
  for (Bytes packet = pacer_.take(now_); !packet.empty(); packet = pacer_.take(now_)) {
    output_.send_rtp(packet);
  }
}

void PublicationSender::take_rtcp(Bytes bytes, Micros now) {
  now_ = now;
  parse_rtcp(bytes, *this);
}

void PublicationSender::on_nack(std::uint32_t media, std::uint16_t sequence) {
  for (Stream* stream : {&audio_, &video_}) {
    if (stream->ssrc != media) continue;
    const Bytes packet = stream->history.find(sequence, now_);
    ++(packet.empty() ? counters_.not_there : counters_.sent_again);
    if (!packet.empty()) output_.send_rtp(packet);
  }
}

void PublicationSender::on_picture_loss(std::uint32_t) {
  ++counters_.key_requests;
  key_requested_ = true;
}

void PublicationSender::on_report_block(std::uint32_t, const ReportBlock& block) {
  if (block.ssrc == video_.ssrc) rate_.take_loss(block.fraction_lost, now_);
}

void PublicationSender::on_bitrate_limit(std::uint64_t bits_per_second) {
  rate_.take_limit(bits_per_second);
}

bool PublicationSender::take_key_request() {
  if (!key_requested_ || (key_taken_ && now_ - *key_taken_ < kKeyInterval)) return false;
  key_requested_ = false;
  key_taken_ = now_;
  return true;
}

void PublicationSender::advance(Micros now) {
  now_ = now;
  flush();
  if (now >= next_report_) report();
}

std::optional<Micros> PublicationSender::deadline() const {
  const auto paced = pacer_.deadline();
  return paced ? std::min(*paced, next_report_) : next_report_;
}

void PublicationSender::report() {
  next_report_ = now_ + kReportInterval;
  for (const Stream* stream : {&audio_, &video_}) {
    if (stream->packets == 0) continue;
    rtcp_.clear();
    const SenderInfo info{ntp(wall_clock_ + now_), stream->timestamp(now_), stream->packets,
                          stream->octets};
    rtcp_.sender_report(stream->ssrc, info, {});
    rtcp_.description(stream->ssrc, settings_.cname);
    output_.send_rtcp(rtcp_.bytes());
  }
}

}  // namespace sarnet::relay
