#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/engine.h"
#include "relay/peer/gst_handles.h"

namespace sarnet::relay {

// Decodes what arrives at a pad of webrtcbin, on the thread that the pad's packets come on, into a
// sink.
class StreamDecoder {
 public:
  virtual ~StreamDecoder() = default;

  // Adds to the pipeline what decodes media of that pad. False, and logged, when the codec is not
  // known. The decoder belongs to the pipeline from then on.
  static bool attach(GstBin* pipeline, GstPad* pad, const std::shared_ptr<MediaSink>& sink);

  virtual void take(GstSample* sample) = 0;
};

// Sound in blocks of 10 ms, whatever the size of the packets, which it gets as they come.
// `channels` as the stream is described, 0 if it isn't.
std::unique_ptr<StreamDecoder> make_audio_taker(std::shared_ptr<MediaSink> sink, int channels);
// Pictures of any size, each copied once.
std::unique_ptr<StreamDecoder> make_picture_taker(std::shared_ptr<MediaSink> sink);

// What the caps of a pad of webrtcbin say.
struct StreamCaps {
  bool is_video = false;
  std::string codec;  // "OPUS", "VP8", "H264"
  std::uint32_t ssrc = 0;
  int channels = 0;  // of sound, 0: not told
};
StreamCaps stream_caps(GstPad* pad);

}  // namespace sarnet::relay
