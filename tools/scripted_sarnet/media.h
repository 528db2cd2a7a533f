// Media from the library to subscribers.
#pragma once

namespace scripted {

void resetMedia();
// Joins the delivery threads; the number of callbacks they made.
long stopStorm();

}  // namespace scripted
