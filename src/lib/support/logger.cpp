#include "support/logger.h"

const log4cxx::LoggerPtr& lastingLogger(const char* name) {
  return *new log4cxx::LoggerPtr(log4cxx::Logger::getLogger(name));
}
