#include "kl/base/clock.h"

#include <gtest/gtest.h>
#include <sys/times.h>

namespace kl {
namespace {

unsigned int systemTicks() { return static_cast<unsigned int>(times(nullptr)) + 30000u; }

// Read back to back with times(), the clock never lags behind it nor runs ahead, also while
// the tick count moves on (the loop runs until it has moved twice, some 20 ms).
TEST(ClockTest, FollowsTheSystemTickCount) {
  const unsigned int start = systemTicks();
  unsigned int reads = 0;
  for (;;) {
    const unsigned int before = systemTicks();
    const unsigned int mine = getJiffies();
    const unsigned int after = systemTicks();
    ++reads;
    ASSERT_LE(mine - before, after - before) << "read " << reads;
    if (after - start >= 2) break;
    ASSERT_LT(after - start, 100u) << "the tick count did not move in a second";
  }
}

}  // namespace
}  // namespace kl
