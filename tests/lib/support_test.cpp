#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cxx/logger.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "support/logs_initializer.h"
#include "support/mr_device_info.h"

namespace {

TEST(LogsInitializer, WritesEachLineOnceToStandardOutputFromWarnOn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);  // standard error is what the assertion sees
        LogsInitializer::init();
        LogsInitializer::init();
        const auto logger = log4cxx::Logger::getLogger("some.Name");
        LOG4CXX_INFO(logger, "below");
        LOG4CXX_WARN(logger, "a line");
        std::fflush(nullptr);
        std::_Exit(0);
      },
      testing::ExitedWithCode(0),
      "^(Running main[^\n]*\n)?[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} "
      "WARN  "
      "\\[[^]]+\\] Name - a line\n$");
}

TEST(DeviceInfo, ReadsOnlyUsableAddresses) {
  const struct {
    const char* file;
    const char* address;
  } kRows[] = {{"02:42:ac:11:00:02\n", "0242ac110002"},
               {"02:42:AC:11:00:02", "0242AC110002"},
               {"0242ac110002\nsecond line\n", "0242ac110002"},
               {"\n02:42:ac:11:00:02\n", ""},
               {"00:00:00:00:00:00\n", ""},
               {"02:42:ac:11:00\n", ""},
               {"02:42:ac:11:00:0\xe4\n", ""}};
  for (const auto& row : kRows) {
    std::istringstream file(row.file);
    EXPECT_EQ(mr::readMacAddress(file), row.address) << row.file;
  }
}

}  // namespace
