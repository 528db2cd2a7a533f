#include "relay/media/receive/reorder_buffer.h"

#include <algorithm>

namespace sarnet::relay {
namespace {

// A step of more is taken for a sender that began anew, once a second packet confirms it (RFC 3550,
// appendix A.1). Ten seconds of sound, one to two of a large picture.
constexpr std::int64_t kMaxStep = 500;

// Twice the longest step.
constexpr std::size_t kMaxMissing = 1000;

}  // namespace

ReorderBuffer::ReorderBuffer(Settings settings, OrderedSink& sink)
    : settings_(settings), sink_(sink) {
  held_.reserve(settings_.capacity);
  spare_.reserve(settings_.capacity);
  missing_.reserve(kMaxMissing + static_cast<std::size_t>(kMaxStep));
}

ReorderBuffer::Outcome ReorderBuffer::insert(const RtpPacket& packet, Micros now) {
  ++counters_.received;
  if (!next_) {
    next_ = highest_ = unwrapper_.unwrap(packet.sequence);
  } else if (is_restart(packet.sequence)) {
    if (restart_next_ != packet.sequence) {
      restart_next_ = static_cast<std::uint16_t>(packet.sequence + 1U);
      return Outcome::kUseless;
    }
    restart(packet.sequence);
  }
  restart_next_.reset();
  const std::int64_t sequence = unwrapper_.peek(packet.sequence);
  if (sequence > *highest_) {
    unwrapper_.unwrap(packet.sequence);
    note_gap(sequence, now);
    highest_ = sequence;
  }
  if (sequence < *next_) {
    ++counters_.late;
    return Outcome::kUseless;
  }
  if (sequence > *next_) {
    if (holds(sequence, sequence)) {
      ++counters_.duplicates;
      return Outcome::kUseless;
    }
    hold(sequence, packet);
    return Outcome::kHeld;
  }
  std::erase_if(missing_, [&](const Missing& each) { return each.sequence == sequence; });
  deliver(sequence, packet);
  drain();
  return Outcome::kDelivered;
}

bool ReorderBuffer::is_restart(std::uint16_t sequence) {
  const std::int64_t step = unwrapper_.peek(sequence) - *highest_;
  return step > kMaxStep || step < -kMaxStep;
}

void ReorderBuffer::restart(std::uint16_t sequence) {
  ++counters_.restarts;
  give_up_until(*highest_ + 1);
  // Numbers never go back for the sink: the new ones follow the old ones.
  unwrapper_ = SequenceUnwrapper(*next_, sequence);
  highest_ = next_;
}

void ReorderBuffer::note_gap(std::int64_t until, Micros now) {
  for (std::int64_t sequence = std::max(*highest_ + 1, *next_); sequence < until; ++sequence) {
    missing_.push_back({sequence, now, Micros{0}, 0});
  }
  // A sender that leaps ahead again and again must not make this grow.
  if (missing_.size() > kMaxMissing) {
    give_up_until(missing_[missing_.size() - kMaxMissing / 2].sequence);
  }
}

void ReorderBuffer::hold(std::int64_t sequence, const RtpPacket& packet) {
  std::erase_if(missing_, [&](const Missing& each) { return each.sequence == sequence; });
  if (held_.size() == settings_.capacity) {
    give_up_until(held_.front()->sequence);
    drain();
    if (sequence == *next_) {
      deliver(sequence, packet);
      drain();
      return;
    }
  }
  if (spare_.empty()) spare_.push_back(std::make_unique<Held>());
  std::unique_ptr<Held> slot = std::move(spare_.back());
  spare_.pop_back();
  slot->sequence = sequence;
  slot->packet = packet;
  slot->bytes.assign(packet.payload.begin(), packet.payload.end());
  slot->packet.payload = slot->bytes;
  const auto at = std::upper_bound(
      held_.begin(), held_.end(), sequence,
      [](std::int64_t number, const auto& each) { return number < each->sequence; });
  held_.insert(at, std::move(slot));
}

void ReorderBuffer::deliver(std::int64_t sequence, const RtpPacket& packet) {
  next_ = sequence + 1;
  sink_.on_packet(sequence, packet);
}

void ReorderBuffer::drain() {
  std::size_t gone = 0;
  while (gone < held_.size() && held_[gone]->sequence == *next_) {
    deliver(held_[gone]->sequence, held_[gone]->packet);
    ++gone;
  }
  std::move(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(gone),
            std::back_inserter(spare_));
  held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(gone));
}

void ReorderBuffer::give_up_until(std::int64_t sequence) {
  // What is held in between goes out on the way.
  while (*next_ < sequence) {
    const std::int64_t until =
        held_.empty() ? sequence : std::min(sequence, held_.front()->sequence);
    if (const std::int64_t count = until - *next_; count > 0) {
      counters_.lost += static_cast<std::uint64_t>(count);
      const std::int64_t first = *next_;
      next_ = until;
      sink_.on_lost(first, count);
    }
    drain();
  }
  std::erase_if(missing_, [&](const Missing& each) { return each.sequence < *next_; });
}

void ReorderBuffer::skip_to(std::int64_t sequence) {
  give_up_until(sequence);
  drain();
}

void ReorderBuffer::advance(Micros now) {
  while (!missing_.empty() && now - missing_.front().since >= settings_.patience) {
    give_up_until(missing_.front().sequence + 1);
    drain();
  }
}

std::optional<Micros> ReorderBuffer::deadline() const {
  if (missing_.empty()) return std::nullopt;
  return missing_.front().since + settings_.patience;
}

bool ReorderBuffer::holds(std::int64_t first, std::int64_t last) const {
  const auto at = std::lower_bound(
      held_.begin(), held_.end(), first,
      [](const auto& each, std::int64_t number) { return each->sequence < number; });
  const std::int64_t count = last - first + 1;
  return count > 0 && held_.end() - at >= count && (*at)->sequence == first &&
         (*(at + (count - 1)))->sequence == last;
}

}  // namespace sarnet::relay
