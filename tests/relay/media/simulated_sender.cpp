#include "relay/media/simulated_sender.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace simulation {

using sarnet::relay::Bytes;
using Format = SubscriptionReceiver::Format;

Call::Call(const Way& way, unsigned seed)
    : way_(way),
      random_(seed),
      opus_(opus_encoder_create(48000, 1, OPUS_APPLICATION_VOIP, nullptr), &opus_encoder_destroy),
      receiver_({}, *this, *this) {
  const AVCodec* const codec = avcodec_find_encoder_by_name("libvpx");
  if (codec == nullptr) throw std::runtime_error("libavcodec has no VP8 encoder");
  encoder_ = avcodec_alloc_context3(codec);
  encoder_->width = 160;
  encoder_->height = 120;
  encoder_->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder_->time_base = {1, 30};
  encoder_->gop_size = 100000;  // key frames on demand alone
  encoder_->bit_rate = 600'000;
  encoder_->thread_count = 1;
  AVDictionary* options = nullptr;
  av_dict_set(&options, "deadline", "realtime", 0);
  av_dict_set(&options, "lag-in-frames", "0", 0);
  const int opened = avcodec_open2(encoder_, codec, &options);
  av_dict_free(&options);
  if (opened < 0) throw std::runtime_error("the VP8 encoder does not open");
  frame_ = av_frame_alloc();
  frame_->format = AV_PIX_FMT_YUV420P;
  frame_->width = 160;
  frame_->height = 120;
  av_frame_get_buffer(frame_, 0);
  coded_ = av_packet_alloc();
  opus_encoder_ctl(opus_.get(), OPUS_SET_INBAND_FEC(1));
  opus_encoder_ctl(opus_.get(), OPUS_SET_PACKET_LOSS_PERC(10));
  receiver_.set_formats(
      {{.payload_type = 96, .kind = Format::Kind::kVp8, .answers_nack = true},
       {.payload_type = 111, .kind = Format::Kind::kOpus, .channels = 1, .answers_nack = true}});
}

Call::~Call() {
  av_packet_free(&coded_);
  av_frame_free(&frame_);
  avcodec_free_context(&encoder_);
}

void Call::run(Micros duration) {
  for (const Micros end = now_ + duration; now_ < end; now_ += Micros{1000}) {
    if (now_ >= next_picture_) send_picture();
    if (now_ >= next_sound_) send_sound();
    while (!way_queue_.empty() && way_queue_.top().at <= now_) {
      const Flight flight = way_queue_.top();
      way_queue_.pop();
      land(flight);
    }
    if (const auto due = receiver_.deadline(); due && *due <= now_) receiver_.advance(now_);
  }
}

void Call::leap(bool new_source) {
  for (Stream* stream : {&video_, &audio_}) {
    stream->sequence = static_cast<std::uint16_t>(stream->sequence + 20000);
    stream->history.clear();
    if (new_source) stream->ssrc += 7;
  }
}

void Call::send_picture() {
  next_picture_ += Micros{33'333};
  av_frame_make_writable(frame_);
  // Noise, so that a frame takes several packets.
  for (int row = 0; row < frame_->height; ++row) {
    for (int column = 0; column < frame_->width; ++column) {
      frame_->data[0][row * frame_->linesize[0] + column] = static_cast<std::uint8_t>(
          64 + (row * 3 + column * 5 + pictures_sent_ * 7) % 97 + random_() % 32);
    }
  }
  std::fill_n(frame_->data[1], frame_->linesize[1] * 60, std::uint8_t{128});
  std::fill_n(frame_->data[2], frame_->linesize[2] * 60, std::uint8_t{128});
  frame_->pts = pictures_sent_;
  frame_->pict_type = std::exchange(wants_key_, false) ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  const auto timestamp = static_cast<std::uint32_t>(3000 * pictures_sent_++);
  avcodec_send_frame(encoder_, frame_);
  while (avcodec_receive_packet(encoder_, coded_) == 0) {
    constexpr std::size_t kPart = 1000;
    const Bytes frame(coded_->data, static_cast<std::size_t>(coded_->size));
    for (std::size_t at = 0; at < frame.size(); at += kPart) {
      const Bytes part = frame.subspan(at, std::min(kPart, frame.size() - at));
      std::vector<std::uint8_t> payload(1 + part.size());
      payload[0] = at == 0 ? 0x10 : 0;
      std::copy(part.begin(), part.end(), payload.begin() + 1);
      send(video_, timestamp, at + kPart >= frame.size(), payload);
    }
    av_packet_unref(coded_);
  }
}

void Call::send_sound() {
  next_sound_ += Micros{20'000};
  std::array<std::int16_t, 960> samples;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] =
        static_cast<std::int16_t>(8000 * std::sin(static_cast<double>(i) / 960 * 60 * M_PI));
  }
  std::array<std::uint8_t, 1000> coded;
  const int size = opus_encode(opus_.get(), samples.data(), 960, coded.data(), coded.size());
  send(audio_, static_cast<std::uint32_t>(480 * blocks_sent_), false,
       Bytes(coded).first(static_cast<std::size_t>(std::max(size, 0))));
  blocks_sent_ += 2;
}

void Call::send(Stream& stream, std::uint32_t timestamp, bool marker, Bytes payload) {
  std::vector<std::uint8_t> packet(1500);
  packet.resize(sarnet::relay::write_rtp({.payload_type = stream.payload_type,
                                          .marker = marker,
                                          .sequence = stream.sequence,
                                          .timestamp = timestamp,
                                          .ssrc = stream.ssrc},
                                         payload, packet));
  launch(true, false, packet);
  stream.history[stream.sequence++] = std::move(packet);
}

void Call::launch(bool to_receiver, bool is_rtcp, Bytes bytes) {
  std::uniform_real_distribution<> chance(0, 1);
  const int copies = chance(random_) < way_.duplicates ? 2 : 1;
  for (int i = 0; i < copies; ++i) {
    if (chance(random_) < way_.loss) continue;
    const Micros late{
        static_cast<std::int64_t>(chance(random_) * static_cast<double>(way_.jitter.count()))};
    way_queue_.push(
        {now_ + way_.delay + late, ++flights_, to_receiver, is_rtcp, {bytes.begin(), bytes.end()}});
  }
}

void Call::land(const Flight& flight) {
  if (flight.to_receiver) {
    receiver_.take_rtp(flight.bytes, now_);
  } else {
    sarnet::relay::parse_rtcp(flight.bytes, *this);
  }
}

void Call::on_audio(const sarnet::AudioFormat&, std::span<const std::int16_t>) { ++blocks_; }

void Call::on_picture(const sarnet::PictureRef&) { shown_.push_back(now_); }

void Call::send_rtcp(Bytes packet) { launch(false, true, packet); }

void Call::on_nack(std::uint32_t media, std::uint16_t sequence) {
  Stream& stream = media == video_.ssrc ? video_ : audio_;
  const auto found = stream.history.find(sequence);
  if (media == stream.ssrc && found != stream.history.end()) launch(true, false, found->second);
}

void Call::on_picture_loss(std::uint32_t) {
  ++key_frames_asked_;
  wants_key_ = true;
}

Micros Call::longest_freeze(Micros since) const {
  Micros longest{0};
  Micros last = since;
  for (const Micros at : shown_) {
    if (at < since) continue;
    if (last.count() != 0) longest = std::max(longest, at - last);
    last = at;
  }
  return longest;
}

}  // namespace simulation
