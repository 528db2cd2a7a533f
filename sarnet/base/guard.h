#pragma once

#include "base/log.h"
#include "base/printable_text.h"
#include "common/guard.h"

namespace sarnet {

// Runs `body`; an exception is logged after `name` and dropped. True when there was none.
template <class Body>
bool guarded(const char* name, Body&& body) {
  return common::guard(std::forward<Body>(body), [name](const char* text) {
    SARNET_LOG(kError,
               name << ": " << (text != nullptr ? printable_text(text) : "unknown exception"));
  });
}

}  // namespace sarnet
