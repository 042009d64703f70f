// File: kl/runner/signal_table.h
//
// The process-wide state that signal handlers reach without a pointer: the runner, the
// per-signal dispositions and callbacks, the self-pipe, the stack top and the crash report's
// buffers and paths, prepared in advance so that the crash handler never allocates.
// Internal to kl/runner.
#ifndef KL_RUNNER_SIGNAL_TABLE_H_
#define KL_RUNNER_SIGNAL_TABLE_H_

#include <signal.h>

#include <cstdint>

#include "kl/runner/runner.h"

// Internal to the library: none of it is exported.
#pragma GCC visibility push(hidden)
namespace kl {
namespace internal {

struct SignalEntry {
  Runner::RunnerSigaction how;
  void* ctx;
  Runner::SignalCallback fn;
  struct sigaction prior;  // the action before the runner first changed this signal
};

struct SignalTable {
  Runner* runner;
  char scratch[64];  // digits of the crash report's numbers
  SignalEntry entries[Runner::kMaxSignal + 1];
  int handledCount;      // signals at SIGACT_HANDLE; the pipe is open while above zero
  uintptr_t stackTop;    // page boundary above the Runner constructor's frame
  char line[100];        // the crash report's read buffer (maps, log tail)
  char reportPath[256];  // <root>/dev/log244
  char logPrefix[256];   // <root>/dev/log
};

// Zero-initialised, so that its kilobytes take no space in the library file.
extern SignalTable signalTable;
// The self-pipe through which handled signals reach the loop; -1 while closed.
extern int signalPipe[2];

// Installs the crash handler for the fatal signals and SIGUSR2, and prepares its paths.
void installCrashHandler();
// The crash handler itself (kl/runner/crash_report.cc).
void crashHandler(int sig, siginfo_t* info, void* context);

// The fault guard's side (kl/runner/fault_guard.h): whether a guarded read is running; the
// jump back into it, for a SIGBUS handler; and the note that SIGBUS's action has changed.
bool faultGuardActive();
[[noreturn]] void leaveFaultGuard();
void sigbusActionChanged();

}  // namespace internal
}  // namespace kl
#pragma GCC visibility pop

#endif  // KL_RUNNER_SIGNAL_TABLE_H_
