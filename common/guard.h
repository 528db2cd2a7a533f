#pragma once

#include <cxxabi.h>

#include <exception>
#include <utility>

namespace common {

// Runs `body` where no exception may leave: at the border to C code, and at a thread's beginning.
// One that comes is told to `report`, by its text or null; true when none came. The unwinding of a
// thread that is ended passes through, as it must (the interpreter ends threads so at its exit).
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
