#include "kl/runner/runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "kl/runner/signal_table.h"

namespace kl {

namespace internal {
SignalTable signalTable;
int signalPipe[2] = {-1, -1};
}  // namespace internal

using internal::signalPipe;
using internal::signalTable;

ThinRunner* getRunner() { return signalTable.runner; }

void handleSignal(int sig) {
  const int saved = errno;
  if (signalPipe[1] >= 0) {
    const int32_t value = sig;
    ssize_t ignored = write(signalPipe[1], &value, sizeof value);
    (void)ignored;  // a full pipe drops the signal
  }
  errno = saved;
}

Runner::Runner() {
  const uintptr_t frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  signalTable.stackTop = (frame & ~uintptr_t{4095}) + 4096;
  if (signalTable.runner != nullptr) {
    fputs("ERROR: created more than two runners\n", stderr);
    exit(1);
  }
  signalTable.runner = this;
  internal::installCrashHandler();
  signalPipe[0] = signalPipe[1] = -1;
  signalTable.handledCount = 0;
  for (internal::SignalEntry& e : signalTable.entries) {
    e = internal::SignalEntry{};
    e.how = SIGACT_RESTORE;
  }
}

Runner::~Runner() { signalTable.runner = nullptr; }

bool Runner::addSighandler(int sig, void* ctx, SignalCallback fn, bool install) {
  if (sig > kMaxSignal) return false;
  signalTable.entries[sig].fn = fn;
  signalTable.entries[sig].ctx = ctx;
  if (install) setSigaction(sig, SIGACT_HANDLE);
  return true;
}

bool Runner::removeSighandler(int sig, bool restore) {
  if (sig > kMaxSignal) return false;
  if (restore) setSigaction(sig, SIGACT_RESTORE);
  signalTable.entries[sig].fn = nullptr;
  signalTable.entries[sig].ctx = nullptr;
  return true;
}

bool Runner::setSigaction(int sig, RunnerSigaction how) {
  if (sig > kMaxSignal || sig < 0) return false;
  internal::SignalEntry& entry = signalTable.entries[sig];
  if (entry.how == how) return true;
  if (entry.how == SIGACT_HANDLE && --signalTable.handledCount == 0) destroyPipe();

  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  switch (how) {
    case SIGACT_RESTORE:
      action.sa_handler = entry.prior.sa_handler;
      // A prior three-argument handler (the crash handler) must get its arguments back.
      action.sa_flags |= entry.prior.sa_flags & SA_SIGINFO;
      break;
    case SIGACT_HANDLE:
      action.sa_handler = handleSignal;
      if (signalTable.handledCount++ == 0) createPipe();
      break;
    case SIGACT_DEFAULT:
      action.sa_handler = SIG_DFL;
      break;
    default:
      action.sa_handler = SIG_IGN;
      break;
  }
  // The prior action is captured the first time the signal leaves SIGACT_RESTORE.
  struct sigaction* old = entry.how == SIGACT_RESTORE ? &entry.prior : nullptr;
  // A failure leaves the disposition, but not the pipe count, as it was.
  if (sigaction(sig, &action, old) == -1) return false;
  if (sig == SIGBUS) internal::sigbusActionChanged();  // guarded reads check it again
  entry.how = how;
  return true;
}

void Runner::createPipe() {
  if (pipe(signalPipe) != 0) return;
  fcntl(signalPipe[0], F_SETFL, O_NONBLOCK);
  fcntl(signalPipe[1], F_SETFL, O_NONBLOCK);
  addSocket(signalPipe[0], this, onSignal, POLLIN);
}

void Runner::destroyPipe() {
  removeSocket(signalPipe[0]);
  close(signalPipe[0]);
  close(signalPipe[1]);
  signalPipe[0] = signalPipe[1] = -1;
}

void Runner::onSignal(void*, int fd, unsigned int events) {
  if ((events & POLLIN) == 0) return;
  int32_t sig;
  while (read(fd, &sig, sizeof sig) == sizeof sig) {
    if (sig < 0 || sig > kMaxSignal) continue;
    const internal::SignalEntry& entry = signalTable.entries[sig];
    // Signals no longer handled are dropped.
    if (entry.how == SIGACT_HANDLE && entry.fn != nullptr) entry.fn(entry.ctx, sig);
  }
}

void Runner::shutdown() {
  for (int sig = 0; sig <= kMaxSignal; ++sig) {
    if (signalTable.entries[sig].fn != nullptr) removeSighandler(sig, true);
  }
  ThinRunner::shutdown();
}

}  // namespace kl
