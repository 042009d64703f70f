// kl::Looper: sending and routing, the local queue, exchangeMessage, the handler registry,
// the time-zone cache, run(), the leave protocol and persistent data.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "kl/base/clock.h"
#include "kl/base/root.h"
#include "kl/looper/control.h"
#include "kl/looper/looper.h"
#include "kl/looper/path.h"
#include "kl/message/dump.h"
#include "kl/runner/crash_report.h"

namespace kl {

namespace {

constexpr unsigned int kLocalQueueLimit = 100;

constexpr unsigned int kTimeService = 24;
constexpr unsigned int kCmdTimezone = 0x60001;
constexpr uint32_t kTimezoneField = 0x0800001b;  // u32 field 27
constexpr int kTimezoneTimeoutTicks = 6000;      // 60 seconds

constexpr uint32_t kPermHandlerIds = 0x88000002;   // u32 array field 2
constexpr uint32_t kPermHandlerData = 0xa8000003;  // message array field 3

const char kDispatchLabel[] = "virtual void kl::Looper::dispatchMessage(kl::message&)";

}  // namespace

// --- sending ---------------------------------------------------------------------------------

void Looper::sendMessage(message& m) {
  ensurePath(m, SYS_FROM);
  const std::vector<unsigned int>* to = std::as_const(m).get_u32_array_ref(SYS_TO);
  if (to == nullptr || to->empty()) {
    queueMessage(m);
    return;
  }
  switch (to->front()) {
    case PATH_LOCAL:
      deliverLocally(m);
      break;
    case PATH_BOTH:
      writeMessage(m);
      deliverLocally(m);
      break;
    case PATH_MULTI:
      sendMulti(m, *to);
      break;
    default:
      writeMessage(m);
      break;
  }
}

// The reply path of a locally delivered message leads back into this process.
void Looper::deliverLocally(message& m) {
  popPathFront(m, SYS_TO);
  pushPathFront(m, SYS_FROM, PATH_LOCAL);
  queueMessage(m);
}

// PATH_MULTI, then groups of a count n and n path elements. Local groups are cut out and
// delivered here; the rest leave in one frame. A malformed group ends the scan: nothing
// after it is sent.
void Looper::sendMulti(message& m, std::vector<unsigned int> to) {
  size_t pos = 1;
  while (pos < to.size()) {
    const size_t count = to[pos];
    if (count == 0 || count > to.size() - pos - 1) return;
    const auto first = to.begin() + static_cast<ptrdiff_t>(pos);
    if (to[pos + 1] != PATH_LOCAL) {
      pos += 1 + count;
      continue;
    }
    message local = m;
    local.insert(SYS_TO, std::vector<unsigned int>(first + 1, first + 1 + count));
    sendMessage(local);
    to.erase(first, first + 1 + static_cast<ptrdiff_t>(count));
  }
  if (to.size() == 1) return;  // only the marker is left
  m.insert(SYS_TO, to);
  writeMessage(m);
}

bool Looper::popLocal(message* m) {
  if (localQueue_.empty()) return false;
  *m = localQueue_.front();
  localQueue_.pop_front();
  --localQueueLength_;
  return true;
}

bool Looper::queueMessage(const message& m) {
  if (filterMessage(m)) return true;
  if (localQueueLength_ >= kLocalQueueLimit) {
    fprintf(stderr, "full queue, spilled message:\n");
    printDump(m, stdout);
    return false;
  }
  localQueue_.push_back(m);
  ++localQueueLength_;
  return true;
}

// --- receiving and routing --------------------------------------------------------------------

void Looper::dispatchQueue() {
  for (;;) {
    message m;
    if (popLocal(&m)) {
      dispatchMessage(m);  // local messages passed filterMessage when they were queued
      continue;
    }
    if (!readMessage(m, 0, false)) break;
    takeIncoming(m);
  }
  writeFlush(true);
}

bool Looper::filterMessage(const message&) { return false; }

void Looper::dispatchMessage(message& m) {
  MessageBacktraceInfo backtrace(kDispatchLabel, &m);
  const std::vector<unsigned int>* to = std::as_const(m).get_u32_array_ref(SYS_TO);
  if (to == nullptr || to->empty()) {
    handle(m);
    return;
  }
  auto it = handlers_.find(to->front());
  if (it == handlers_.end()) {
    if (!leaf()) {
      handle(m);
    } else {
      answerBrokenPath(this, m);
    }
    return;
  }
  Handler* h = it->second;
  popPathFront(m, SYS_TO);
  if (std::as_const(m).get_u32_array_ref(SYS_TO)->empty() || !h->leaf()) {
    h->handle(m);
  } else {
    answerBrokenPath(h, m);
  }
}

void Looper::answerBrokenPath(Handler* h, message& m) {
  unsigned int code;
  if (isError(m, &code, nullptr) && code == ERROR_BRKPATH) return;  // no answer to an answer
  if (isReplyExpected(m)) {
    h->replyError(m, ERROR_BRKPATH, "");
  } else {
    h->sendBrkpath(m);
  }
}

message Looper::exchangeMessage(message& m, int timeout) {
  const std::vector<unsigned int>* to = std::as_const(m).get_u32_array_ref(SYS_TO);
  if (to == nullptr || to->empty()) return errorMsg(ERROR_FAILED, "bad_message");
  ensurePath(m, SYS_FROM);
  unsigned int id;
  requestMessage(m, &id);
  writeFlush(true);
  const std::vector<unsigned int> replyPath = m.get_u32_array(SYS_FROM);
  uint32_t last = getJiffies();
  bool spilled = false;
  for (;;) {
    message r;
    if (readMessage(r, timeout, true)) {
      unsigned int code, replyId;
      if (isCtrl(r, &code)) {
        if (code == ctrl::kLeaveRequest)
          sendCtrl(ctrl::kLeaveRefuse);  // no leaving in the middle of an exchange
      } else if (isReply(r) && getRequestID(r, &replyId) && replyId == id &&
                 r.get_u32_array(SYS_TO) == replyPath) {
        return r;
      } else if (!queueMessage(r) && !spilled) {
        spilled = true;
        fprintf(stderr, "exchangeMessage: queue spill  during exchange of:\n");
        printDump(m, stdout);
      }
    }
    const uint32_t now = getJiffies();
    if (timeout > 0) {
      timeout -= static_cast<int>(now - last);
      if (timeout <= 0) break;
    }
    last = now;
  }
  return errorMsg(ERROR_TIMEOUT, "");
}

// --- handlers ------------------------------------------------------------------------------------

bool Looper::addHandler(unsigned int id, Handler* h) {
  if (!handlers_.emplace(id, h).second) return false;
  h->setId(id);
  auto data = handlerData_.find(id);
  if (data != handlerData_.end()) {
    h->loadPermData(data->second);
    handlerData_.erase(data);
    h->notifySubscriptions();
  }
  return true;
}

bool Looper::removeHandler(unsigned int id) { return handlers_.erase(id) != 0; }

void Looper::ensure(unsigned int id) {
  message m;
  m.insert_vector(SYS_TO, id);
  m.insert(SYS_CMD, CMD_NOOP);
  exchangeMessage(m, -1);
}

void Looper::handleCmd(const message& m, unsigned int cmd) {
  if (cmd == kCmdTimezone) {
    timezone_ = static_cast<int>(m.get_u32(kTimezoneField, 0));
    return;
  }
  Handler::handleCmd(m, cmd);
}

void Looper::cmdDisconnected(const message& m) {
  Handler::cmdDisconnected(m);
  for (auto& entry : handlers_) entry.second->cmdDisconnected(m);
}

int Looper::getTimezone() {
  if (timezone_ == -1) {
    subscribe({kTimeService, 0}, kCmdTimezone, message());
    message request;
    request.insert(SYS_CMD, CMD_GET);
    request.insert(SYS_TO, {kTimeService, 0});
    const message reply = exchangeMessage(request, kTimezoneTimeoutTicks);
    timezone_ = 0;
    if (!isError(reply, nullptr, nullptr)) {
      timezone_ = static_cast<int>(reply.get_u32(kTimezoneField, 0));
    }
  }
  return timezone_;
}

unsigned int Looper::getLocaltime() {
  return static_cast<unsigned int>(time(nullptr)) + static_cast<unsigned int>(getTimezone());
}

// --- running and stopping
// --------------------------------------------------------------------------

namespace {

// The part after the last '/' of the first word of this process's command line; empty when
// it cannot be read.
std::string programName() {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/cmdline", static_cast<int>(getpid()));
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return std::string();
  char buf[80];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof buf - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return std::string();
  buf[n] = '\0';
  const char* slash = strrchr(buf, '/');
  return std::string(slash != nullptr ? slash + 1 : buf);
}

}  // namespace

void Looper::onInit() {}

void Looper::run() {
  // The marker lives in a directory that a reboot empties: onInit runs once per boot of
  // the system, not once per start of the process.
  const std::string marker = rootedPath(("/kelo/run/" + programName()).c_str());
  struct stat st;
  if (stat(marker.c_str(), &st) != 0) {
    onInit();
    const int fd = creat(marker.c_str(), 0600);
    if (fd >= 0) close(fd);
  }
  sendCtrl(ctrl::kRunning);
  notifySubscriptions();
  unblockLeave();
  ThinRunner::run();
}

void Looper::shutdown() {
  Runner::shutdown();
  stop_ = true;
  shutDown_ = true;
  if (socket_ >= 0) {
    // The connection itself stays open while the process ends; only the member lets go.
    socket_ = -1;
    close(socket_);
  }
}

// --- leaving
// -----------------------------------------------------------------------------------------

void Looper::setupLeave(unsigned int value) {
  if (value == leaveValue_) return;
  leaveValue_ = value;
  if (leaveBlocks_ == 0) sendCtrl(ctrl::kLeaveSetting, value);
}

void Looper::blockLeave() {
  if (leaveBlocks_++ == 0 && leaveValue_ != 0) sendCtrl(ctrl::kLeaveSetting, 0);
}

void Looper::unblockLeave() {
  if (leaveBlocks_ == 0) return;  // unbalanced: nothing is blocking
  if (--leaveBlocks_ == 0 && leaveValue_ != 0) sendCtrl(ctrl::kLeaveSetting, leaveValue_);
}

bool Looper::canLeave() { return leaveValue_ != 0 && leaveBlocks_ == 0; }

void Looper::tellLeave() { sendCtrl(ctrl::kTellLeave); }

// --- persistent data
// ------------------------------------------------------------------------------

void Looper::savePermData(message& data) {
  Handler::savePermData(data);
  std::vector<unsigned int> ids;
  std::vector<message::flat_message> contributions;
  for (auto& entry : handlers_) {
    message part;
    entry.second->savePermData(part);
    if (part.empty() || part.max_length() <= 2) continue;
    ids.push_back(entry.first);
    contributions.emplace_back(part);
  }
  if (ids.empty()) {
    data.remove_array(kPermHandlerIds);
    data.remove_array(kPermHandlerData);
    return;
  }
  data.insert_u32_array(kPermHandlerIds, ids);
  data.insert_message_array(kPermHandlerData, contributions);
}

void Looper::loadPermData(const message& data) {
  Handler::loadPermData(data);
  const std::vector<unsigned int> ids = data.get_u32_array(kPermHandlerIds);
  const std::vector<message::flat_message> parts = data.get_message_array(kPermHandlerData);
  for (size_t i = 0; i < ids.size() && i < parts.size(); ++i) {
    handlerData_.emplace(ids[i], message(parts[i]));  // the first entry for an id wins
  }
}

}  // namespace kl
