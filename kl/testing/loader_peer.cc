#include "kl/testing/loader_peer.h"
#include "kl/looper/control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kl/message/system.h"

namespace kl {
namespace testing {

namespace {

constexpr int kLooperFd = 3;

}  // namespace

LoaderPeer::LoaderPeer(bool writeReady, const message& readyExtra)
    : reader_(-1, this, onFailure), writer_(-1, this, onFailure) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
    perror("LoaderPeer: socketpair");
    abort();
  }
  // The peer's end must not sit on descriptor 3 itself.
  fd_ = fcntl(fds[0], F_DUPFD_CLOEXEC, kLooperFd + 1);
  ::close(fds[0]);
  if (fds[1] != kLooperFd) {
    dup2(fds[1], kLooperFd);
    ::close(fds[1]);
  }
  fcntl(fd_, F_SETFL, O_NONBLOCK);
  reader_.setFd(fd_);
  writer_.setFd(fd_);
  if (writeReady) {
    message ready = readyExtra;
    ready.insert(SYS_CTRL, ctrl::kReady);
    send(ready);
  }
}

LoaderPeer::~LoaderPeer() { close(); }

void LoaderPeer::onFailure(void*, FrameFailure, long, int) {}

void LoaderPeer::send(const message& m) {
  writer_.queue(m);
  writer_.flush(FrameWriter::kBlock);
}

void LoaderPeer::sendBytes(const std::vector<unsigned char>& bytes) {
  writer_.writeRaw(bytes.data(), bytes.size());
}

unsigned int LoaderPeer::request(const std::vector<unsigned int>& path, unsigned int cmd,
                                 const message& body, const std::vector<unsigned int>& from) {
  message m = body;
  const unsigned int id = nextRequestId_++;
  m.insert(SYS_TO, path);
  m.insert(SYS_FROM, from);
  m.insert(SYS_CMD, cmd);
  setType(m, TYPE_REQUEST);
  setRequestID(m, id);
  m.insert_bool(SYS_REPLYEXP, true);
  send(m);
  return id;
}

void LoaderPeer::sendCtrl(unsigned int code) {
  message m;
  m.insert(SYS_CTRL, code);
  send(m);
}

bool LoaderPeer::read(message* m, int timeoutMs) {
  if (reader_.failed()) return false;
  // Ticks of 10 ms, at least one, so that 0 does not mean "do not wait" by accident.
  const int ticks = timeoutMs <= 0 ? 0 : (timeoutMs + 9) / 10;
  return reader_.readMessage(*m, ticks, true);
}

bool LoaderPeer::quiet(int timeoutMs) {
  message m;
  return !read(&m, timeoutMs);
}

void LoaderPeer::pump(Looper& looper) {
  for (;;) {
    pollfd p{kLooperFd, POLLIN, 0};
    if (looper.socket() >= 0) p.fd = looper.socket();
    if (poll(&p, 1, 0) <= 0) break;
    looper.onMsgSock(p.fd, static_cast<unsigned int>(p.revents));
    looper.dispatchQueue();
  }
  looper.dispatchQueue();
}

void LoaderPeer::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace testing
}  // namespace kl
