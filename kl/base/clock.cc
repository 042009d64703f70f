#include "kl/base/clock.h"

#include <sys/times.h>
#include <time.h>

#include <atomic>
#include <cerrno>

namespace kl {

namespace {

unsigned int readTicks() {
  clock_t t = times(nullptr);
  if (t == static_cast<clock_t>(-1)) t = -errno;
  return static_cast<unsigned int>(t) + 30000u;
}

}  // namespace

// times() is a system call, and the runner reads the clock for every timer it arms. The
// kernel advances the coarse monotonic clock in the same tick that advances the counter
// times() reads, and the coarse clock is read without entering the kernel: while it shows
// the same instant as at the last call, the tick count cannot have moved either, and the
// last value is returned. Where the coarse clock is missing every call reads times().
unsigned int getJiffies() {
#ifdef CLOCK_MONOTONIC_COARSE
  struct Last {
    time_t sec = -1;
    long nsec = 0;
    unsigned int ticks = 0;
  };
  static thread_local Last last;
  timespec now;
  if (clock_gettime(CLOCK_MONOTONIC_COARSE, &now) == 0) {
    if (now.tv_nsec == last.nsec && now.tv_sec == last.sec) return last.ticks;
    // A signal handler that reads the clock meanwhile finds no half-written entry.
    last.sec = -1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    last.ticks = readTicks();
    last.nsec = now.tv_nsec;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    last.sec = now.tv_sec;
    return last.ticks;
  }
#endif
  return readTicks();
}

}  // namespace kl
