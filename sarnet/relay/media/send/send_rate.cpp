#include "relay/media/send/send_rate.h"

#include <algorithm>

namespace sarnet::relay {
namespace {

// Below the first, losses are chance and the rate grows; above the second, the way is full.
constexpr double kFewLost = 0.02;
constexpr double kManyLost = 0.10;
constexpr double kGrowth = 1.15;  // a report, about one a second
constexpr Micros kBetweenCuts{300'000};

}  // namespace

void SendRate::set_wanted(std::uint64_t bits_per_second) { wanted_ = bits_per_second; }

void SendRate::take_loss(std::uint8_t fraction_lost, Micros now) {
  const double lost = fraction_lost / 256.0;
  if (lost > kManyLost && now - changed_ >= kBetweenCuts) {
    share_ = std::max(share_ * (1 - lost / 2 - 0.1), 0.02);
    changed_ = now;
  } else if (lost < kFewLost && now - changed_ >= kBetweenCuts) {
    share_ = std::min(1.0, share_ * kGrowth);
    changed_ = now;
  }
}

std::uint64_t SendRate::target() const {
  const auto by_loss = static_cast<std::uint64_t>(static_cast<double>(wanted_) * share_);
  return std::max(kLeast, std::min({wanted_, by_loss, limit_}));
}

}  // namespace sarnet::relay
