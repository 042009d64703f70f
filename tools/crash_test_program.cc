// A service that faults in a timer callback: the crash report it writes (on standard
// output, as no report device exists under the test's root) is what kl_msg_crash_test
// reads back with kl-msg crash. Linked against the shared libkl, so the backtrace runs
// from the program's callback through the library's loop.
#include "kl/kl.h"

namespace {

class Service : public kl::Runner {};

// A real fault, hidden from the undefined-behaviour sanitizer, which would stop it first.
__attribute__((noinline, no_sanitize("undefined"))) void faultInTimer(void*) {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 7;  // the fault
}

}  // namespace

int main() {
  Service service;
  service.addTimer(nullptr, faultInTimer, 1);
  service.run();
  return 0;
}
