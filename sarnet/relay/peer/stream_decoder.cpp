#include "relay/peer/stream_decoder.h"

#include <gst/app/gstappsink.h>

#include <array>
#include <string>

#include "base/printable_text.h"
#include "relay/peer/services.h"

namespace sarnet::relay {

namespace {

struct Codec {
  const char* name;
  bool is_video;
  const char* chain;
};
// Sound is decoded where it is taken: the media stack's decoder holds back each packet until the
// next one, which might tell of a loss. After lost pictures the screen stands until the next key
// frame, which is asked for: the ruins of pictures are worse.
constexpr std::array<Codec, 3> kCodecs{
    {{"OPUS", false, ""},
     {"VP8", true,
      "rtpvp8depay wait-for-keyframe=true request-keyframe=true ! vp8dec threads=1 qos=false ! "
      "video/x-raw,format=I420 ! "},
     {"H264", true,
      "rtph264depay wait-for-keyframe=true request-keyframe=true ! h264parse ! openh264dec "
      "qos=false ! "
      "video/x-raw,format=I420 ! "}}};
// Shown when it comes: whoever takes it has a clock of its own. No preroll: one kind of media
// without its first sample would hold up the others.
constexpr const char* kSink =
    "appsink name=sink sync=false async=false enable-last-sample=false wait-on-eos=false";

GstFlowReturn on_sample(GstAppSink* sink, gpointer data) {
  const SamplePtr sample(gst_app_sink_pull_sample(sink));
  if (!sample) return GST_FLOW_EOS;
  static_cast<StreamDecoder*>(data)->take(sample.get());
  return GST_FLOW_OK;
}

}  // namespace

StreamCaps stream_caps(GstPad* pad) {
  GstCaps* found = gst_pad_get_current_caps(pad);
  const CapsPtr caps(found != nullptr ? found : gst_pad_query_caps(pad, nullptr));
  StreamCaps result;
  if (gst_caps_is_empty(caps.get()) || gst_caps_is_any(caps.get())) return result;
  const GstStructure* structure = gst_caps_get_structure(caps.get(), 0);
  const char* media = gst_structure_get_string(structure, "media");
  const char* codec = gst_structure_get_string(structure, "encoding-name");
  guint ssrc = 0;
  gst_structure_get_uint(structure, "ssrc", &ssrc);
  result.is_video = media != nullptr && std::string_view(media) == "video";
  result.codec = codec != nullptr ? codec : "";
  result.ssrc = ssrc;
  if (const char* stereo = gst_structure_get_string(structure, "sprop-stereo")) {
    result.channels = std::string_view(stereo) == "1" ? 2 : 1;
  }
  return result;
}

bool StreamDecoder::attach(GstBin* pipeline, GstPad* pad, const std::shared_ptr<MediaSink>& sink) {
  const StreamCaps caps = stream_caps(pad);
  const Codec* codec = nullptr;
  for (const Codec& known : kCodecs) {
    if (caps.codec == known.name) codec = &known;
  }
  GstElement* branch = codec == nullptr
                           ? nullptr
                           : gst_parse_bin_from_description(
                                 (std::string(codec->chain) + kSink).c_str(), TRUE, nullptr);
  if (branch == nullptr) {
    SARNET_LOG(kError,
               "relay: media of codec \"" << printable_text(caps.codec) << "\" cannot be decoded");
    return false;
  }
  const ElementPtr app_sink(gst_bin_get_by_name(GST_BIN(branch), "sink"));
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = &on_sample;
  auto taker = codec->is_video ? make_picture_taker(sink) : make_audio_taker(sink, caps.channels);
  gst_app_sink_set_callbacks(GST_APP_SINK(app_sink.get()), &callbacks, taker.release(),
                             [](gpointer data) { delete static_cast<StreamDecoder*>(data); });
  gst_bin_add(pipeline, branch);
  const PadPtr entry(gst_element_get_static_pad(branch, "sink"));
  gst_element_sync_state_with_parent(branch);
  const GstPadLinkReturn linked = gst_pad_link(pad, entry.get());
  if (linked != GST_PAD_LINK_OK) {
    SARNET_LOG(kError,
               "relay: received media cannot be decoded: " << gst_pad_link_get_name(linked));
  }
  return linked == GST_PAD_LINK_OK;
}

}  // namespace sarnet::relay
