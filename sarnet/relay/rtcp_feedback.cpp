#include "relay/rtcp_feedback.h"

#include <memory>
#include <vector>

#include "relay/rtcp_order.h"
#include "relay/services.h"

namespace sarnet::relay {

namespace {

constexpr guint64 kMinInterval = 20 * GST_MSECOND;

ElementPtr rtp_bin(GstElement* webrtc) {
  return ElementPtr(gst_bin_get_by_name(GST_BIN(webrtc), "rtpbin"));
}

GstPadProbeReturn reorder(GstPad*, GstPadProbeInfo* info, gpointer data) {
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  std::vector<std::uint8_t> packet(gst_buffer_get_size(buffer));
  gst_buffer_extract(buffer, 0, packet.data(), packet.size());
  if (!put_report_first(packet, *static_cast<std::uint32_t*>(data))) {
    return GST_PAD_PROBE_OK;
  }
  GstBuffer* changed = gst_buffer_new_memdup(packet.data(), packet.size());
  gst_buffer_copy_into(changed, buffer, GST_BUFFER_COPY_METADATA, 0, static_cast<gsize>(-1));
  gst_buffer_unref(buffer);
  GST_PAD_PROBE_INFO_DATA(info) = changed;
  return GST_PAD_PROBE_OK;
}

}  // namespace

void quicken_feedback(GstElement* webrtc) {
  GObject* session = nullptr;
  if (const ElementPtr bin = rtp_bin(webrtc)) {
    g_signal_emit_by_name(bin.get(), "get-internal-session", 0, &session);
  }
  const GObjectPtr held(session);
  if (!held) {
    SARNET_LOG(kWarn, "relay: lost packets will be reported late");
    return;
  }
  g_object_set(session, "rtcp-min-interval", kMinInterval, "rtcp-reduced-size", TRUE, nullptr);
}

void attribute_feedback_to(GstElement* webrtc, std::uint32_t video_ssrc) {
  const ElementPtr bin = rtp_bin(webrtc);
  const PadPtr pad(bin ? gst_element_get_static_pad(bin.get(), "send_rtcp_src_0") : nullptr);
  if (!pad) {
    SARNET_LOG(kWarn, "relay: the server may not understand reports of lost packets");
    return;
  }
  gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, &reorder, new std::uint32_t(video_ssrc),
                    [](gpointer data) { delete static_cast<std::uint32_t*>(data); });
}

}  // namespace sarnet::relay
