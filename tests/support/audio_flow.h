// Audio between the program's device and the library: what was captured, what is rendered.
#pragma once

#include <sarnet/sarnet.h>

#include <cstddef>
#include <cstdint>

namespace scripted {

void resetAudioFlow();
void setCaptureChannels(int channels);
void setRenderChannels(int channels);

}  // namespace scripted
