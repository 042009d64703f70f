// File: kl/base/check.h
//
// KL_CHECK(expr): an assertion that is never compiled out (NDEBUG has no effect). When
// `expr` is false it prints
//   <file>:<line>: <function>: Assertion `<expr>' failed.
// as one line on the standard error stream and calls abort(). It is used where the
// library's contract says the process stops: broken invariants and fatal misuse.
#ifndef KL_BASE_CHECK_H_
#define KL_BASE_CHECK_H_

namespace kl {

// Prints the assertion line described above and aborts. Allocates nothing and uses only
// write() and abort(), so it may run in a signal handler.
[[noreturn]] void checkFailed(const char* expr, const char* file, unsigned int line,
                              const char* function);

}  // namespace kl

#define KL_CHECK(expr) KL_CHECK_NAMED(__FILE__, expr)

// KL_CHECK naming the unit `file` in the line instead of the source file's build path: the
// messaging core's checks name "looper", whatever directory the library was built in.
#define KL_CHECK_NAMED(file, expr) \
  ((expr) ? static_cast<void>(0) : ::kl::checkFailed(#expr, file, __LINE__, __PRETTY_FUNCTION__))

#endif  // KL_BASE_CHECK_H_
