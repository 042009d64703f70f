#include "kl/base/check.h"

#include <gtest/gtest.h>

#include <string>

namespace kl {
namespace {

// The line of the check below, which the report must name.
constexpr int kCheckLine = __LINE__ + 3;

int positive(int v) {
  KL_CHECK(v > 0);
  return v;
}

// The line must stand alone; anything after it (qemu-user adds its own report of the signal
// under emulation) is not the library's.
TEST(CheckDeathTest, PrintsTheAssertionLineAndAborts) {
  EXPECT_EXIT(positive(0), ::testing::KilledBySignal(SIGABRT),
              "(^|\n)[^\n]*kl/base/check_test\\.cc:" + std::to_string(kCheckLine) +
                  ": int kl::(\\{anonymous\\}|\\(anonymous "
                  "namespace\\))::positive\\(int\\): "
                  "Assertion `v > 0' failed\\.\n");
}

TEST(Check, PassingCheckHasNoEffect) { EXPECT_EQ(positive(3), 3); }

}  // namespace
}  // namespace kl
