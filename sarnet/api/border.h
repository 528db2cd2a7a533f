#pragma once

#include <sarnet/sarnet.h>

#include "base/guard.h"

namespace sarnet {

// Runs the body of one function of the contract; returns `on_failure` when it throws.
template <class Result, class Body>
Result guarded_result(const char* function, Result on_failure, Body&& body) {
  Result result = on_failure;
  guarded(function, [&] { result = body(); });
  return result;
}

template <class Body>
srn_status guarded_status(const char* function, Body&& body) {
  return guarded_result<srn_status>(function, SRN_SESSION_INTERNAL_ERROR, body);
}

constexpr srn_status kInvalid = SRN_SESSION_NULL_OR_INVALID_PARAMETER;

inline bool empty(const char* text) { return text == nullptr || *text == '\0'; }

}  // namespace sarnet
