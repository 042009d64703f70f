#include "kl/base/clock.h"

#include <sys/times.h>

#include <cerrno>

namespace kl {

unsigned int getJiffies() {
  clock_t t = times(nullptr);
  if (t == static_cast<clock_t>(-1)) t = -errno;
  return static_cast<unsigned int>(t) + 30000u;
}

}  // namespace kl
