#include "support/logs_initializer.h"

#include <log4cxx/consoleappender.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>

#include <memory>

namespace {

bool configureRootLogger() {
  const auto layout = std::make_shared<log4cxx::PatternLayout>(
      LOG4CXX_STR("%d{yyyy-MM-dd HH:mm:ss.SSS} %-5p [%t] %c{1} - %m%n"));
  const auto appender =
      std::make_shared<log4cxx::ConsoleAppender>(layout, log4cxx::ConsoleAppender::getSystemOut());
  const auto root = log4cxx::Logger::getRootLogger();
  root->addAppender(appender);
  root->setLevel(log4cxx::Level::getWarn());
  return true;
}

}  // namespace

void LogsInitializer::init() {
  // A second controller must not add a second appender: every line would be logged twice.
  [[maybe_unused]] static const bool configured = configureRootLogger();
}
