// File: kl/base/sanitizer.h
//
// KL_ADDRESS_SANITIZER is defined when the build runs under AddressSanitizer (g++ or clang),
// and then <sanitizer/asan_interface.h> is included: for code that keeps freed memory for
// reuse and must poison it so that the sanitizer still reports a use after release. Not
// installed.
#ifndef KL_BASE_SANITIZER_H_
#define KL_BASE_SANITIZER_H_

#if defined(__SANITIZE_ADDRESS__)
#define KL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KL_ADDRESS_SANITIZER 1
#endif
#endif

#ifdef KL_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

#endif  // KL_BASE_SANITIZER_H_
