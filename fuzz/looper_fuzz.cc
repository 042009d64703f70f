// Feeds an arbitrary byte stream to a Looper's frame reader and dispatch, cut into reads at
// points the input chooses.
//
// Input: byte 0 is the number of cuts (mod 16), then two bytes per cut (little-endian offsets
// into the stream, mod its length); the rest is the stream. A writer thread writes the
// stream piece by piece into the loader's end of a socketpair and waits, before each next
// piece, until the Looper has read every byte written, so each piece ends one read()
// exactly; meanwhile it drains what the Looper writes back, so the Looper's flushes never
// wait for room. The main thread runs the Looper's socket callback and before-sleep hook as
// its loop would.
//
// Transport failures end a Looper's process by design, so they are kept out: the loader's
// end is never closed, and the stream always ends on a frame boundary. A Looper awaits the
// rest of a begun frame without limit, so a last frame the stream leaves incomplete is
// padded with zero bytes to its declared length when that length is at most kMaxPad;
// otherwise that incomplete tail is dropped (a Looper has no frame limit: a prefix of
// gigabytes would only measure this machine's memory). Frames above the 1024-byte read
// buffer, which take the Looper's separate block, stay reachable through the padding.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "kl/base/check.h"
#include "kl/base/endian.h"
#include "kl/looper/control.h"
#include "kl/looper/framing.h"
#include "kl/looper/handler.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"

namespace {

constexpr int kLooperFd = 3;
constexpr uint32_t kMaxPad = 64 * 1024;
constexpr int kCrashSignals[] = {SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR2};

// A handler beside the Looper's own: a leaf (id 5) and one that routes deeper paths (id 6).
class Inner : public kl::Handler {
 public:
  explicit Inner(bool leaf) { setLeaf(leaf); }
};

struct Setup {
  int peerFd = -1;
  kl::Looper* looper = nullptr;
};

void writeAll(int fd, const unsigned char* data, size_t length) {
  while (length > 0) {
    const ssize_t n = write(fd, data, length);
    if (n > 0) {
      data += n;
      length -= static_cast<size_t>(n);
    } else {
      KL_CHECK(n < 0 && (errno == EAGAIN || errno == EINTR));
      pollfd p{fd, POLLOUT, 0};
      poll(&p, 1, 10);
    }
  }
}

// The loader's end on a socketpair, the Looper's end on descriptor 3, CTRL_READY written
// ahead so that the Looper's start-up completes; the Looper and its handlers live for the
// whole process. The Runner in the Looper installs the library's crash handler; the
// fuzzer's own handlers are put back so that a crash still leaves its input behind.
Setup& setup() {
  static Setup* s = [] {
    Setup* made = new Setup;
    int fds[2];
    KL_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    made->peerFd = fcntl(fds[0], F_DUPFD_CLOEXEC, kLooperFd + 1);
    close(fds[0]);
    if (fds[1] != kLooperFd) {
      dup2(fds[1], kLooperFd);
      close(fds[1]);
    }
    fcntl(made->peerFd, F_SETFL, O_NONBLOCK);
    kl::message ready;
    ready.insert(kl::SYS_CTRL, kl::ctrl::kReady);
    uint32_t length;
    std::unique_ptr<unsigned char[]> frame = kl::makeFrame(ready, &length);
    writeAll(made->peerFd, frame.get(), length);

    struct sigaction saved[sizeof kCrashSignals / sizeof kCrashSignals[0]];
    for (size_t i = 0; i < sizeof kCrashSignals / sizeof kCrashSignals[0]; ++i) {
      sigaction(kCrashSignals[i], nullptr, &saved[i]);
    }
    made->looper = new kl::Looper(kl::Looper::kInherit, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    for (size_t i = 0; i < sizeof kCrashSignals / sizeof kCrashSignals[0]; ++i) {
      sigaction(kCrashSignals[i], &saved[i], nullptr);
    }
    made->looper->addHandler(5, new Inner(true));
    made->looper->addHandler(6, new Inner(false));
    return made;
  }();
  return *s;
}

// Bytes written to the Looper's end and not yet read by it.
int unread() {
  int n = 0;
  KL_CHECK(ioctl(kLooperFd, FIONREAD, &n) == 0);
  return n;
}

void drain(int fd) {
  unsigned char sink[4096];
  while (read(fd, sink, sizeof sink) > 0) {
  }
}

// The stream cut to end on a frame boundary, padding a short last frame (see the top).
std::vector<unsigned char> wholeFrames(const uint8_t* data, size_t size) {
  std::vector<unsigned char> stream(data, data + size);
  size_t pos = 0;
  while (pos + kl::kFramePrefixBytes <= stream.size()) {
    const uint32_t length = kl::loadLe32(stream.data() + pos);
    const size_t rest = stream.size() - pos - kl::kFramePrefixBytes;
    if (length <= rest) {
      pos += kl::kFramePrefixBytes + length;
      continue;
    }
    if (length <= kMaxPad) {
      stream.resize(pos + kl::kFramePrefixBytes + length, 0);
      return stream;
    }
    break;
  }
  stream.resize(pos);
  return stream;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Setup& s = setup();
  if (size < 1) return 0;
  const size_t cutCount = data[0] % 16;
  if (size < 1 + 2 * cutCount) return 0;
  std::vector<size_t> cuts;
  for (size_t i = 0; i < cutCount; ++i) cuts.push_back(kl::loadLe16(data + 1 + 2 * i));
  const std::vector<unsigned char> stream =
      wholeFrames(data + 1 + 2 * cutCount, size - 1 - 2 * cutCount);
  if (stream.empty()) return 0;
  for (size_t& cut : cuts) cut %= stream.size();
  cuts.push_back(stream.size());
  std::sort(cuts.begin(), cuts.end());

  std::atomic<bool> written{false};
  std::thread writer([&] {
    size_t from = 0;
    for (size_t cut : cuts) {
      if (cut <= from) continue;
      writeAll(s.peerFd, stream.data() + from, cut - from);
      from = cut;
      while (unread() > 0) {
        drain(s.peerFd);
        std::this_thread::yield();
      }
    }
    written = true;
  });
  while (!written || unread() > 0) {
    pollfd p{kLooperFd, POLLIN, 0};
    if (poll(&p, 1, 1) > 0) s.looper->onMsgSock(kLooperFd, static_cast<unsigned int>(p.revents));
    s.looper->dispatchQueue();
  }
  writer.join();
  s.looper->dispatchQueue();
  KL_CHECK(unread() == 0);
  drain(s.peerFd);
  return 0;
}
