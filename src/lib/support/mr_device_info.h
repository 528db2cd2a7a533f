#pragma once

#include <iosfwd>
#include <string>

#include "support/mr_private.h"

namespace mr {

/// Sets the language that drives the core ("cpp" until then). Call before the first session; takes
/// no lock.
void setWrapperLanguage(const std::string& language);

/// The 12 hexadecimal digits of eth0's address, or twelve zeros where there is none. Read once per
/// process; any thread.
std::string getMacAddress();

/// A stable id in the layout of a UUID: zeros, then the address.
std::string getDeviceUuid();

/// The digits of the address in the first line of `input`; empty when that line holds none that is
/// usable.
std::string readMacAddress(std::istream& input);

}  // namespace mr

/// Exported for the real-time library, which looks it up by name. A new record at each call, owned
/// by the caller; null when memory is out.
extern "C" __attribute__((visibility("default"))) struct snt_device_info* srn_get_device_info(void);
