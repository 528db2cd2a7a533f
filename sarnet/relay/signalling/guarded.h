#pragma once

#include <exception>

#include "base/log.h"
#include "base/printable_text.h"

namespace sarnet::relay {

// For what GLib calls: an exception must not run through its frames. It is logged, and what was
// under way stays where it was; time-outs end it.
template <class Body>
void guarded(const char* where, Body&& body) {
  try {
    body();
  } catch (const std::exception& error) {
    SARNET_LOG(kError, where << " failed: " << printable_text(error.what()));
  }
}

}  // namespace sarnet::relay
