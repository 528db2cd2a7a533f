#pragma once

#include <cxxabi.h>

#include <exception>
#include <utility>

namespace common {

// Runs `body` where no exception may leave: at the border to C code, and at the start of a thread.
// An exception goes to `report` as its text or null; true when there was none. Forced unwinding of
// a thread passes through, as it must (the interpreter ends threads so at its exit).
template <class Body, class Report>
bool guard(Body&& body, Report&& report) {
  try {
    std::forward<Body>(body)();
    return true;
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report(nullptr);
  }
  return false;
}

}  // namespace common
