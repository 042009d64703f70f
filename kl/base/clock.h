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

// For tests: moves the clock `ticks` ahead for the whole process, at once and without
// waiting, so that timers armed before come due (a runner fires them in its next pass, or
// in ThinRunner::runTimers()). Every later getJiffies() includes all the advances made.
// Not for services: their timers follow real time.
void advanceClock(unsigned int ticks);

}  // namespace kl

#endif  // KL_BASE_CLOCK_H_
