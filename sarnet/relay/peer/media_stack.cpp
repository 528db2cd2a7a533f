#include <array>
#include <mutex>
#include <string>

#include "relay/peer/peer_connection.h"
#include "relay/peer/services.h"

namespace sarnet::relay {

namespace {

// What the pipelines name, and the Debian package that has it.
struct Part {
  const char* element;
  const char* package;
};
constexpr const char* kBase = "gstreamer1.0-plugins-base";
constexpr const char* kGood = "gstreamer1.0-plugins-good";
constexpr const char* kBad = "gstreamer1.0-plugins-bad";
constexpr std::array<Part, 12> kParts{{{"appsrc", kBase},
                                       {"appsink", kBase},
                                       {"opusenc", kBase},
                                       {"rtpbin", kGood},
                                       {"rtpopuspay", kGood},
                                       {"rtpvp8pay", kGood},
                                       {"vp8enc", kGood},
                                       {"rtph264pay", kGood},
                                       {"openh264enc", kBad},
                                       {"webrtcbin", kBad},
                                       {"dtlsdec", kBad},
                                       {"nicesrc", "gstreamer1.0-nice"}}};

constexpr guint kThreadIdleMs = 500;

std::string prepare() {
  GError* error = nullptr;
  if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
    const ErrorPtr owned(error);
    return std::string("the media stack does not start: ") + (owned ? owned->message : "unknown");
  }
  for (const Part& part : kParts) {
    GstElementFactory* factory = gst_element_factory_find(part.element);
    if (factory == nullptr) {
      return std::string("the media stack has no ") + part.element + " (package " + part.package +
             ")";
    }
    gst_object_unref(factory);
  }
  // A pipeline borrows its threads from GLib's pool, which else keeps them for a quarter of a
  // minute.
  g_thread_pool_set_max_idle_time(kThreadIdleMs);
  // The first peer would load these, and the first handshake makes the certificate of all
  // connections, which takes up to half a second.
  for (const char* part : {"webrtcbin", "rtpbin", "nicesrc", "srtpdec", "dtlsdec"}) {
    const ElementPtr loaded(gst_element_factory_make(part, nullptr));
  }
  return {};
}

}  // namespace

bool media_stack_ready(std::string& error) {
  static std::once_flag once;
  static std::string failure;
  std::call_once(once, [] { failure = prepare(); });
  error = failure;
  return failure.empty();
}

void warm_media_stack() {
  static std::once_flag once;
  std::call_once(once, [] {
    services().start_thread("srn-relay-warm", [] {
      std::string error;
      media_stack_ready(error);
    });
  });
}

}  // namespace sarnet::relay
