// File: kl/runner/runner.h
//
// kl::Runner: the ThinRunner with signals. Signals a service handles arrive through a
// self-pipe and run as ordinary loop callbacks on the loop's thread; the asynchronous
// handler only writes the signal number into the pipe.
//
// Constructing the Runner makes it the process's one runner (kl::getRunner()), records the
// top of the stack for crash reports and installs the crash handler (kl/runner/crash_report.h)
// for SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE and SIGUSR2. A process may hold only one
// Runner: a second one prints "ERROR: created more than two runners" and exits with status 1.
//
// The signal table (dispositions, callbacks, the actions in force before the runner changed
// them) is process-wide, so that the asynchronous handler reaches it without a pointer.
// Loop thread only.
#ifndef KL_RUNNER_RUNNER_H_
#define KL_RUNNER_RUNNER_H_

#include "kl/runner/thin_runner.h"

namespace kl {

// The process's event loop with signal dispositions and callbacks (see the file comment).
class Runner : public ThinRunner {
 public:
  // The disposition of a signal.
  enum RunnerSigaction {
    SIGACT_IGNORE = 0,   // SIG_IGN (also for any value other than the three below)
    SIGACT_DEFAULT = 1,  // SIG_DFL
    SIGACT_RESTORE = 2,  // the action in force before the runner first changed the signal
    SIGACT_HANDLE = 3,   // delivered through the self-pipe to the signal's callback
  };
  // Called from the loop with the context given to setSignal and the signal number.
  using SignalCallback = void (*)(void* ctx, int sig);

  static constexpr int kMaxSignal = 64;  // the highest signal number the runner handles

  Runner();
  // Unpublishes the runner. Dispositions are restored and the pipe closed only by shutdown().
  ~Runner() override;

  // Stores fn(ctx, sig) as the callback of sig and, with `install`, sets SIGACT_HANDLE.
  // The callback runs on the loop thread once per delivery. False when sig > 64.
  bool addSighandler(int sig, void* ctx, SignalCallback fn, bool install);
  // Clears the callback of sig and, with `restore`, sets SIGACT_RESTORE. False when sig > 64.
  bool removeSighandler(int sig, bool restore);
  // Sets the disposition of sig. The self-pipe is open while any signal is SIGACT_HANDLE.
  // False when sig > 64 or sigaction() fails (the disposition then stays as it was).
  bool setSigaction(int sig, RunnerSigaction how);

  // Restores every signal that has a callback to its prior action, then releases every
  // registration (ThinRunner::shutdown()).
  void shutdown() override;

  // The self-pipe's socket callback: runs the callbacks of the signal numbers in the pipe.
  static void onSignal(void* ctx, int fd, unsigned int events);

 private:
  void createPipe();
  void destroyPipe();
};

// The asynchronous handler of SIGACT_HANDLE signals: writes the signal number (4 bytes, host
// order) into the self-pipe when it is open. Async-signal-safe.
void handleSignal(int sig);

}  // namespace kl

#endif  // KL_RUNNER_RUNNER_H_
