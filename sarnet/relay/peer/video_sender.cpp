#define GST_USE_UNSTABLE_API
#include "relay/peer/video_sender.h"

#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#include <gst/webrtc/webrtc.h>

#include <algorithm>
#include <array>

#include "relay/peer/pipeline_parts.h"
#include "relay/peer/services.h"

namespace sarnet::relay {

namespace {

constexpr const char* kSource =
    "appsrc name=source is-live=true format=time emit-signals=false max-bytes=0 max-buffers=3 "
    "leaky-type=downstream ! ";
// Realtime, fixed speed, constant rate with half a second of credit; key frames when asked for, at
// most four a second.
constexpr const char* kVp8Encoder =
    "vp8enc name=encoder deadline=1 cpu-used=-12 threads=1 end-usage=cbr buffer-size=600 "
    "buffer-initial-size=400 buffer-optimal-size=500 undershoot=95 static-threshold=100 "
    "keyframe-max-dist=3000 min-force-key-unit-interval=100000000 ! "
    "rtpvp8pay pt=96 picture-id-mode=15-bit ! ";
constexpr const char* kVp8Caps =
    "application/x-rtp,media=video,encoding-name=VP8,payload=96,clock-rate=90000";
constexpr const char* kH264Encoder =
    "openh264enc name=encoder complexity=low rate-control=bitrate gop-size=3000 multi-thread=1 "
    "min-force-key-unit-interval=100000000 ! video/x-h264,profile=constrained-baseline ! "
    "rtph264pay pt=97 config-interval=-1 aggregate-mode=zero-latency ! ";
constexpr const char* kH264Caps =
    "application/x-rtp,media=video,encoding-name=H264,payload=97,clock-rate=90000,"
    "packetization-mode=(string)1";
constexpr const char* kH264Profile =
    ",profile-level-id=(string)42e01f,level-asymmetry-allowed=(string)1";

constexpr const char* kFilter = "capsfilter caps=\"";

void release_picture(gpointer data) { delete static_cast<PictureRef*>(data); }

// The picture itself, without a copy.
GstBuffer* wrap(const PictureRef& picture, int width, int height) {
  const PictureView view = std::as_const(*picture).view();
  auto* bytes = const_cast<std::uint8_t*>(view.y);  // read only, says the flag
  GstBuffer* buffer =
      gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, bytes, picture->size(), 0,
                                  picture->size(), new PictureRef(picture), &release_picture);
  std::array<gsize, GST_VIDEO_MAX_PLANES> offsets{0, static_cast<gsize>(view.u - view.y),
                                                  static_cast<gsize>(view.v - view.y), 0};
  std::array<gint, GST_VIDEO_MAX_PLANES> strides{view.stride_y, view.stride_u, view.stride_v, 0};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_I420,
                                 static_cast<guint>(width), static_cast<guint>(height), 3,
                                 offsets.data(), strides.data());
  return buffer;
}

}  // namespace

VideoSender::VideoSender(int fps) : fps_(std::max(fps, 1)), clock_(fps_) {}

std::unique_ptr<VideoSender> VideoSender::create(const PeerConnection& peer, int fps,
                                                 unsigned mline) {
  std::unique_ptr<VideoSender> sender(new VideoSender(fps));
  sender->ssrc_ = random_ssrc();
  sender->pad_name_ = "sink_" + std::to_string(mline);
  const std::string offered = kVp8Caps + sender->ssrc_ + ";" + kH264Caps + kH264Profile;
  const CapsPtr caps(gst_caps_from_string(offered.c_str()));
  GstWebRTCRTPTransceiver* transceiver = nullptr;
  g_signal_emit_by_name(peer.webrtc(), "add-transceiver",
                        GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY, caps.get(), &transceiver);
  if (transceiver == nullptr) return nullptr;
  const GObjectPtr held(G_OBJECT(transceiver));
  configure_sending_transceiver(held.get());
  return sender;
}

void VideoSender::use_codec(const PeerConnection& peer, const std::string& codec) {
  if (ready_) return;
  whole_pairs_ = codec == "H264";
  const std::string chain = whole_pairs_ ? std::string(kH264Encoder) + kFilter + kH264Caps
                                         : std::string(kVp8Encoder) + kFilter + kVp8Caps;
  GstElement* branch = add_sending_branch(peer, kSource + chain + ssrc_ + "\"", pad_name_.c_str());
  if (branch == nullptr) return;
  source_.reset(gst_bin_get_by_name(GST_BIN(branch), "source"));
  encoder_.reset(gst_bin_get_by_name(GST_BIN(branch), "encoder"));
  SARNET_LOG(kInfo, "relay: pictures are sent as " << (whole_pairs_ ? "H.264" : "VP8"));
  ready_ = true;
}

void VideoSender::adapt_to(int width, int height) {
  width_ = width;
  height_ = height;
  const int bitrate = video_bitrate(width, height, fps_);
  if (whole_pairs_) {
    g_object_set(encoder_.get(), "bitrate", static_cast<guint>(bitrate), nullptr);
  } else {
    g_object_set(encoder_.get(), "target-bitrate", bitrate, nullptr);
  }
  const CapsPtr caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width",
                                         G_TYPE_INT, width, "height", G_TYPE_INT, height,
                                         "framerate", GST_TYPE_FRACTION, fps_, 1, nullptr));
  gst_app_src_set_caps(GST_APP_SRC(source_.get()), caps.get());
}

void VideoSender::push(const PictureRef& picture, std::int64_t now_ns) {
  if (!ready_ || !picture || now_ns < 0) return;
  const int width = whole_pairs_ ? picture->width() & ~1 : picture->width();
  const int height = whole_pairs_ ? picture->height() & ~1 : picture->height();
  if (width != width_ || height != height_) adapt_to(width, height);
  GstBuffer* buffer = wrap(picture, width, height);
  GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(clock_.stamp(now_ns, 1));
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
}

void VideoSender::request_key_frame() {
  if (!ready_) return;
  const PadPtr pad(gst_element_get_static_pad(encoder_.get(), "src"));
  gst_pad_send_event(pad.get(),
                     gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

}  // namespace sarnet::relay
