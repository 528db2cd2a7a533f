#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "relay/media/packets/rtp_packet.h"

namespace sarnet::relay {

// Takes what a ReorderBuffer lets go, in order of the sequence, each number once.
class OrderedSink {
 public:
  virtual ~OrderedSink() = default;
  // `packet` borrows memory that is valid during the call.
  virtual void on_packet(std::int64_t sequence, const RtpPacket& packet) = 0;
  // Given up: these will not come any more.
  virtual void on_lost(std::int64_t first, std::int64_t count) = 0;
};

// Puts the packets of one stream in order. A packet that comes in its turn passes straight through;
// one that overtook others is kept until they came, or for `patience`, whichever is first. A sender
// that starts its numbers anew is followed after two packets.
//
// No clock and no thread of its own: one thread at a time. Memory: as many packets as were ever
// held at once, at most `capacity`; nothing is allocated while no more than that are held.
class ReorderBuffer {
 public:
  struct Settings {
    Micros patience{40'000};     // how long a missing packet is waited for
    std::size_t capacity = 512;  // packets held at once; with more the oldest gap is given up
  };
  struct Counters {
    std::uint64_t received = 0;
    std::uint64_t lost = 0;  // given up
    std::uint64_t late = 0;  // came after they had been given up
    std::uint64_t duplicates = 0;
    std::uint64_t restarts = 0;  // the sender's numbers began anew
  };
  // A number that is missing while later ones are here.
  struct Missing {
    std::int64_t sequence = 0;
    Micros since{0};  // when the gap was seen
    Micros asked{0};  // last; for whoever asks for it again
    unsigned times = 0;
  };

  ReorderBuffer(Settings settings, OrderedSink& sink);

  // Where a packet stands: in its turn, held, or of no use. Tells the sink all that may go now.
  enum class Outcome { kDelivered, kHeld, kUseless };
  Outcome insert(const RtpPacket& packet, Micros now);
  // Gives up what was waited for long enough.
  void advance(Micros now);
  // When advance() has something to do next; nothing while no packet is held.
  std::optional<Micros> deadline() const;

  // Gives up all that is missing before `sequence`, a held one.
  void skip_to(std::int64_t sequence);
  // Whether all from `first` to `last` are held.
  bool holds(std::int64_t first, std::int64_t last) const;
  std::int64_t unwrap(std::uint16_t sequence) const { return unwrapper_.peek(sequence); }
  // The number that the sender knows it by, modulo 65536.
  std::int64_t on_wire(std::int64_t sequence) const { return sequence - unwrapper_.shift(); }

  // In order of the sequence.
  std::span<Missing> missing() { return missing_; }
  std::span<const Missing> missing() const { return missing_; }
  const Counters& counters() const { return counters_; }
  // The highest number so far.
  std::optional<std::int64_t> highest() const { return highest_; }

 private:
  struct Held {
    std::int64_t sequence = -1;
    RtpPacket packet;  // its views point into bytes
    std::vector<std::uint8_t> bytes;
  };

  bool is_restart(std::uint16_t sequence);
  void restart(std::uint16_t sequence);
  void hold(std::int64_t sequence, const RtpPacket& packet);
  void note_gap(std::int64_t until, Micros now);
  void deliver(std::int64_t sequence, const RtpPacket& packet);
  void drain();
  void give_up_until(std::int64_t sequence);

  const Settings settings_;
  OrderedSink& sink_;
  SequenceUnwrapper unwrapper_;
  std::optional<std::int64_t> next_;  // the first that was not yet let go
  std::optional<std::int64_t> highest_;
  std::vector<std::unique_ptr<Held>> held_;  // by sequence
  std::vector<std::unique_ptr<Held>> spare_;
  std::vector<Missing> missing_;
  std::optional<std::uint16_t> restart_next_;  // what would confirm a restart
  Counters counters_;
};

}  // namespace sarnet::relay
