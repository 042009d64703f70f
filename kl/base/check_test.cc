#include "kl/base/check.h"

#include <gtest/gtest.h>

namespace kl {
namespace {

int positive(int v) {
  KL_CHECK(v > 0);
  return v;
}

// The line must stand alone; anything after it (qemu-user adds its own report of the signal
// under emulation) is not the library's.
TEST(CheckDeathTest, PrintsTheAssertionLineAndAborts) {
  EXPECT_EXIT(positive(0), ::testing::KilledBySignal(SIGABRT),
              "(^|\n)[^\n]*kl/base/check_test\\.cc:[0-9]+: int kl::(\\{anonymous\\}|\\(anonymous "
              "namespace\\))::positive\\(int\\): "
              "Assertion `v > 0' failed\\.\n");
}

TEST(Check, PassingCheckHasNoEffect) { EXPECT_EQ(positive(3), 3); }

}  // namespace
}  // namespace kl
