// The interposed system calls of kl/testing/io_faults.h. This file declares the calls
// itself instead of including <unistd.h> and <stdio.h>, whose declarations carry attributes
// a definition in C++ cannot repeat; the signatures are the C library's, noexcept where the
// C library's headers declare them so (a compiler may have seen those through another
// header).
#include "kl/testing/io_faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/types.h>
#include <sys/uio.h>

extern "C" {
ssize_t read(int fd, void* buf, size_t n);
ssize_t pread(int fd, void* buf, size_t n, off_t offset);
ssize_t write(int fd, const void* buf, size_t n);
ssize_t pwrite(int fd, const void* buf, size_t n, off_t offset);
off_t lseek(int fd, off_t offset, int whence) noexcept;
int fsync(int fd);
int ftruncate(int fd, off_t length) noexcept;
int rename(const char* from, const char* to) noexcept;
int close(int fd);
}

namespace kl {
namespace testing {
namespace {

constexpr int kMaxFd = 4096;
constexpr size_t kMaxTrace = 100000;

struct State {
  char prefix[4096] = "";
  bool watchedFd[kMaxFd] = {};
  std::vector<std::string>* trace = nullptr;
  unsigned calls = 0;
  unsigned armedCall = 0;  // 0: nothing armed
  IoFault fault = IoFault::kIoError;
  bool injected = false;
};

State& state() {
  static State s;
  return s;
}

bool watchedPath(const char* path) {
  const State& s = state();
  return s.prefix[0] != '\0' && path != nullptr && strncmp(path, s.prefix, strlen(s.prefix)) == 0;
}

bool watchedFd(int fd) { return fd >= 0 && fd < kMaxFd && state().watchedFd[fd]; }

// The next real function of that name, after this program's.
template <typename F>
F next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// Counts a watched call; the fault to inject into it, or null.
const IoFault* count(const char* name) {
  State& s = state();
  ++s.calls;
  if (s.trace != nullptr && s.trace->size() < kMaxTrace) s.trace->push_back(name);
  if (s.armedCall == 0 || s.calls != s.armedCall) return nullptr;
  s.injected = true;
  return &s.fault;
}

// -1 with the fault's errno; a short write counts as an I/O error on a call that writes
// no data.
long fail(IoFault fault) {
  errno = fault == IoFault::kNoSpace ? ENOSPC : EIO;
  return -1;
}

}  // namespace

void watchIoUnder(const std::string& prefix) {
  State& s = state();
  const size_t n = prefix.size() < sizeof s.prefix - 1 ? prefix.size() : sizeof s.prefix - 1;
  memcpy(s.prefix, prefix.data(), n);
  s.prefix[n] = '\0';
}

void resetIoTrace() {
  State& s = state();
  if (s.trace == nullptr) s.trace = new std::vector<std::string>;
  s.trace->clear();
  s.calls = 0;
}

std::vector<std::string> ioTrace() {
  const State& s = state();
  return s.trace != nullptr ? *s.trace : std::vector<std::string>();
}

bool writesData(const std::string& call) {
  return call == "write" || call == "pwrite" || call == "pwritev";
}

void armIoFault(unsigned call, IoFault fault) {
  State& s = state();
  s.armedCall = s.calls + call;
  s.fault = fault;
  s.injected = false;
}

bool disarmIoFault() {
  State& s = state();
  s.armedCall = 0;
  return s.injected;
}

}  // namespace testing
}  // namespace kl

using kl::testing::IoFault;

extern "C" {

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
  }
  static const auto real = kl::testing::next<int (*)(const char*, int, ...)>("open");
  const bool watched = kl::testing::watchedPath(path);
  if (watched) {
    if (const IoFault* f = kl::testing::count("open")) {
      return static_cast<int>(kl::testing::fail(*f));
    }
  }
  const int fd = real(path, flags, mode);
  if (fd >= 0 && fd < kl::testing::kMaxFd) kl::testing::state().watchedFd[fd] = watched;
  return fd;
}

int close(int fd) {
  static const auto real = kl::testing::next<int (*)(int)>("close");
  if (fd >= 0 && fd < kl::testing::kMaxFd) kl::testing::state().watchedFd[fd] = false;
  return real(fd);
}

ssize_t read(int fd, void* buf, size_t n) {
  static const auto real = kl::testing::next<ssize_t (*)(int, void*, size_t)>("read");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("read")) return kl::testing::fail(*f);
  }
  return real(fd, buf, n);
}

ssize_t pread(int fd, void* buf, size_t n, off_t offset) {
  static const auto real = kl::testing::next<ssize_t (*)(int, void*, size_t, off_t)>("pread");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("pread")) return kl::testing::fail(*f);
  }
  return real(fd, buf, n, offset);
}

ssize_t write(int fd, const void* buf, size_t n) {
  static const auto real = kl::testing::next<ssize_t (*)(int, const void*, size_t)>("write");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("write")) {
      return *f == IoFault::kShortWrite ? real(fd, buf, n / 2) : kl::testing::fail(*f);
    }
  }
  return real(fd, buf, n);
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t offset) {
  static const auto real =
      kl::testing::next<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("pwrite")) {
      return *f == IoFault::kShortWrite ? real(fd, buf, n / 2, offset) : kl::testing::fail(*f);
    }
  }
  return real(fd, buf, n, offset);
}

ssize_t pwritev(int fd, const struct iovec* iov, int count, off_t offset) {
  static const auto real =
      kl::testing::next<ssize_t (*)(int, const struct iovec*, int, off_t)>("pwritev");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("pwritev")) {
      if (*f != IoFault::kShortWrite) return kl::testing::fail(*f);
      std::vector<char> all;
      for (int i = 0; i < count; ++i) {
        const char* base = static_cast<const char*>(iov[i].iov_base);
        all.insert(all.end(), base, base + iov[i].iov_len);
      }
      const struct iovec half = {all.data(), all.size() / 2};
      return real(fd, &half, 1, offset);
    }
  }
  return real(fd, iov, count, offset);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
  static const auto real = kl::testing::next<off_t (*)(int, off_t, int)>("lseek");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("lseek")) return kl::testing::fail(*f);
  }
  return real(fd, offset, whence);
}

int fsync(int fd) {
  static const auto real = kl::testing::next<int (*)(int)>("fsync");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("fsync")) {
      return static_cast<int>(kl::testing::fail(*f));
    }
  }
  return real(fd);
}

int ftruncate(int fd, off_t length) noexcept {
  static const auto real = kl::testing::next<int (*)(int, off_t)>("ftruncate");
  if (kl::testing::watchedFd(fd)) {
    if (const IoFault* f = kl::testing::count("ftruncate")) {
      return static_cast<int>(kl::testing::fail(*f));
    }
  }
  return real(fd, length);
}

int rename(const char* from, const char* to) noexcept {
  static const auto real = kl::testing::next<int (*)(const char*, const char*)>("rename");
  if (kl::testing::watchedPath(from)) {
    if (const IoFault* f = kl::testing::count("rename")) {
      return static_cast<int>(kl::testing::fail(*f));
    }
  }
  return real(from, to);
}

}  // extern "C"
