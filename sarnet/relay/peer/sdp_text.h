#pragma once

#include <string>
#include <string_view>

namespace sarnet::relay {

// The session description without the lines that allow `ccm fir`: a key frame is then asked for by
// PLI, which every server understands, and not by FIR, which is sent without the stream it is
// about.
std::string without_full_intra_requests(std::string_view sdp);

// The encoding name ("VP8", "H264") that stands first in the accepted video section; empty when
// there is none.
std::string first_video_codec(std::string_view sdp);

}  // namespace sarnet::relay
