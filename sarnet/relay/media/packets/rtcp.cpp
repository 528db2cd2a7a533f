#include "relay/media/packets/rtcp.h"

#include <algorithm>

namespace sarnet::relay {
namespace {

constexpr unsigned kVersion = 2;
constexpr std::size_t kWord = 4;

enum Type : unsigned {
  kSenderReport = 200,
  kReceiverReport = 201,
  kSourceDescription = 202,
  kGoodbye = 203,
  kTransportFeedback = 205,
  kPayloadFeedback = 206,
};
// The count field of feedback.
constexpr unsigned kGenericNack = 1;
constexpr unsigned kPictureLoss = 1;
constexpr unsigned kFullIntraRequest = 4;
constexpr unsigned kApplicationLayer = 15;
constexpr std::uint32_t kRemb = 0x52454D42;  // "REMB"
constexpr unsigned kMantissaBits = 18;

constexpr std::int32_t kMaxLost = 0x7FFFFF;

ReportBlock read_block(ByteReader& reader) {
  ReportBlock block;
  block.ssrc = reader.u32();
  block.fraction_lost = reader.u8();
  const std::uint32_t lost = reader.u24();
  block.cumulative_lost = static_cast<std::int32_t>(lost << 8) >> 8;
  block.highest_sequence = reader.u32();
  block.jitter = reader.u32();
  block.last_sender_report = reader.u32();
  block.delay_since = reader.u32();
  return block;
}

void write_block(ByteWriter& writer, const ReportBlock& block) {
  writer.u32(block.ssrc);
  writer.u8(block.fraction_lost);
  writer.u24(
      static_cast<std::uint32_t>(std::clamp(block.cumulative_lost, -kMaxLost - 1, kMaxLost)) &
      0xFFFFFFU);
  writer.u32(block.highest_sequence);
  writer.u32(block.jitter);
  writer.u32(block.last_sender_report);
  writer.u32(block.delay_since);
}

bool read_report(ByteReader body, unsigned count, bool from_sender, RtcpHandler& handler) {
  const std::uint32_t sender = body.u32();
  if (from_sender) {
    SenderInfo info;
    info.ntp = body.u64();
    info.rtp_timestamp = body.u32();
    info.packets = body.u32();
    info.octets = body.u32();
    if (!body.ok()) return false;
    handler.on_sender_report(sender, info);
  }
  for (unsigned i = 0; i < count; ++i) {
    const ReportBlock block = read_block(body);
    if (!body.ok()) return false;
    handler.on_report_block(sender, block);
  }
  return body.ok();
}

bool read_nacks(ByteReader body, RtcpHandler& handler) {
  body.u32();  // its sender
  const std::uint32_t media = body.u32();
  while (body.left() != 0) {
    const std::uint16_t first = body.u16();
    const std::uint16_t mask = body.u16();
    if (!body.ok()) return false;
    handler.on_nack(media, first);
    for (unsigned bit = 0; bit < 16; ++bit) {
      if ((mask >> bit & 1U) != 0) {
        handler.on_nack(media, static_cast<std::uint16_t>(first + 1U + bit));
      }
    }
  }
  return body.ok();
}

bool read_full_intra_requests(ByteReader body, RtcpHandler& handler) {
  body.u32();
  body.u32();
  while (body.left() != 0) {
    const std::uint32_t media = body.u32();
    body.u32();  // its number, and three bytes of nothing
    if (!body.ok()) return false;
    handler.on_picture_loss(media);
  }
  return body.ok();
}

bool read_application_layer(ByteReader body, RtcpHandler& handler) {
  body.u32();
  body.u32();
  if (body.u32() != kRemb) return body.ok();
  body.u8();  // how many SSRCs follow: the limit is for them all
  const std::uint32_t packed = body.u24();
  if (!body.ok()) return false;
  const unsigned exponent = packed >> kMantissaBits;
  const std::uint64_t mantissa = packed & ((1U << kMantissaBits) - 1);
  // Six bits of exponent and eighteen of mantissa may go beyond 64.
  const bool fits = mantissa == 0 || exponent + kMantissaBits <= 63;
  handler.on_bitrate_limit(fits ? mantissa << exponent : UINT64_MAX);
  return true;
}

bool read_goodbyes(ByteReader body, unsigned count, RtcpHandler& handler) {
  for (unsigned i = 0; i < count; ++i) {
    const std::uint32_t ssrc = body.u32();
    if (!body.ok()) return false;
    handler.on_goodbye(ssrc);
  }
  return true;
}

bool read_part(Bytes body, unsigned count, unsigned type, RtcpHandler& handler) {
  ByteReader reader(body);
  switch (type) {
    case kSenderReport:
    case kReceiverReport:
      return read_report(reader, count, type == kSenderReport, handler);
    case kGoodbye:
      return read_goodbyes(reader, count, handler);
    case kTransportFeedback:
      return count != kGenericNack || read_nacks(reader, handler);
    case kPayloadFeedback:
      if (count == kPictureLoss) {
        reader.u32();
        const std::uint32_t media = reader.u32();
        if (reader.ok()) handler.on_picture_loss(media);
        return reader.ok();
      }
      if (count == kFullIntraRequest) return read_full_intra_requests(reader, handler);
      return count != kApplicationLayer || read_application_layer(reader, handler);
    default:
      return true;
  }
}

}  // namespace

bool parse_rtcp(Bytes bytes, RtcpHandler& handler) {
  ByteReader reader(bytes);
  while (reader.left() != 0) {
    const std::uint8_t head = reader.u8();
    const std::uint8_t type = reader.u8();
    const Bytes part = reader.take(kWord * reader.u16());
    if (!reader.ok() || head >> 6 != kVersion) return false;
    std::size_t padding = 0;
    if ((head & 0x20U) != 0) {
      padding = part.empty() ? 0 : part.back();
      if (padding == 0 || padding > part.size()) return false;
    }
    if (!read_part(part.first(part.size() - padding), head & 31U, type, handler)) return false;
  }
  return true;
}

// One part: the header, and what `body` writes after it, rounded up to whole words.
template <class Body>
bool RtcpWriter::add(unsigned count, unsigned type, Body&& body) {
  ByteWriter writer(std::span<std::uint8_t>(bytes_).subspan(size_));
  writer.u8(static_cast<std::uint8_t>(kVersion << 6 | count));
  writer.u8(static_cast<std::uint8_t>(type));
  writer.u16(0);
  body(writer);
  writer.zeros((kWord - writer.size() % kWord) % kWord);
  if (!writer.ok()) return false;
  writer.patch_u16(2, static_cast<std::uint16_t>(writer.size() / kWord - 1));
  size_ += writer.size();
  return true;
}

bool RtcpWriter::sender_report(std::uint32_t sender, const SenderInfo& info,
                               std::span<const ReportBlock> blocks) {
  blocks = blocks.first(std::min(blocks.size(), kMaxBlocks));
  return add(static_cast<unsigned>(blocks.size()), kSenderReport, [&](ByteWriter& writer) {
    writer.u32(sender);
    writer.u64(info.ntp);
    writer.u32(info.rtp_timestamp);
    writer.u32(info.packets);
    writer.u32(info.octets);
    for (const ReportBlock& block : blocks) write_block(writer, block);
  });
}

bool RtcpWriter::receiver_report(std::uint32_t sender, std::span<const ReportBlock> blocks) {
  blocks = blocks.first(std::min(blocks.size(), kMaxBlocks));
  return add(static_cast<unsigned>(blocks.size()), kReceiverReport, [&](ByteWriter& writer) {
    writer.u32(sender);
    for (const ReportBlock& block : blocks) write_block(writer, block);
  });
}

bool RtcpWriter::description(std::uint32_t ssrc, std::span<const char> cname) {
  constexpr std::uint8_t kCanonicalName = 1;
  const auto length = static_cast<std::uint8_t>(std::min<std::size_t>(cname.size(), 255));
  return add(1, kSourceDescription, [&](ByteWriter& writer) {
    writer.u32(ssrc);
    writer.u8(kCanonicalName);
    writer.u8(length);
    writer.bytes(Bytes(reinterpret_cast<const std::uint8_t*>(cname.data()), length));
    writer.u8(0);  // the list's end; zeros fill the word
  });
}

std::size_t RtcpWriter::nack(std::uint32_t sender, std::uint32_t media,
                             std::span<const std::int64_t> sequences) {
  constexpr std::size_t kFixed = 12;  // header and the two SSRCs
  std::size_t taken = 0;
  if (sequences.empty() || kMaxSize - size_ < kFixed + kWord) return 0;
  add(kGenericNack, kTransportFeedback, [&](ByteWriter& writer) {
    writer.u32(sender);
    writer.u32(media);
    while (taken < sequences.size() && writer.room() >= kWord) {
      const std::int64_t first = sequences[taken++];
      unsigned mask = 0;
      for (; taken < sequences.size() && sequences[taken] - first <= 16; ++taken) {
        if (sequences[taken] > first) mask |= 1U << (sequences[taken] - first - 1);
      }
      writer.u16(static_cast<std::uint16_t>(first));
      writer.u16(static_cast<std::uint16_t>(mask));
    }
  });
  return taken;
}

bool RtcpWriter::picture_loss(std::uint32_t sender, std::uint32_t media) {
  return add(kPictureLoss, kPayloadFeedback, [&](ByteWriter& writer) {
    writer.u32(sender);
    writer.u32(media);
  });
}

bool RtcpWriter::bitrate_limit(std::uint32_t sender, std::uint64_t bits_per_second,
                               std::span<const std::uint32_t> media) {
  media = media.first(std::min<std::size_t>(media.size(), 255));
  unsigned exponent = 0;
  while (bits_per_second >> exponent >= 1U << kMantissaBits) ++exponent;
  return add(kApplicationLayer, kPayloadFeedback, [&](ByteWriter& writer) {
    writer.u32(sender);
    writer.u32(0);
    writer.u32(kRemb);
    writer.u8(static_cast<std::uint8_t>(media.size()));
    writer.u24(exponent << kMantissaBits | static_cast<std::uint32_t>(bits_per_second >> exponent));
    for (const std::uint32_t ssrc : media) writer.u32(ssrc);
  });
}

}  // namespace sarnet::relay
