#pragma once

#include <memory>
#include <span>

#include "base/audio_format.h"
#include "relay/peer/gst_handles.h"
#include "relay/peer/peer_connection.h"
#include "relay/peer/stamp_clock.h"

namespace sarnet::relay {

// Published sound: raw samples into the pipeline, Opus in packets of 20 ms out of it.
class AudioSender {
 public:
  // Adds itself to the peer's pipeline; before the offer. Null when that fails.
  static std::unique_ptr<AudioSender> create(const PeerConnection& peer, bool stereo, bool dtx);

  // One thread at a time. `now_ns` is the pipeline's running time. Copies; drops the oldest 10 ms
  // when 200 ms wait to be coded. Takes 48 kHz alone; one channel is made two, or two one, as
  // needed.
  void push(const AudioFormat& format, std::span<const std::int16_t> samples, std::int64_t now_ns);

 private:
  explicit AudioSender(int channels) : channels_(channels) {}

  const int channels_;
  StampClock clock_{48000};
  ElementPtr source_;
};

}  // namespace sarnet::relay
