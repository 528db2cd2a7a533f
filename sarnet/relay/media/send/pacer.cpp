#include "relay/media/send/pacer.h"

#include <algorithm>

namespace sarnet::relay {

void Pacer::refill(Micros now) {
  if (now > refilled_) {
    const double gained =
        static_cast<double>(rate_) / 8e6 * static_cast<double>((now - refilled_).count());
    credit_ = std::min(static_cast<double>(kBurst), credit_ + gained);
    refilled_ = now;
  }
}

bool Pacer::add(Bytes packet, Micros now) {
  if (size_ == queue_.size() || packet.size() > kMaxPacket) return false;
  refill(now);
  Entry& entry = queue_[(first_ + size_++) % queue_.size()];
  entry.size = static_cast<std::uint16_t>(packet.size());
  std::copy(packet.begin(), packet.end(), entry.bytes.begin());
  return true;
}

Bytes Pacer::take(Micros now) {
  refill(now);
  if (size_ == 0 || credit_ <= 0) return {};
  const Entry& entry = queue_[first_];
  first_ = (first_ + 1) % queue_.size();
  --size_;
  credit_ -= entry.size;
  return Bytes(entry.bytes).first(entry.size);
}

std::optional<Micros> Pacer::deadline() const {
  if (size_ == 0) return std::nullopt;
  if (credit_ > 0) return refilled_;
  return refilled_ +
         Micros{static_cast<std::int64_t>(-credit_ * 8e6 / static_cast<double>(rate_)) + 1};
}

}  // namespace sarnet::relay
