#include "kl/store/wlock.h"

#include <fcntl.h>
#include <unistd.h>

#include <iostream>

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

}  // namespace

Wlock::Wlock(const std::string& path)
    : fd_(open((path + ".lock").c_str(), O_RDWR | O_CREAT, 0600)) {
  if (fd_ < 0) {
    std::cerr << "STORE: lock open failed" << std::endl;
    return;
  }
  if (!setLock(fd_, F_WRLCK)) std::cerr << "STORE: lock fnctl failed" << std::endl;
}

Wlock::~Wlock() {
  if (fd_ < 0) return;
  if (!setLock(fd_, F_UNLCK)) std::cerr << "STORE: unlock fnctl failed" << std::endl;
  close(fd_);
}

}  // namespace kl
