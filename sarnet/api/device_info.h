#pragma once

namespace sarnet {

// Identifies the program through the srn_get_device_info that it may export, and logs the answer.
// Called once for each session that is connected.
void report_device_info();

}  // namespace sarnet
