#define GST_USE_UNSTABLE_API
#include "relay/peer/pipeline_parts.h"

#include <gst/webrtc/webrtc.h>

#include <algorithm>
#include <cmath>

#include "relay/peer/services.h"

namespace sarnet::relay {

std::string random_ssrc() {
  return ",ssrc=(uint)" + std::to_string(g_random_int_range(1, G_MAXINT32));
}

GstElement* add_sending_branch(const PeerConnection& peer, const std::string& description,
                               const char* pad_name) {
  GError* error = nullptr;
  GstElement* branch = gst_parse_bin_from_description(description.c_str(), TRUE, &error);
  const ErrorPtr owned(error);
  if (branch == nullptr || owned) {
    SARNET_LOG(kError, "relay: media pipeline: " << (owned ? owned->message : "no elements"));
    if (branch != nullptr) gst_object_unref(gst_object_ref_sink(branch));
    return nullptr;
  }
  gst_bin_add(peer.pipeline(), branch);
  const PadPtr pad(gst_element_request_pad_simple(peer.webrtc(), pad_name ? pad_name : "sink_%u"));
  const PadPtr source(gst_element_get_static_pad(branch, "src"));
  const GstPadLinkReturn linked =
      pad && source ? gst_pad_link(source.get(), pad.get()) : GST_PAD_LINK_REFUSED;
  if (linked != GST_PAD_LINK_OK) {
    SARNET_LOG(kError, "relay: media cannot be sent: " << gst_pad_link_get_name(linked));
    return nullptr;
  }
  GObject* transceiver = nullptr;
  g_object_get(pad.get(), "transceiver", &transceiver, nullptr);
  if (const GObjectPtr held(transceiver); held) configure_sending_transceiver(held.get());
  gst_element_sync_state_with_parent(branch);
  return branch;
}

void configure_sending_transceiver(GObject* transceiver) {
  g_object_set(transceiver, "direction", GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_SENDONLY, "do-nack",
               TRUE, nullptr);
}

int video_bitrate(int width, int height, int fps) {
  // A megabit for 640x480 at 30 pictures a second; larger pictures need less for each pixel.
  constexpr double kReferencePixels = 640.0 * 480.0 * 30.0;
  constexpr double kReferenceBits = 1e6;
  const double pixels = static_cast<double>(width) * height * fps;
  const double bits = kReferenceBits * std::pow(pixels / kReferencePixels, 0.75);
  return static_cast<int>(std::clamp(bits, 100e3, 6e6));
}

}  // namespace sarnet::relay
