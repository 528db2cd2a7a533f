// The program's audio device and video capturers, seen from the library: when their slots are
// called, and what passes through them.
#pragma once

#include <sarnet/sarnet.h>

#include <chrono>

#include "handles.h"

namespace scripted {

void installDevice(const srn_audio_device_callbacks* table);
// Starts both sides after the delay, if the session is still joined then.
void scheduleDeviceStart(srn_session& session, std::chrono::milliseconds delay);
void scheduleDeviceStop(const srn_session* session);
// Stops the device, whichever session it runs for, and ends its thread.
void finishDevice();
void resetAudioFlow();

void startCapturer(srn_publisher& publisher);
// Calls `destroy` on this thread when `init` was called; afterwards no slot of the capturer starts.
void closeCapturer(srn_publisher& publisher);

}  // namespace scripted
