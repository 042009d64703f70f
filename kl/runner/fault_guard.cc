#include "kl/runner/fault_guard.h"

#include <setjmp.h>
#include <signal.h>

#include <atomic>

#include "kl/runner/signal_table.h"

namespace kl {

namespace {

sigjmp_buf jumpPoint;
volatile sig_atomic_t guarding = 0;
// Whether the SIGBUS action in force is known to hand guarded faults back; cleared by every
// change of that action the library sees.
volatile sig_atomic_t handlerChecked = 0;
struct sigaction replaced;  // the action the guard's own handler took the place of

void guardHandler(int sig, siginfo_t*, void*) {
  if (guarding) internal::leaveFaultGuard();
  // Not a guarded read's fault: the replaced action takes it. The signal raised here waits
  // while this handler runs (SIGBUS is blocked in it) and is then delivered to that action; a
  // fault that repeats when the instruction runs again goes to it as well.
  sigaction(sig, &replaced, nullptr);
  handlerChecked = 0;
  raise(sig);
}

bool ensureHandler() {
  struct sigaction current;
  if (sigaction(SIGBUS, nullptr, &current) != 0) return false;
  const bool handsBack =
      (current.sa_flags & SA_SIGINFO) != 0 &&
      (current.sa_sigaction == internal::crashHandler || current.sa_sigaction == guardHandler);
  if (!handsBack) {
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    action.sa_sigaction = guardHandler;
    if (sigaction(SIGBUS, &action, &replaced) != 0) return false;
  }
  handlerChecked = 1;
  return true;
}

}  // namespace

bool guardedRead(void (*read)(void* ctx), void* ctx) {
  if (!handlerChecked && !ensureHandler()) return false;
  if (sigsetjmp(jumpPoint, 0) != 0) {
    sigset_t bus;
    sigemptyset(&bus);
    sigaddset(&bus, SIGBUS);
    sigprocmask(SIG_UNBLOCK, &bus, nullptr);
    return false;
  }
  guarding = 1;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  read(ctx);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  guarding = 0;
  return true;
}

namespace internal {

bool faultGuardActive() { return guarding != 0; }

void leaveFaultGuard() {
  guarding = 0;
  siglongjmp(jumpPoint, 1);
}

void sigbusActionChanged() { handlerChecked = 0; }

}  // namespace internal
}  // namespace kl
