// kl::Looper: the loader connection, the start-up handshake, the transport and control
// messages. Routing, the local queue, run() and leaving are in looper_dispatch.cc.
#include "kl/looper/looper.h"
#include "kl/looper/control.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "kl/base/check.h"
#include "kl/base/root.h"
#include "kl/message/dump.h"
#include "kl/message/system.h"

namespace kl {

namespace {

Looper* currentLooper = nullptr;

constexpr int kInheritedFd = 3;
constexpr int kReadyTimeoutTicks = 2000;  // 20 seconds

constexpr uint32_t kServiceKeyField = 0x88000001;
constexpr uint32_t kServiceStateField = 0x30000002;
constexpr uint32_t kLoaderValue64Field = 0x10000007;

}  // namespace

Looper* getLooper() { return currentLooper; }

Looper::Looper(unsigned int mode, unsigned int w1, unsigned int w2, unsigned int w3,
               unsigned int w4, unsigned int w5, unsigned int w6, unsigned int w7, unsigned int w8,
               unsigned int w9, unsigned int w10, unsigned int w11, unsigned int w12)
    : reader_(-1, this, onTransportFailure), writer_(-1, this, onTransportFailure) {
  addBeforeSleep(this, dispatchQueueCb);
  currentLooper = this;
  connectToLoader(mode);
  reader_.setFd(socket_);
  writer_.setFd(socket_);
  if (fcntl(socket_, F_SETFL, O_NONBLOCK) != 0) fprintf(stderr, "fcntl: %s\n", strerror(errno));
  addSocket(socket_, this, onMsgSockCb, POLLIN);

  message registration = controlMessage(ctrl::kRegister);
  registration.insert_u32_array(ctrl::kRegistrationWords,
                                {w1, w2, w3, w4, w5, w6, w7, w8, w9, w10, w11, w12});
  sendNow(registration);
  awaitReady(w1, w12);
}

Looper::~Looper() {
  writeFlush(true);
  if (socket_ >= 0) close(socket_);
  currentLooper = nullptr;
}

void Looper::connectToLoader(unsigned int mode) {
  if (mode != kConnect) {
    sockaddr_un addr;
    socklen_t len = sizeof addr;  // 110 bytes
    if (getsockname(kInheritedFd, reinterpret_cast<sockaddr*>(&addr), &len) == 0 &&
        addr.sun_family == AF_UNIX) {
      socket_ = kInheritedFd;
      return;
    }
    if (mode == kInherit) {
      fprintf(stderr, "LOOPER: didn't get connection to loader\n");
      exit(1);
    }
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) {
    fprintf(stderr, "socket failed (errno=%d)\n", errno);
    exit(1);
  }
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  int rc = -1;
  if (rootedPath("/ram/kelosock", addr.sun_path, sizeof addr.sun_path)) {
    rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  } else {
    errno = ENAMETOOLONG;
  }
  if (rc != 0) {
    fprintf(stderr, "connect failed (errno=%d)\n", errno);
    close(fd);
    exit(1);
  }
  socket_ = fd;
}

void Looper::awaitReady(unsigned int w1, unsigned int w12) {
  message reply;
  readMessage(reply, kReadyTimeoutTicks, true);
  unsigned int code = 0;
  if (!isCtrl(reply, &code) || code != ctrl::kReady) {
    fprintf(stderr, "could not receive confirmation to CTRL_READY from loader\n");
    printDump(reply, stdout);
    abort();
  }
  loaderU32_3_ = reply.get_u32(3, 0);
  loaderU32_1_ = reply.get_u32(1, 0);
  loaderU32_2_ = reply.get_u32(2, 0);
  loaderU32_6_ = reply.get_u32(6, 0);
  loaderU64_7_ = reply.get_u64(kLoaderValue64Field, 0);
  if (const message::flat_message* data = std::as_const(reply).get_message_ref(ctrl::kPermData)) {
    loadPermData(message(*data));
  }
  if (const message::flat_message* service =
          std::as_const(reply).get_message_ref(ctrl::kServiceData)) {
    serviceData_ = message(*service);
    prepareServiceData(w1, w12);
  }
}

// A 256-byte permutation keyed by w1, the service data's first key word and w12: the key
// schedule of RC4, run for (key AND 0xFF) + 1024 rounds without resetting its counter, and
// no output phase. Whoever uses the state expects exactly these bytes.
void Looper::prepareServiceData(unsigned int w1, unsigned int w12) {
  const std::vector<unsigned int>* words =
      std::as_const(serviceData_).get_u32_array_ref(kServiceKeyField);
  if (words == nullptr) return;
  const unsigned int first = words->empty() ? 0 : words->front();
  // The key words in the host's own memory order, as the consumer of the state reads them.
  unsigned char key[12];
  memcpy(key, &w1, 4);
  memcpy(key + 4, &first, 4);
  memcpy(key + 8, &w12, 4);
  std::vector<unsigned char> state(256);
  for (unsigned int k = 0; k < 256; ++k) state[k] = static_cast<unsigned char>(k);
  const unsigned int rounds = (first & 0xFF) + 1024;
  unsigned int i = 0, j = 0;
  for (unsigned int round = 0; round < rounds; ++round) {
    j = (j + state[i] + key[round % sizeof key]) & 0xFF;
    std::swap(state[i], state[j]);
    i = (i + 1) & 0xFF;
  }
  serviceData_.insert_raw(kServiceStateField, state);
}

unsigned int Looper::loaderValue(unsigned int field) const {
  switch (field) {
    case 1:
      return loaderU32_1_;
    case 2:
      return loaderU32_2_;
    case 3:
      return loaderU32_3_;
    case 6:
      return loaderU32_6_;
    default:
      return 0;
  }
}

// --- transport ----------------------------------------------------------------------------

void Looper::onTransportFailure(void*, FrameFailure what, long result, int err) {
  switch (what) {
    case FrameFailure::kReadEof:
      fprintf(stderr, "LOOPER: read_raw read failed: EOF\n");
      break;
    case FrameFailure::kReadError:
      fprintf(stderr, "LOOPER: read_raw read failed: %ld, errno: %d\n", result, err);
      break;
    case FrameFailure::kPollError:
      fprintf(stderr, "LOOPER:: read_raw pool failed: errno=%d\n", err);
      break;
    case FrameFailure::kFlushEof:
      fprintf(stderr, "LOOPER: writeFlush write failed: EOF\n");
      break;
    case FrameFailure::kFlushError:
      fprintf(stderr, "LOOPER: writeFlush write failed: %ld, errno: %d\n", result, err);
      break;
    case FrameFailure::kRawEof:
      fprintf(stderr, "LOOPER: write_raw write failed: EOF\n");
      break;
    case FrameFailure::kRawError:
      fprintf(stderr, "LOOPER: write_raw write failed: %ld, errno: %d\n", result, err);
      break;
    case FrameFailure::kTooLarge:
      fprintf(stderr, "LOOPER: read_raw frame of %u bytes does not fit in memory\n",
              static_cast<unsigned int>(result));
      break;
  }
  KL_CHECK_NAMED("looper", false);
}

unsigned int Looper::readRaw(unsigned char* buffer, unsigned int need, int timeout,
                             unsigned int room) {
  return reader_.readRaw(buffer, need, timeout, room);
}

bool Looper::readMessage(message& m, int timeout, bool mayRead) {
  return reader_.readMessage(m, timeout, mayRead);
}

void Looper::writeRaw(const unsigned char* buffer, size_t length) {
  writer_.writeRaw(buffer, length);
}

void Looper::writeMessage(const message& m) {
  // Small frames wait for the flush before the loop sleeps, so that several leave in one
  // system call.
  if (writer_.queue(m) > 1023) writeFlush(true);
}

void Looper::writeFlush(bool block) {
  writer_.flush(block ? FrameWriter::kBlock : FrameWriter::kSpin);
}

message Looper::getMessage(int timeout) {
  message m;
  if (popLocal(&m)) return m;
  if (!readMessage(m, timeout, true)) return errorMsg(ERROR_TIMEOUT, "timeout");
  unsigned int code;
  if (isCtrl(m, &code)) return ctrlErrorMsg(code);
  return m;
}

void Looper::onMsgSockCb(void* self, int fd, unsigned int events) {
  static_cast<Looper*>(self)->onMsgSock(fd, events);
}

void Looper::dispatchQueueCb(void* self) { static_cast<Looper*>(self)->dispatchQueue(); }

void Looper::onMsgSock(int, unsigned int) {
  for (;;) {
    message m;
    if (!readMessage(m, 0, true)) return;
    const bool drain = isReply(m) && !isCtrl(m, nullptr);
    takeIncoming(m);
    // One request or control message per readiness event; replies are drained. What stays
    // buffered is dispatched before the loop sleeps.
    if (!drain) return;
  }
}

void Looper::takeIncoming(message& m) {
  unsigned int code;
  if (isCtrl(m, &code)) {
    handleControl(code);
  } else if (!filterMessage(m)) {
    dispatchMessage(m);
  }
}

void Looper::handleControl(unsigned int code) {
  if (code != ctrl::kLeaveRequest) return;
  if (!canLeave()) {
    sendCtrl(ctrl::kLeaveRefuse);
    return;
  }
  message data;
  savePermData(data);
  message agree = controlMessage(ctrl::kLeaveAgree);
  agree.insert(SYS_CTRL_ARG, 1);
  if (!data.empty() && data.max_length() > 2) agree.insert_message(ctrl::kPermData, data);
  sendNow(agree);
  leaving_ = true;
}

message Looper::controlMessage(unsigned int code) {
  message m;
  m.insert_vector(SYS_TO, ctrl::kLoaderId);
  m.insert(SYS_CTRL, code);
  return m;
}

void Looper::sendNow(message& m) {
  sendMessage(m);
  writeFlush(true);
}

void Looper::sendCtrl(unsigned int code) {
  message m = controlMessage(code);
  sendNow(m);
}

void Looper::sendCtrl(unsigned int code, unsigned int arg) {
  message m = controlMessage(code);
  m.insert(SYS_CTRL_ARG, arg);
  sendNow(m);
}

}  // namespace kl
