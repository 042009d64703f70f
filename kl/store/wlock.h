// File: kl/store/wlock.h
//
// kl::Wlock: a scoped inter-process write lock on the file <path>.lock (created 0600), a
// POSIX record lock over the whole file. Construction waits until the lock is granted.
// Record locks belong to the process: a nested Wlock on the same path does not block, and
// its release also releases the outer one. Failures print a "STORE: " line and carry on
// unlocked.
#ifndef KL_STORE_WLOCK_H_
#define KL_STORE_WLOCK_H_

#include <string>

namespace kl {

class Wlock {
 public:
  explicit Wlock(const std::string& path);
  ~Wlock();
  Wlock(const Wlock&) = delete;
  Wlock& operator=(const Wlock&) = delete;

 private:
  int fd_;
};

}  // namespace kl

#endif  // KL_STORE_WLOCK_H_
