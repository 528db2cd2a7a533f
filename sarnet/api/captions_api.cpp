#include <sarnet/sarnet_captions.h>

#include <cstring>
#include <string_view>

#include "api/border.h"
#include "api/library.h"

using sarnet::guarded_status;
using sarnet::kInvalid;
using sarnet::Library;

namespace {

bool is_caption(const char* text) {
  return !sarnet::empty(text) &&
         ::strnlen(text, SRN_CAPTION_MAX_BYTES + 1) <= SRN_CAPTION_MAX_BYTES;
}

}  // namespace

extern "C" {

srn_status srn_publisher_send_caption(srn_publisher* publisher, const char* text,
                                      srn_bool is_final) {
  if (!is_caption(text)) return kInvalid;
  return guarded_status("srn_publisher_send_caption", [&]() -> srn_status {
    const auto object = Library::instance().publishers.find(publisher);
    if (!object) return kInvalid;
    if (!object->send_caption(text, is_final != SRN_FALSE)) return SRN_SESSION_ILLEGAL_STATE;
    return SRN_SUCCESS;
  });
}

srn_status srn_captions_send(const char* text, srn_bool is_final) {
  if (!is_caption(text)) return kInvalid;
  return guarded_status("srn_captions_send", [&]() -> srn_status {
    bool sent = false;
    for (const auto& publisher : Library::instance().publishers.all()) {
      sent = publisher->send_caption(text, is_final != SRN_FALSE) || sent;
    }
    if (!sent) return SRN_SESSION_ILLEGAL_STATE;
    return SRN_SUCCESS;
  });
}

}  // extern "C"
