// kl-loader's routing: frames passed on as bytes (the fast path), decoded messages routed
// hop by hop, fan-out, broken paths and the loader's own commands on id 1.
#include <sys/time.h>

#include <cstdio>
#include <iostream>
#include <utility>

#include "kl/base/clock.h"
#include "kl/looper/path.h"
#include "kl/message/dump.h"
#include "kl/message/system.h"
#include "tools/loader/flat_frame.h"
#include "tools/loader/loader.h"

namespace kl {
namespace loader {

namespace {

// The destinations of a SYS_TO path, each a path of its own. PATH_BOTH asks for the
// loader's side and the sender's own: the sender delivered its copy itself, so the rest is
// routed here. PATH_MULTI is followed by groups of a count and that many elements; a group
// of count 0, or one that runs past the end, ends the list.
std::vector<std::vector<unsigned int>> destinations(std::vector<unsigned int> to) {
  if (!to.empty() && to.front() == PATH_BOTH) to.erase(to.begin());
  std::vector<std::vector<unsigned int>> groups;
  if (to.empty() || to.front() != PATH_MULTI) {
    groups.push_back(std::move(to));
    return groups;
  }
  size_t pos = 1;
  while (pos < to.size()) {
    const size_t count = to[pos];
    if (count == 0 || count > to.size() - pos - 1) break;
    const auto first = to.begin() + static_cast<ptrdiff_t>(pos) + 1;
    groups.emplace_back(first, first + static_cast<ptrdiff_t>(count));
    pos += 1 + count;
  }
  return groups;
}

}  // namespace

// The fast path: a frame whose every destination is connected goes on as bytes, its path
// records rewritten. False leaves the frame, untouched, to the decoding path.
bool Loader::routeFlat(Conn& from, const unsigned char* body, uint32_t length, uint32_t now) {
  FlatFrame frame;
  if (!parseFlatFrame(body, length, &frame)) return false;
  if (frame.type == TYPE_REQUEST && options_.policies.count(from.id) != 0) return false;
  if (frame.from.size() >= 0xFFFF) return false;
  const std::vector<std::vector<unsigned int>> groups = destinations(frame.to);
  std::vector<Conn*> targets;
  for (const std::vector<unsigned int>& group : groups) {
    if (group.empty() || group.front() == kLoaderId) return false;
    Conn* dest = byId(group.front());
    if (dest == nullptr || dest->holding) return false;
    targets.push_back(dest);
  }
  from.askedToLeave = false;
  if (frame.type == TYPE_REPLY && frame.hasRequestId) noteAnswered(from, frame.to, frame.requestId);
  std::vector<unsigned int> path = frame.from;
  path.insert(path.begin(), from.id);
  for (size_t i = 0; i < groups.size(); ++i) {
    Conn& dest = *targets[i];
    if (dest.dead) continue;
    const std::vector<unsigned int> rest(groups[i].begin() + 1, groups[i].end());
    uint32_t frameLength;
    std::unique_ptr<unsigned char[]> out = spliceFrame(frame, rest, path, &frameLength);
    dest.lastActivity = now;
    dest.askedToLeave = false;
    copyToMonitors(from.id, dest, out.get(), frameLength);
    deliverFrame(dest, std::move(out), frameLength);
    if (frame.type == TYPE_REQUEST && frame.replyExpected && frame.hasRequestId && !dest.dead) {
      notePending(dest, path, frame.requestId);
    }
    if (frame.type != TYPE_REPLY && !dest.dead) waitForReceiver(from, dest);
  }
  return true;
}

void Loader::route(Conn& from, message& m) {
  unsigned int requestId;
  if (isReply(m) && getRequestID(m, &requestId)) {
    noteAnswered(from, m.get_u32_array(SYS_TO), requestId);
  }
  for (const std::vector<unsigned int>& group : destinations(m.get_u32_array(SYS_TO))) {
    routeOne(from, m, group);
    if (from.dead) return;
  }
}

void Loader::routeOne(Conn& from, message m, std::vector<unsigned int> to) {
  if (to.empty() || to.front() == kLoaderId) {
    loaderCommand(from, m);
    return;
  }
  const unsigned int target = to.front();
  to.erase(to.begin());
  m.insert(SYS_TO, to);
  pushPathFront(m, SYS_FROM, from.id);
  if (isRequest(m)) {
    auto policy = options_.policies.find(from.id);
    if (policy != options_.policies.end()) m.insert(SYS_POLICY, policy->second);
  }
  Conn* dest = byId(target);
  if (dest != nullptr && dest->holding) {
    trace("hold", from, target, m);
    dest->held.push_back(m);
    return;
  }
  if (dest != nullptr) {
    trace("route", from, target, m);
    dest->lastActivity = getJiffies();
    dest->askedToLeave = false;
    deliver(*dest, m, from.id);
    unsigned int requestId;
    if (isRequest(m) && isReplyExpected(m) && getRequestID(m, &requestId) && !dest->dead) {
      notePending(*dest, m.get_u32_array(SYS_FROM), requestId);
    }
    if (getType(m) != TYPE_REPLY && !dest->dead) waitForReceiver(from, *dest);
    return;
  }
  auto departed = departed_.find(target);
  if (departed != departed_.end() && !departed->second.command.empty()) {
    trace("hold", from, target, m);
    departed->second.waiting.push_back(m);
    if (!departed->second.restarting) {
      departed->second.restarting = true;
      startService(departed->second.command);
    }
    return;
  }
  popPathFront(m, SYS_FROM);
  to.insert(to.begin(), target);
  answerBrokenPath(from, m, to);
}

void Loader::answerBrokenPath(Conn& from, const message& m, const std::vector<unsigned int>& rest) {
  unsigned int code;
  if (isError(m, &code, nullptr) && code == ERROR_BRKPATH) return;
  trace("broken path", from, rest.empty() ? 0 : rest.front(), m);
  if (isReplyExpected(m)) {
    message error = errorMsg(ERROR_BRKPATH, "");
    reply(from, m, error);
    return;
  }
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_FROM, rest);
  notice.insert(SYS_TO, m.get_u32_array(SYS_FROM));
  deliver(from, notice);
}

void Loader::reply(Conn& to, const message& request, message& body) {
  unsigned int requestId;
  if (!getRequestID(request, &requestId)) return;
  setRequestID(body, requestId);
  setType(body, TYPE_REPLY);
  body.insert(SYS_TO, request.get_u32_array(SYS_FROM));
  body.insert(SYS_FROM, std::vector<unsigned int>{kLoaderId});
  deliver(to, body);
}

void Loader::loaderCommand(Conn& from, const message& m) {
  trace("loader", from, kLoaderId, m);
  message body;
  switch (m.get(SYS_CMD, CMD_NOOP)) {
    case CMD_NOOP:
      break;
    case CMD_GETALL: {
      std::vector<message::flat_message> list;
      for (auto& entry : byId_) {
        const Conn& conn = *entry.second;
        message proc;
        proc.insert(STD_ID, conn.id);
        proc.insert_string(STD_DESCR, conn.command.empty() ? "" : conn.command.front());
        proc.insert_u32(kProcPid, static_cast<unsigned int>(conn.pid));
        proc.insert_string(kProcState, conn.running ? "running" : "registered");
        proc.insert_u32(kProcLeaveValue, conn.leaveValue);
        list.emplace_back(proc);
      }
      for (auto& entry : departed_) {
        message proc;
        proc.insert(STD_ID, entry.first);
        proc.insert_string(STD_DESCR,
                           entry.second.command.empty() ? "" : entry.second.command.front());
        proc.insert_string(kProcState, "left");
        list.emplace_back(proc);
      }
      for (const Ended& ended : ended_) {
        message proc;
        proc.insert(STD_ID, ended.id);
        proc.insert_string(STD_DESCR, ended.program);
        proc.insert_u32(kProcPid, static_cast<unsigned int>(ended.pid));
        proc.insert_string(kProcState, ended.how);
        list.emplace_back(proc);
      }
      body.insert_message_array(STD_OBJS, list);
      break;
    }
    case kLoaderCmdMonitor:
      if (!from.monitor) ++monitors_;
      from.monitor = true;
      from.monitorPath = m.get_u32_array(SYS_FROM);
      break;
    case kLoaderCmdLeave: {
      Conn* target = byId(m.get(STD_ID, BADID));
      if (target == nullptr) {
        body = errorMsg(ERROR_UNKNOWNID, "");
        break;
      }
      askToLeave(*target);
      break;
    }
    default:
      body = errorMsg(ERROR_NOTIMP, "");
      break;
  }
  reply(from, m, body);
}

void Loader::deliver(Conn& to, const message& m, unsigned int from) {
  if (to.dead) return;
  uint32_t length;
  std::unique_ptr<unsigned char[]> frame = makeFrame(m, &length);
  copyToMonitors(from, to, frame.get(), length);
  deliverFrame(to, std::move(frame), length);
}

void Loader::copyToMonitors(unsigned int from, const Conn& to, const unsigned char* frame,
                            uint32_t length) {
  if (monitors_ == 0 || to.monitor) return;
  const Conn* sender = byId(from);
  if (sender != nullptr && sender->monitor) return;
  timeval now;
  gettimeofday(&now, nullptr);
  const uint32_t bodyLength = length - kFramePrefixBytes;
  const uint32_t kept = bodyLength < kMaxMonitorCopy ? bodyLength : kMaxMonitorCopy;
  message copy;
  copy.insert(SYS_CMD, kLoaderCmdMonitor);
  copy.insert(SYS_FROM, std::vector<unsigned int>{kLoaderId});
  copy.insert_u32(kMonSeconds, static_cast<uint32_t>(now.tv_sec));
  copy.insert_u32(kMonMicros, static_cast<uint32_t>(now.tv_usec));
  copy.insert_u32(kMonFrom, from);
  copy.insert_u32(kMonTo, to.id);
  copy.insert_raw(kMonFrame, std::vector<unsigned char>(frame + kFramePrefixBytes,
                                                        frame + kFramePrefixBytes + kept));
  if (kept < bodyLength) copy.insert_u32(kMonLength, bodyLength);
  for (auto& entry : conns_) {
    Conn& monitor = *entry.second;
    if (!monitor.monitor || monitor.dead) continue;
    copy.insert(SYS_TO, monitor.monitorPath);
    uint32_t copyLength;
    std::unique_ptr<unsigned char[]> out = makeFrame(copy, &copyLength);
    deliverFrame(monitor, std::move(out), copyLength);
    if (!monitor.dead && monitor.writer.bytes() > kMaxMonitorQueuedBytes) {
      cutOff(monitor, "monitor stopped reading (" + std::to_string(monitor.writer.bytes()) +
                          " bytes queued)");
    }
  }
}

// Small frames wait for the flush before the loop sleeps, as in the Looper. A queue past the
// cap, or the largest one when all together pass theirs, is cut off here and now.
void Loader::deliverFrame(Conn& to, std::unique_ptr<unsigned char[]> frame, uint32_t length) {
  if (to.dead) return;
  if (to.writer.items() == 0) to.lastDrain = getJiffies();  // a stall counts from here
  queuedTotal_ += length;
  if (to.writer.queueFrame(std::move(frame), length) > 1023) flushConn(to);
  if (to.writer.bytes() > options_.maxQueuedBytes) {
    cutOff(to, "stopped reading (" + std::to_string(to.writer.bytes()) + " bytes queued)");
  }
  while (queuedTotal_ > options_.maxTotalQueuedBytes) {
    Conn* largest = nullptr;
    for (auto& entry : conns_) {
      Conn& conn = *entry.second;
      if (!conn.dead && (largest == nullptr || conn.writer.bytes() > largest->writer.bytes())) {
        largest = &conn;
      }
    }
    if (largest == nullptr || largest->writer.bytes() == 0) break;
    cutOff(*largest, "stopped reading (" + std::to_string(largest->writer.bytes()) +
                         " bytes queued, " + std::to_string(queuedTotal_) + " for all)");
  }
}

}  // namespace loader
}  // namespace kl
