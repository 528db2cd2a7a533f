#include "relay/loss.h"

#include <gst/gst.h>
#define GST_USE_UNSTABLE_API
#include <gst/gsttracer.h>

#include <array>
#include <atomic>
#include <mutex>
#include <random>
#include <string_view>

namespace loopback {

namespace {

std::atomic<double> share{0};
std::atomic<int> lost_packets{0};
std::atomic<int> passed_packets{0};

bool is_lucky() {
  static std::mutex mutex;
  static std::minstd_rand random(1);
  const std::lock_guard lock(mutex);
  return std::uniform_real_distribution<>(0, 1)(random) >= share;
}

// RTP and RTCP start with version 2; the handshakes of the connection are left alone.
GstPadProbeReturn lose(GstPad*, GstPadProbeInfo* info, gpointer) {
  std::array<guint8, 1> first{};
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (share <= 0 || gst_buffer_extract(buffer, 0, first.data(), 1) != 1 || first[0] >> 6 != 2) {
    return GST_PAD_PROBE_OK;
  }
  const bool passes = is_lucky();
  ++(passes ? passed_packets : lost_packets);
  return passes ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

// Called by the media stack for every element that is made.
void on_element(GObject*, GstClockTime, GstElement* element) {
  const GstElementFactory* factory = gst_element_get_factory(element);
  if (factory == nullptr || std::string_view(GST_OBJECT_NAME(factory)) != "nicesrc") return;
  GstPad* pad = gst_element_get_static_pad(element, "src");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, &lose, nullptr, nullptr);
  gst_object_unref(pad);
}

}  // namespace

PacketLoss::PacketLoss(double of_all) {
  static std::once_flag once;
  std::call_once(once, [] {
    gst_init(nullptr, nullptr);
    gst_tracing_register_hook(reinterpret_cast<GstTracer*>(gst_registry_get()), "element-new",
                              G_CALLBACK(&on_element));
  });
  lost_packets = 0;
  passed_packets = 0;
  share = of_all;
}

PacketLoss::~PacketLoss() { share = 0; }

int PacketLoss::lost() { return lost_packets; }
int PacketLoss::passed() { return passed_packets; }

}  // namespace loopback
