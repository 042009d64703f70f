// File: kl/runner/fault_guard.h
//
// Reads of memory that can vanish underneath the process. A shared mapping of a file that
// another process truncates raises SIGBUS on the pages past the file's new end (the rest of
// the page that holds the new end reads as zeros). Code that reads such a mapping does the
// read inside guardedRead(), which turns a SIGBUS during the read into a false result instead
// of the end of the process.
//
// The SIGBUS goes to the handler in force, which hands a fault inside a guarded read back to
// the guard:
//   - the crash handler of a Runner (kl/runner/crash_report.h) does so before anything else;
//   - otherwise the first guarded read installs the guard's own handler, which does so and
//     gives every other SIGBUS to the action it replaced: it puts that action back and raises
//     the signal again, so a real bus error elsewhere still ends the process as it did.
// A change of SIGBUS's action through Runner::setSigaction is noticed: the next guarded read
// checks the action in force again. A handler that a program installs with sigaction() or
// signal() itself, after the first guarded read, is not noticed; install it through the
// Runner, or before.
//
// Signal correctness: the jump point is taken with sigsetjmp(env, 0), without the signal mask,
// so that a guarded read that does not fault makes no system call; after a fault SIGBUS is
// unblocked again (its handler ran with it blocked, and the jump keeps that mask). The handler
// leaves the read at whatever instruction faulted, so the read function may only read and
// copy plain memory: no allocation, no locks, no streams. A SIGBUS sent with kill() during a
// guarded read also ends it with false; the caller reads another way, so nothing is lost.
//
// Loop thread only, and not reentrant: a guarded read does not start another one and does not
// run in a signal handler. REQUIRES: SIGBUS is not blocked (the kernel would end the process).
#ifndef KL_RUNNER_FAULT_GUARD_H_
#define KL_RUNNER_FAULT_GUARD_H_

namespace kl {

// Runs read(ctx). True when it returned; false when it faulted with SIGBUS (having done an
// unknown part of its work) or when no handler could be put in place for SIGBUS (read did not
// run).
bool guardedRead(void (*read)(void* ctx), void* ctx);

}  // namespace kl

#endif  // KL_RUNNER_FAULT_GUARD_H_
