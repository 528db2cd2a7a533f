#include <gtest/gtest.h>

#include <sstream>

#include "support/mr_device_info.h"

namespace {

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
