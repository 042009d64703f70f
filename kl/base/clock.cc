#include "kl/base/clock.h"

#include <sys/times.h>

#include <cerrno>

namespace kl {

namespace {

unsigned int clockAdvance = 0;  // ticks added by advanceClock

}  // namespace

// times() on every call. The coarse monotonic clock does not always move in the same
// instant as the tick count, so a value cached against it can lag a tick behind.
unsigned int getJiffies() {
  clock_t t = times(nullptr);
  if (t == static_cast<clock_t>(-1)) t = -errno;
  return static_cast<unsigned int>(t) + 30000u + clockAdvance;
}

void advanceClock(unsigned int ticks) { clockAdvance += ticks; }

}  // namespace kl
