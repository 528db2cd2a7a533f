// The library's side of the program's audio device and video capturers: when their slots are
// called, and their data.
#pragma once

#include <sarnet/sarnet.h>

#include <chrono>

#include "handles.h"

namespace scripted {

void installDevice(const srn_audio_device_callbacks* table);
// Starts both sides after the delay if the session is still joined.
void scheduleDeviceStart(srn_session& session, std::chrono::milliseconds delay);
void scheduleDeviceStop(const srn_session* session);
// Stops the device for any session, and ends its thread.
void finishDevice();
void resetAudioFlow();

void startCapturer(srn_publisher& publisher);
// Calls `destroy` on this thread when `init` was called; afterwards no slot of the capturer starts.
void closeCapturer(srn_publisher& publisher);

}  // namespace scripted
