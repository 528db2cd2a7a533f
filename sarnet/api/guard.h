#pragma once

#include <cxxabi.h>
#include <sarnet/sarnet.h>

#include <exception>

#include "base/log.h"

namespace sarnet {

// Runs the body of one function of the contract: no exception leaves it, but the unwinding of a
// thread that the program ends inside a callback does.
template <class Result, class Body>
Result guarded(const char* function, Result on_failure, Body&& body) {
  try {
    return body();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& error) {
    SARNET_LOG(kError, function << ": " << error.what());
  } catch (...) {
    SARNET_LOG(kError, function << ": unknown exception");
  }
  return on_failure;
}

template <class Body>
srn_status guarded_status(const char* function, Body&& body) {
  return guarded<srn_status>(function, SRN_SESSION_INTERNAL_ERROR, body);
}

constexpr srn_status kInvalid = SRN_SESSION_NULL_OR_INVALID_PARAMETER;

inline bool empty(const char* text) { return text == nullptr || *text == '\0'; }

}  // namespace sarnet
