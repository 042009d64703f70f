// File: kl/base/clock.h
//
// The tick clock of the event loop: unsigned 32-bit counts of 1/100 s that wrap modulo
// 2^32. Every time-out and timer interval in kl is counted in these ticks.
#ifndef KL_BASE_CLOCK_H_
#define KL_BASE_CLOCK_H_

namespace kl {

// times(NULL) plus 30000, which moves the system tick counter's start to zero. When times()
// reports -1 the value taken is -errno instead (the C library reports some valid tick counts
// as errors).
unsigned int getJiffies();

}  // namespace kl

#endif  // KL_BASE_CLOCK_H_
