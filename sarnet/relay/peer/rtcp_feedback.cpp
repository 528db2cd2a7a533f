#include "relay/peer/rtcp_feedback.h"

#include <string_view>
#include <utility>
#include <vector>

#include "relay/peer/rtcp_order.h"
#include "relay/peer/services.h"

namespace sarnet::relay {

namespace {

using VideoSsrc = std::shared_ptr<std::atomic<std::uint32_t>>;

// One urgent report may go between two regular ones, so these must be frequent. They are held to 5
// % of the bandwidth; what the media stack finds out by itself is far too little in the first
// seconds.
constexpr guint64 kMinInterval = 50 * GST_MSECOND;
constexpr double kBandwidth = 4e6;

GstPadProbeReturn reorder(GstPad*, GstPadProbeInfo* info, gpointer data) {
  const std::uint32_t ssrc = **static_cast<VideoSsrc*>(data);
  if (ssrc == 0) return GST_PAD_PROBE_OK;
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  std::vector<std::uint8_t> packet(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, packet.data(), packet.size());
  if (put_report_first(packet, ssrc)) {
    GstBuffer* changed = gst_buffer_new_memdup(packet.data(), packet.size());
    gst_buffer_copy_into(changed, buffer, GST_BUFFER_COPY_METADATA, 0, static_cast<gsize>(-1));
    gst_buffer_unref(buffer);
    GST_PAD_PROBE_INFO_DATA(info) = changed;
  }
  return GST_PAD_PROBE_OK;
}

void on_element(GstBin*, GstElement* element, gpointer) {
  if (is_made_by(element, "rtpjitterbuffer")) {
    // Otherwise the first packets wait for the full time for others that may have overtaken them.
    g_object_set(element, "faststart-min-packets", 2, nullptr);
  }
  if (!is_made_by(element, "rtpsession")) return;
  // When it plays it sets the time of its first report, so it must know by then.
  GObject* session = nullptr;
  g_object_get(element, "internal-session", &session, nullptr);
  if (const GObjectPtr held(session); held) {
    g_object_set(session, "rtcp-min-interval", kMinInterval, "bandwidth", kBandwidth,
                 "rtcp-reduced-size", TRUE, nullptr);
  }
}

void on_pad(GstElement*, GstPad* pad, gpointer data) {
  const TextPtr name(gst_pad_get_name(pad));
  if (std::string_view(name.get()).starts_with("send_rtcp_src_")) {
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &reorder,
                      new VideoSsrc(*static_cast<VideoSsrc*>(data)),
                      [](gpointer owned) { delete static_cast<VideoSsrc*>(owned); });
  }
}

}  // namespace

void quicken_feedback(GstElement* webrtc, std::shared_ptr<std::atomic<std::uint32_t>> video_ssrc) {
  const ElementPtr bin(gst_bin_get_by_name(GST_BIN(webrtc), "rtpbin"));
  if (!bin) {
    SARNET_LOG(kWarn, "relay: lost packets will be reported late");
    return;
  }
  g_signal_connect(bin.get(), "element-added", G_CALLBACK(&on_element), nullptr);
  g_signal_connect_data(
      bin.get(), "pad-added", G_CALLBACK(&on_pad), new VideoSsrc(std::move(video_ssrc)),
      [](gpointer owned, GClosure*) { delete static_cast<VideoSsrc*>(owned); },
      static_cast<GConnectFlags>(0));
}

}  // namespace sarnet::relay
