// kl::Handler: command dispatch and replies. Requests are in handler_requests.cc,
// subscriptions, persistent data and undo records in handler_notify.cc.
#include "kl/looper/handler.h"

#include "kl/looper/looper.h"

namespace kl {

namespace {

message notImplemented() { return errorMsg(ERROR_NOTIMP, ""); }

}  // namespace

Handler::Handler() = default;

Handler::~Handler() {
  // The runner goes before the Looper's own Handler part, and a shut-down runner has freed
  // every timer already: then there is nothing to remove.
  if (getLooper() == nullptr || getRunner() == nullptr || getLooper()->isShutDown()) return;
  for (auto& entry : replyHandlers_) {
    if (entry.second.timer) removeTimer(entry.second.timer);
  }
  if (changeTimer_) removeTimer(changeTimer_);
}

void Handler::handle(const message& m) {
  if (isReply(m)) {
    handleReply(m);
    return;
  }
  unsigned int code;
  if (!m.has(SYS_CMD) && isError(m, &code, nullptr)) {
    if (code == ERROR_BRKPATH) handleBrkpath(m);
    return;  // any other stray error is dropped
  }
  const unsigned int cmd = m.get(SYS_CMD, CMD_NOOP);
  // Anyone may learn what a command requires, so this comes before the check.
  if (cmd == CMD_GETPOLICIES) {
    replyMessage(m, cmdGetPolicies(m));
    return;
  }
  if (!checkPolicy(m)) {
    replyError(m, ERROR_NOTALLOWED, "");
    return;
  }
  handleCmd(m, cmd);
}

void Handler::handleBrkpath(const message&) {}

void Handler::handleCmd(const message& m, unsigned int cmd) {
  const unsigned int* objectId = m.get_u32_ref(STD_ID);
  message result;
  switch (cmd) {
    case CMD_NOOP:
      break;
    case CMD_GETOBJ:
    case CMD_SETOBJ:
    case CMD_REMOVEOBJ:
    case CMD_MOVEOBJ:
      if (objectId == nullptr) {
        result = errorMsg(ERROR_UNKNOWNID, "");
      } else if (cmd == CMD_GETOBJ) {
        result = cmdGetObj(m, *objectId);
      } else if (cmd == CMD_SETOBJ) {
        result = cmdSetObj(m, *objectId);
      } else if (cmd == CMD_REMOVEOBJ) {
        result = cmdRemoveObj(m, *objectId);
      } else {
        result = cmdMoveObj(m, *objectId);
      }
      break;
    case CMD_GETALL: {
      result = cmdGetAll(m, m.get(STD_GETALLID, 0xFFFFFFFFu), m.get(STD_GETALLNO, 0));
      const unsigned int count = getObjectCount();
      if (count != 0xFFFFFFFFu) result.insert(STD_OBJ_COUNT, count);
      break;
    }
    case CMD_ADDOBJ:
      result = cmdAddObj(m);
      break;
    case CMD_GET:
      result = cmdGet(m);
      break;
    case CMD_SET:
      result = cmdSet(m);
      break;
    case CMD_RESET:
      result = cmdReset(m);
      break;
    case CMD_GETCOUNT:
      result = cmdGetCount(m);
      break;
    case CMD_SHUTDOWN:
      cmdShutdown(m);
      break;
    case CMD_SUBSCRIBE:
      cmdSubscribe(m);
      break;
    case CMD_UNSUBSCRIBE:
      cmdUnsubscribe(m);
      break;
    case CMD_DISCONNECTED:
      cmdDisconnected(m);
      break;
    default:
      result = cmdUnknown(m, cmd);
      break;
  }
  replyMessage(m, result);
}

message Handler::cmdGetPolicies(const message& m) { return policies_.get_policies(m); }
message Handler::cmdGet(const message&) { return notImplemented(); }
message Handler::cmdSet(const message&) { return notImplemented(); }
message Handler::cmdReset(const message&) { return notImplemented(); }
message Handler::cmdGetObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdSetObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdGetAll(const message&, unsigned int, unsigned int) { return notImplemented(); }
message Handler::cmdAddObj(const message&) { return notImplemented(); }
message Handler::cmdRemoveObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdMoveObj(const message&, unsigned int) { return notImplemented(); }
message Handler::cmdGetCount(const message&) { return notImplemented(); }
message Handler::cmdUnknown(const message&, unsigned int) { return notImplemented(); }
void Handler::cmdShutdown(const message&) {}
message Handler::getObject(unsigned int) { return message(); }
unsigned int Handler::getObjectCount() { return 0xFFFFFFFFu; }
bool Handler::checkPolicy(const message& m) { return policies_.is_allowed(m); }

void Handler::replyMessage(const message& request, message& reply) {
  unsigned int requestId;
  if (!getRequestID(request, &requestId)) return;  // only requests get replies
  setRequestID(reply, requestId);
  setType(reply, TYPE_REPLY);
  if (const std::vector<unsigned int>* from = request.get_u32_array_ref(SYS_FROM)) {
    reply.insert(SYS_TO, *from);
  }
  sendMessage(reply);
}

void Handler::replyError(const message& request, unsigned int code, const std::string& text) {
  replyMessage(request, errorMsg(code, text));
}

void Handler::sendBrkpath(const message& m) {
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_FROM, m.get_u32_array(SYS_TO));
  notice.insert(SYS_TO, m.get_u32_array(SYS_FROM));
  sendMessage(notice);
}

}  // namespace kl
