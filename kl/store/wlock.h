// File: kl/store/wlock.h
//
// kl::Wlock: a scoped inter-process write lock on the file <path>.lock (created 0600), a
// POSIX record lock over the whole file. Construction waits until the lock is granted.
// Record locks belong to the process: a nested Wlock on the same path does not block, and
// its release also releases the outer one. The lock is always on the file that bears the
// name when it is granted, so a lock file deleted and created anew meanwhile still excludes
// every writer. Failures print a "STORE: " line and carry on unlocked.
#ifndef KL_STORE_WLOCK_H_
#define KL_STORE_WLOCK_H_

#include <string>

namespace kl {

// A scoped write lock on <path>.lock (see the file comment).
class Wlock {
 public:
  // Waits until the lock on path + ".lock" is granted; an absolute path is joined onto the
  // development root, as the store's is.
  explicit Wlock(const std::string& path);
  ~Wlock();
  Wlock(const Wlock&) = delete;
  Wlock& operator=(const Wlock&) = delete;

 private:
  int fd_;
};

// Takes the write lock on `file` through *fd, opening (and creating) the file when *fd is
// -1, waiting until it is granted. Once granted, when *fd is no longer the file that bears
// the name (it was deleted meanwhile), *fd is closed and the lock taken on the named file.
// False after a "STORE: lock ..." line; the caller then goes on unlocked.
bool lockStoreFile(const std::string& file, int* fd);
// Takes the write lock on the open lock file fd, waiting until it is granted, without the
// check of the name: for writes through descriptors opened under a lock that was checked,
// which reach nobody else's files even when the lock file was deleted since. False after
// "STORE: lock fnctl failed".
bool lockOpenStoreFile(int fd);
// Releases the lock on fd; false after "STORE: unlock fnctl failed".
bool unlockStoreFile(int fd);

}  // namespace kl

#endif  // KL_STORE_WLOCK_H_
