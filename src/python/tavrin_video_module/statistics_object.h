#pragma once

#include "python_utils.h"

// The module's attribute `__statistics__`: counters of the process, read with the interpreter lock
// held, each current at that moment.
//   escaped_views  audio blocks and frames of which a program still had a view when its callable
//                  returned (int)
// Null with an exception pending.
python_utils::PyObjectPtr create_statistics_object();
