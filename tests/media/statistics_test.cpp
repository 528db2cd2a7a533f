#include <gtest/gtest.h>

#include <cstdint>
#include <functional>

#include "base/statistics.h"

namespace sarnet {
namespace {

// Ten seconds of calls that are due every 10 ms; call N is made so many milliseconds after its
// time.
TEST(PacingMeter, CountsWhatIsLateApartFromWhatWasLeftOut) {
  struct Row {
    const char* about;
    std::function<std::int64_t(int)> late;
    std::int64_t max;
    std::uint64_t gaps;
  };
  const Row rows[] = {
      {"on time", [](int) { return 0; }, 0, 0},
      {"pauses of two periods", [](int n) { return n / 100 * 20; }, 0, 18},
      {"pauses of two periods, of which some are late",
       [](int n) { return n / 100 * 20 + (n % 7 == 3 ? 4 : 0); }, 4, 18},
      {"one pause of a second", [](int n) { return n < 500 ? 0 : 1000; }, 0, 100},
      {"calls of 4 ms late", [](int n) { return n % 10 == 5 ? 4 : 0; }, 4, 0},
      {"stalls of 18 ms, made good at once",
       [](int n) { return n % 100 == 50   ? 18
                          : n % 100 == 51 ? 8
                                          : 0; }, 18, 0},
  };
  for (const Row& row : rows) {
    PacingMeter meter;
    for (int n = 0; n < 1000; ++n) meter.add((n * 10 + row.late(n)) * 1000, 10'000);
    EXPECT_EQ(meter.lateness().max, row.max * 1000) << row.about;
    EXPECT_EQ(meter.gaps(), row.gaps) << row.about;
  }
}

}  // namespace
}  // namespace sarnet
