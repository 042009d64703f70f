// Part of the coverage build only (KL_COVERAGE): gcov writes a program's counts from an
// exit handler, which _exit() and abort() skip. The tests run much of the library in forked
// children that end with _exit(), and the loader's child ends that way when exec fails; a
// failed check ends with abort(). Every program and the shared library of that build are
// linked with --wrap for both, so these write the counts first and what such a process ran
// is measured. A process that a signal ends (a crash the crash report handles, SIGKILL)
// still writes nothing.

#include <sys/resource.h>

extern "C" {

void __gcov_dump(void);
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __real_abort(void);

}  // extern "C"

namespace {

// Some tests end children that run under a file-size limit (a full flash, played). Their
// counts go out only when the limit can be lifted: a count file cut short would spoil the
// counts of every later program that merges into it.
void writeCounts() {
  struct rlimit limit;
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0) return;
  if (limit.rlim_cur != RLIM_INFINITY) {
    const struct rlimit lifted = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &lifted) != 0) return;
  }
  __gcov_dump();
}

}  // namespace

extern "C" {

[[noreturn]] void __wrap__exit(int status) {
  writeCounts();
  __real__exit(status);
}

[[noreturn]] void __wrap_abort(void) {
  writeCounts();
  __real_abort();
}

}  // extern "C"
