#include "kl/store/wlock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "kl/base/diagnostics.h"
#include "kl/base/root.h"

namespace kl {

namespace {

bool setLock(int fd, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;  // the whole file
  return fcntl(fd, F_SETLKW, &lock) != -1;
}

void report(const char* text) { fprintf(diagnosticStream(), "STORE: %s\n", text); }

// Whether fd is still a named file: the lock file is only ever deleted (and perhaps
// created anew), never renamed, so a held file without links is an orphan. One fstat, where
// comparing with a stat of the name would cost a path lookup on every write.
bool stillNamed(int fd) {
  struct stat held;
  return fstat(fd, &held) == 0 && held.st_nlink > 0;
}

}  // namespace

// A lock on a file that was deleted (and perhaps created anew by another process) while we
// waited excludes nobody: the others lock the file that bears the name. So once granted,
// the lock is checked against the name, and taken again on the new file when it differs.
bool lockStoreFile(const std::string& file, int* fd) {
  for (;;) {
    if (*fd < 0) {
      *fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      if (*fd < 0) {
        report("lock open failed");
        return false;
      }
    }
    if (!setLock(*fd, F_WRLCK)) {
      report("lock fnctl failed");
      return false;
    }
    if (stillNamed(*fd)) return true;
    close(*fd);  // releases the lock on the orphaned file
    *fd = -1;
  }
}

bool lockOpenStoreFile(int fd) {
  if (setLock(fd, F_WRLCK)) return true;
  report("lock fnctl failed");
  return false;
}

bool unlockStoreFile(int fd) {
  if (setLock(fd, F_UNLCK)) return true;
  report("unlock fnctl failed");
  return false;
}

Wlock::Wlock(const std::string& path) : fd_(-1) {
  const std::string lockFile = path + ".lock";
  lockStoreFile(!path.empty() && path[0] == '/' ? rootedPath(lockFile.c_str()) : lockFile, &fd_);
}

Wlock::~Wlock() {
  if (fd_ < 0) return;
  unlockStoreFile(fd_);
  close(fd_);
}

}  // namespace kl
