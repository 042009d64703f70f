// kl::Handler: outgoing messages, requests and the delivery of their replies.
#include "kl/looper/handler.h"
#include "kl/looper/looper.h"
#include "kl/looper/path.h"

namespace kl {

void Handler::sendMessage(message& m) {
  pushPathFront(m, SYS_FROM, id_);
  getLooper()->sendMessage(m);
}

message Handler::exchangeMessage(message& m, int timeout) {
  pushPathFront(m, SYS_FROM, id_);
  return getLooper()->exchangeMessage(m, timeout);
}

void Handler::sendCmd(message& m, unsigned int cmd) {
  m.insert(SYS_CMD, cmd);
  sendMessage(m);
}

message Handler::exchangeCmd(message& m, unsigned int cmd, unsigned int timeout) {
  m.insert(SYS_CMD, cmd);
  return exchangeMessage(m, static_cast<int>(timeout));
}

unsigned int takeRequestId(unsigned int* counter) {
  if (*counter == 0xFFFFFFFFu) *counter = 0;
  return (*counter)++;
}

void Handler::requestMessage(message& m, unsigned int* id) {
  const unsigned int taken = takeRequestId(&nextRequestId_);
  if (id != nullptr) *id = taken;
  setType(m, TYPE_REQUEST);
  setRequestID(m, taken);
  m.insert_bool(SYS_REPLYEXP, true);
  sendMessage(m);
}

unsigned int Handler::postMessage(message& m, void* context, ReplyCallback callback,
                                  const message& extra, unsigned int timeout) {
  unsigned int id;
  requestMessage(m, &id);
  auto old = replyHandlers_.find(id);
  if (old != replyHandlers_.end()) {
    // The counter came round while this one still waited: it is finished as timed out.
    ReplyHandler superseded = old->second;
    replyHandlers_.erase(old);
    if (superseded.timer) removeTimer(superseded.timer);
    superseded.callback(superseded.context, errorMsg(ERROR_TIMEOUT, ""), superseded.extra);
  }
  ReplyHandler& entry = replyHandlers_[id];
  entry = ReplyHandler{id, this, context, callback, extra, TimerPtr()};
  if (timeout != 0xFFFFFFFFu) {
    entry.timer = getRunner()->addTimer(&entry, &ReplyHandler::onTimer, timeout);
  }
  return id;
}

void Handler::handleReply(const message& r) {
  unsigned int id;
  if (!getRequestID(r, &id)) return;
  auto it = replyHandlers_.find(id);
  if (it == replyHandlers_.end()) return;  // late, cancelled or never ours
  const ReplyHandler entry = it->second;
  replyHandlers_.erase(it);
  if (entry.timer) removeTimer(entry.timer);
  entry.callback(entry.context, r, entry.extra);
}

void Handler::replyTimeout(unsigned int id) {
  auto it = replyHandlers_.find(id);
  if (it == replyHandlers_.end()) return;
  const ReplyHandler entry = it->second;
  replyHandlers_.erase(it);
  // Set only when the service delivers the time-out itself, before the timer fired.
  if (entry.timer) removeTimer(entry.timer);
  message error = errorMsg(ERROR_TIMEOUT, "");
  setRequestID(error, id);
  entry.callback(entry.context, error, entry.extra);
}

void Handler::ReplyHandler::timeout() {
  timer = TimerPtr();  // the runner frees a timer that fired
  handler->replyTimeout(id);
}

void Handler::cancelPost(unsigned int id) {
  auto it = replyHandlers_.find(id);
  if (it == replyHandlers_.end()) return;
  if (it->second.timer) removeTimer(it->second.timer);
  replyHandlers_.erase(it);
}

}  // namespace kl
