#pragma once

#include <log4cxx/logger.h>

#include <utility>

#include "common/guard.h"

/// Runs the body of a library callback and keeps its exceptions out of the library's frames: they
/// are logged with `name`. False when there was one.
template <class Body>
bool guardCallback(const log4cxx::LoggerPtr& logger, const char* name, Body&& body) {
  return common::guard(std::forward<Body>(body), [&](const char* text) {
    if (text != nullptr) {
      LOG4CXX_ERROR(logger, name << ": Exception in callback: " << text);
    } else {
      LOG4CXX_ERROR(logger, name << ": Unknown exception in callback");
    }
  });
}
