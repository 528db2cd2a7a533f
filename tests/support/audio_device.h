// The program's audio device and video capturers, seen from the library: when their slots are
// called.
#pragma once

#include <sarnet/sarnet.h>

#include <optional>

#include "handles.h"

namespace scripted {

void installDevice(const srn_audio_device_callbacks* table);
// Empty when no device is installed.
std::optional<srn_audio_device_callbacks> installedDevice();

// Starts both sides after the delay, if the session is still joined then.
void scheduleDeviceStart(srn_session& session);
void scheduleDeviceStop(const srn_session* session);
// Stops the device, whichever session it runs for, and ends its thread.
void finishDevice();

// A slot by its name; see scripted_device_slot for the results.
int callDeviceSlot(const char* slot, std::optional<void*> user_data,
                   srn_audio_device_settings* settings);

void startCapturer(srn_publisher& publisher);
// Calls `destroy` on this thread when `init` was called; afterwards no slot of the capturer starts.
void closeCapturer(srn_publisher& publisher);
int callCapturerSlot(srn_publisher& publisher, const char* slot, std::optional<void*> user_data,
                     srn_video_capturer_settings* settings);

}  // namespace scripted
