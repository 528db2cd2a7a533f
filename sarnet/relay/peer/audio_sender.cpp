#include "relay/peer/audio_sender.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <string>

#include "base/audio_channels.h"
#include "relay/peer/pipeline_parts.h"

namespace sarnet::relay {

namespace {

constexpr int kRate = 48000;
// Few enough operations for a busy machine; more are not to be heard in speech.
constexpr int kComplexity = 5;

std::string describe(int channels, bool dtx) {
  const std::string flag = dtx ? "true" : "false";
  const std::string stereo = channels == 2 ? "1" : "0";
  return "appsrc name=source is-live=true format=time emit-signals=false max-bytes=0 "
         "max-time=200000000 leaky-type=downstream caps=audio/x-raw,format=S16LE,rate=48000,"
         "layout=interleaved,channels=" +
         std::to_string(channels) +
         " ! opusenc frame-size=20 inband-fec=true packet-loss-percentage=5 complexity=" +
         std::to_string(kComplexity) + " bitrate=" + std::to_string(channels * 32000) +
         " dtx=" + flag + " ! rtpopuspay pt=111 dtx=" + flag +
         " ! capsfilter "
         "caps=\"application/x-rtp,media=audio,encoding-name=OPUS,payload=111,clock-rate=48000,"
         // Opus is always described with two channels; a server refuses anything else.
         "encoding-params=(string)2,minptime=(string)10,useinbandfec=(string)1,stereo=(string)" +
         stereo + ",sprop-stereo=(string)" + stereo + random_ssrc() + "\"";
}

}  // namespace

std::unique_ptr<AudioSender> AudioSender::create(const PeerConnection& peer, bool stereo,
                                                 bool dtx) {
  std::unique_ptr<AudioSender> sender(new AudioSender(stereo ? 2 : 1));
  GstElement* branch = add_sending_branch(peer, describe(sender->channels_, dtx), nullptr);
  if (branch == nullptr) return nullptr;
  sender->source_.reset(gst_bin_get_by_name(GST_BIN(branch), "source"));
  return sender;
}

void AudioSender::push(const AudioFormat& format, std::span<const std::int16_t> samples,
                       std::int64_t now_ns) {
  if (format.rate != kRate || format.channels < 1 || now_ns < 0) return;
  const std::size_t frames = samples.size() / static_cast<std::size_t>(format.channels);
  GstBuffer* buffer = gst_buffer_new_allocate(
      nullptr, frames * static_cast<std::size_t>(channels_) * sizeof(std::int16_t), nullptr);
  GstMapInfo map;
  if (gst_buffer_map(buffer, &map, GST_MAP_WRITE) == FALSE) {
    gst_buffer_unref(buffer);
    return;
  }
  convert_channels(samples.data(), format.channels, reinterpret_cast<std::int16_t*>(map.data),
                   channels_, frames);
  gst_buffer_unmap(buffer, &map);
  const std::int64_t stamp = clock_.stamp(now_ns, static_cast<std::int64_t>(frames));
  GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(stamp);
  GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale_int(frames, GST_SECOND, kRate);
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
}

}  // namespace sarnet::relay
