// Media from the library to subscribers.
#pragma once

#include <sarnet/sarnet.h>

#include "handles.h"

namespace scripted {

// One call of the slot on this thread, one at a time of each kind for a subscriber. False when the
// subscriber takes none (any more) or the slot is null. A delete does not wait for it.
bool deliverAudio(srn_subscriber& subscriber, const srn_audio_data* data);
bool deliverFrame(srn_subscriber& subscriber, const srn_video_frame* frame);
bool deliverCaption(srn_subscriber& subscriber, const char* text, srn_bool is_final);

void resetMedia();
// Joins the delivery threads; the number of callbacks they made.
long stopStorm();

}  // namespace scripted
