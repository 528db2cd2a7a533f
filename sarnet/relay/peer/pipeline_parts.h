#pragma once

#include <cstdint>
#include <string>

#include "relay/peer/gst_handles.h"
#include "relay/peer/peer_connection.h"

namespace sarnet::relay {

// ",ssrc=(uint)N" with a random number, for the caps of what is sent: an offer that is made before
// media flow names its sources only if the caps do, and a server drops sources that it was not told
// of.
std::string random_ssrc();

// Makes a bin of the description, whose one open pad is a source, and links it to a pad of
// webrtcbin: the given one ("sink_1"), or a new one with a transceiver of its own that only sends.
// Takes the pipeline's state. Borrowed from the pipeline; null, and logged, when it fails.
GstElement* add_sending_branch(const PeerConnection& peer, const std::string& description,
                               const char* pad_name);

// Has lost packets sent again, and lets media flow one way only.
void configure_sending_transceiver(GObject* transceiver);

// What is sent per second for pictures of that size and rate, in bits.
int video_bitrate(int width, int height, int fps);

}  // namespace sarnet::relay
