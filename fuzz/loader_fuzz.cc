// Feeds byte streams to the development loader's routing through a real connection.
//
// Each input gets a fresh Loader with three connections on socketpairs: processes 20 and 21
// (registered, well-behaved) and the fuzzed connection. Byte 0 chooses whether the fuzzed
// connection registers first (bit 0; it then takes id 22, or a transient id with bit 1) and
// whether its bytes go in as one write or cut in two (bit 2, cut at byte 1 mod the length);
// the rest is written into it and the loader serves its input as its loop would.
//
// Whatever the bytes, the loader must survive, keep both other connections open and still
// answer them: each of them then asks the loader for CMD_NOOP and must get its reply. The
// fuzzed connection may be closed (bad input) or stay; the loader's end is never left to a
// peer that stopped reading, so what the loader writes is drained each time.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kl/base/check.h"
#include "kl/looper/control.h"
#include "kl/looper/framing.h"
#include "kl/message/system.h"
#include "tools/loader/loader.h"

namespace {

constexpr int kCrashSignals[] = {SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR2};
constexpr size_t kCrashSignalCount = sizeof kCrashSignals / sizeof kCrashSignals[0];

void ignoreFailure(void*, kl::FrameFailure, long, int) {}

// The process's end of one connection.
struct Peer {
  explicit Peer(int descriptor)
      : fd(descriptor), reader(fd, nullptr, ignoreFailure), writer(fd, nullptr, ignoreFailure) {}
  ~Peer() { close(fd); }
  void send(const kl::message& m) {
    writer.queue(m);
    writer.flush(kl::FrameWriter::kBlock);
  }
  // The next frame the loader wrote, if one is there now.
  bool next(kl::message* m) { return reader.tryReadMessage(*m); }
  int fd;
  kl::FrameReader reader;
  kl::FrameWriter writer;
};

kl::message registration(unsigned int id) {
  kl::message m;
  m.insert(kl::SYS_TO, std::vector<unsigned int>{1});
  m.insert(kl::SYS_CTRL, kl::ctrl::kRegister);
  m.insert(kl::ctrl::kRegistrationWords,
           std::vector<unsigned int>{id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  return m;
}

// A connection for `loader`; the process's end comes back.
std::unique_ptr<Peer> connect(kl::loader::Loader& loader, kl::loader::Loader::Conn** conn) {
  int fds[2];
  KL_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0);
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  *conn = loader.addConnection(fds[0], 0);
  return std::unique_ptr<Peer>(new Peer(fds[1]));
}

// Registers `id` and checks the loader's CTRL_READY.
void registerAs(kl::loader::Loader& loader, kl::loader::Loader::Conn* conn, Peer& peer,
                unsigned int id) {
  peer.send(registration(id));
  loader.serveInput(*conn);
  kl::message ready;
  unsigned int code = 0;
  KL_CHECK(peer.next(&ready) && kl::isCtrl(ready, &code) && code == kl::ctrl::kReady);
}

void drain(Peer& peer) {
  kl::message m;
  while (peer.next(&m)) {
  }
}

void writeAll(int fd, const uint8_t* data, size_t length) {
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

// The loader still answers `peer`: a CMD_NOOP request to id 1 gets its reply.
void checkAnswers(kl::loader::Loader& loader, kl::loader::Loader::Conn* conn, Peer& peer) {
  drain(peer);
  kl::message noop;
  noop.insert(kl::SYS_TO, std::vector<unsigned int>{1});
  noop.insert(kl::SYS_FROM, std::vector<unsigned int>{});
  noop.insert(kl::SYS_CMD, kl::CMD_NOOP);
  kl::setRequestID(noop, 77);
  noop.insert_bool(kl::SYS_REPLYEXP, true);
  peer.send(noop);
  loader.serveInput(*conn);
  kl::message m;
  unsigned int requestId = 0;
  bool answered = false;
  while (!answered && peer.next(&m)) {
    answered = !kl::isRequest(m) && kl::getRequestID(m, &requestId) && requestId == 77;
  }
  KL_CHECK(answered);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static bool once = [] {
    signal(SIGPIPE, SIG_IGN);
    return true;
  }();
  (void)once;
  const uint8_t mode = data[0];
  const uint8_t cutByte = data[1];
  data += 2;
  size -= 2;

  // The Runner in the Loader installs the library's crash handler; the fuzzer's own
  // handlers are put back so that a crash still leaves its input behind.
  struct sigaction saved[kCrashSignalCount];
  for (size_t i = 0; i < kCrashSignalCount; ++i) sigaction(kCrashSignals[i], nullptr, &saved[i]);
  std::unique_ptr<kl::loader::Loader> loader(new kl::loader::Loader(kl::loader::Options()));
  for (size_t i = 0; i < kCrashSignalCount; ++i) sigaction(kCrashSignals[i], &saved[i], nullptr);

  kl::loader::Loader::Conn* connA;
  kl::loader::Loader::Conn* connB;
  kl::loader::Loader::Conn* connF;
  std::unique_ptr<Peer> a = connect(*loader, &connA);
  std::unique_ptr<Peer> b = connect(*loader, &connB);
  std::unique_ptr<Peer> f = connect(*loader, &connF);
  registerAs(*loader, connA, *a, 20);
  registerAs(*loader, connB, *b, 21);
  if (mode & 1) registerAs(*loader, connF, *f, (mode & 2) ? 0 : 22);

  // A write larger than the socket's room would wait for a loader that is not running.
  size = std::min<size_t>(size, 64 * 1024);
  const size_t cut = (mode & 4) && size > 0 ? cutByte % size : size;
  const size_t pieces[2][2] = {{0, cut}, {cut, size}};
  for (const auto& piece : pieces) {
    // Serving may close and free the fuzzed connection: go on only while it is there.
    if (piece[1] <= piece[0] || loader->connectionCount() != 3) continue;
    writeAll(f->fd, data + piece[0], piece[1] - piece[0]);
    loader->serveInput(*connF);
    drain(*a);
    drain(*b);
    drain(*f);
  }

  KL_CHECK(loader->connectionCount() >= 2);
  checkAnswers(*loader, connA, *a);
  checkAnswers(*loader, connB, *b);
  KL_CHECK(loader->connectionCount() >= 2);
  return 0;
}
