#include "tools/loader/loader.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <utility>

#include "kl/base/clock.h"
#include "kl/base/root.h"
#include "kl/looper/path.h"
#include "kl/message/dump.h"
#include "kl/message/system.h"
#include "tools/loader/flat_frame.h"

namespace kl {
namespace loader {

namespace {

constexpr unsigned int kCtrlLeaveRequest = 1;
constexpr unsigned int kCtrlLeaveAgree = 2;
constexpr unsigned int kCtrlLeaveRefuse = 3;
constexpr unsigned int kCtrlRegister = 5;
constexpr unsigned int kCtrlRunning = 6;
constexpr unsigned int kCtrlLeaveSetting = 7;
constexpr unsigned int kCtrlReady = 8;
constexpr uint32_t kRegistrationWords = 0x88000001;
constexpr uint32_t kPermDataField = 0x28000004;
constexpr uint32_t kReadyIdField = 0x08000001;

void makeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
  mkdir(path.c_str(), 0755);
}

std::string failureText(FrameFailure what, long result, int err) {
  switch (what) {
    case FrameFailure::kReadEof:
      return std::string();  // an ordinary departure
    case FrameFailure::kTooLarge:
      // The length prefix is unsigned 32-bit; `long` is 32 bits on the device.
      return "frame of " + std::to_string(static_cast<uint32_t>(result)) + " bytes is too large";
    case FrameFailure::kFlushEof:
    case FrameFailure::kRawEof:
      return "write failed: EOF";
    default:
      return std::string("connection failed: ") + strerror(err);
  }
}

}  // namespace

Loader::Conn::Conn(Loader* owner, int descriptor)
    : loader(owner),
      fd(descriptor),
      reader(descriptor, this, Loader::onFailure),
      writer(descriptor, this, Loader::onFailure) {
  reader.setMaxFrame(kMaxFrameBytes);
}

Loader::Loader(const Options& options) : options_(options) {}

Loader::~Loader() {
  if (listenFd_ >= 0) {
    close(listenFd_);
    unlink(socketPath_.c_str());
  }
  for (auto& entry : conns_) close(entry.second->fd);
}

// --- set-up ------------------------------------------------------------------------------

bool Loader::start() {
  socketPath_ = rootedPath("/ram/kelosock");
  makeDirs(rootedPath("/ram"));
  makeDirs(rootedPath("/kelo/run"));
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (socketPath_.size() >= sizeof addr.sun_path) {
    fprintf(stderr, "kl-loader: socket path %s is too long\n", socketPath_.c_str());
    return false;
  }
  memcpy(addr.sun_path, socketPath_.c_str(), socketPath_.size());
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  unlink(socketPath_.c_str());
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 64) != 0) {
    fprintf(stderr, "kl-loader: cannot listen on %s: %s\n", socketPath_.c_str(), strerror(errno));
    return false;
  }
  fcntl(listenFd_, F_SETFL, O_NONBLOCK);
  runner_.addSocket(listenFd_, this, onAcceptCb, POLLIN);
  runner_.addBeforeSleep(this, flushAllCb);
  runner_.addSighandler(SIGCHLD, this, onSignalCb, true);
  runner_.addSighandler(SIGINT, this, onSignalCb, true);
  runner_.addSighandler(SIGTERM, this, onSignalCb, true);
  if (options_.idleLeaveSeconds != 0) runner_.addTimer(this, onIdleTimerCb, 100);
  for (const std::vector<std::string>& command : options_.services) {
    if (!startService(command)) return false;
  }
  return true;
}

void Loader::run() {
  runner_.run();
  for (auto& entry : conns_) {
    if (entry.second->pid > 0 && !entry.second->command.empty()) {
      kill(entry.second->pid, SIGTERM);
    }
  }
  for (auto& started : startedPids_) kill(started.first, SIGTERM);
  while (waitpid(-1, nullptr, 0) > 0) {
  }
}

bool Loader::startService(const std::vector<std::string>& command) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    fprintf(stderr, "kl-loader: socketpair: %s\n", strerror(errno));
    return false;
  }
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) {
    fprintf(stderr, "kl-loader: fork: %s\n", strerror(errno));
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (pid == 0) {
    // The service's end of the connection on descriptor 3, as on the device.
    dup2(fds[1], 3);
    std::vector<char*> argv;
    for (const std::string& arg : command) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execvp(argv[0], argv.data());
    fprintf(stderr, "kl-loader: cannot start %s: %s\n", argv[0], strerror(errno));
    _exit(127);
  }
  close(fds[1]);
  Conn* conn = addConnection(fds[0], pid);
  conn->command = command;
  startedPids_[pid] = command;
  return true;
}

Loader::Conn* Loader::addConnection(int fd, pid_t pid) {
  fcntl(fd, F_SETFL, O_NONBLOCK);
  std::unique_ptr<Conn>& slot = conns_[fd];
  slot.reset(new Conn(this, fd));
  slot->pid = pid;
  slot->lastActivity = getJiffies();
  runner_.addSocket(fd, slot.get(), onConnCb, POLLIN);
  return slot.get();
}

// --- events --------------------------------------------------------------------------------

void Loader::onAcceptCb(void* self, int, unsigned int) { static_cast<Loader*>(self)->onAccept(); }

void Loader::onAccept() {
  for (;;) {
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    ucred cred{};
    socklen_t len = sizeof cred;
    getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len);
    addConnection(fd, cred.pid);
  }
}

void Loader::onConnCb(void* self, int, unsigned int events) {
  Conn* conn = static_cast<Conn*>(self);
  conn->loader->onConn(*conn, events);
}

void Loader::onConn(Conn& conn, unsigned int events) {
  if (events & POLLOUT) {
    if (conn.writer.flush(FrameWriter::kTry)) runner_.changeSocket(conn.fd, POLLIN);
  }
  if (events & (POLLIN | POLLHUP | POLLERR)) {
    const uint32_t now = getJiffies();
    const unsigned char* body;
    uint32_t length;
    while (!conn.dead && conn.reader.tryReadFrame(&body, &length)) {
      conn.lastActivity = now;
      if (conn.registered && !options_.trace && routeFlat(conn, body, length, now)) continue;
      message m;
      if (!m.unflatten(body, length, message::flatten_full)) {
        conn.dead = true;
        conn.failure = "malformed frame";
        break;
      }
      handleFrame(conn, m);
    }
  }
  reapDead();
}

void Loader::serveInput(Conn& conn) {
  onConn(conn, POLLIN);
  flushAll();
}

void Loader::onFailure(void* ctx, FrameFailure what, long result, int err) {
  Conn* conn = static_cast<Conn*>(ctx);
  conn->dead = true;
  if (conn->failure.empty()) conn->failure = failureText(what, result, err);
}

void Loader::flushAllCb(void* self) { static_cast<Loader*>(self)->flushAll(); }

void Loader::flushAll() {
  for (auto& entry : conns_) {
    Conn& conn = *entry.second;
    if (conn.dead || conn.writer.items() == 0) continue;
    if (!conn.writer.flush(FrameWriter::kTry)) {
      if (conn.writer.bytes() > kMaxQueuedBytes) {
        conn.dead = true;
        conn.failure = "stopped reading (" + std::to_string(conn.writer.bytes()) + " bytes queued)";
      } else {
        runner_.changeSocket(conn.fd, POLLIN | POLLOUT);
      }
    }
  }
  reapDead();
}

void Loader::onSignalCb(void* self, int sig) {
  Loader* loader = static_cast<Loader*>(self);
  if (sig == SIGCHLD) {
    loader->reapChildren();
  } else {
    loader->stopping_ = true;
    loader->runner_.stop();
  }
}

void Loader::reapChildren() {
  int status;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    startedPids_.erase(pid);
    if (stopping_) continue;
    if (WIFSIGNALED(status) && WTERMSIG(status) != SIGTERM) {
      fprintf(stderr, "kl-loader: process %d died with signal %d\n", static_cast<int>(pid),
              WTERMSIG(status));
    } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
      fprintf(stderr, "kl-loader: process %d exited with status %d\n", static_cast<int>(pid),
              WEXITSTATUS(status));
    }
  }
}

void Loader::onIdleTimerCb(void* self) {
  Loader* loader = static_cast<Loader*>(self);
  loader->checkIdle();
  loader->runner_.addTimer(self, onIdleTimerCb, 100);
}

// A service that offers to leave (a leave value) and has seen no traffic for the idle time
// is asked once; traffic resets the question.
void Loader::checkIdle() {
  const uint32_t now = getJiffies();
  const uint32_t idleTicks = options_.idleLeaveSeconds * 100;
  for (auto& entry : byId_) {
    Conn& conn = *entry.second;
    if (conn.leaveValue == 0 || conn.askedToLeave || conn.command.empty()) continue;
    if (now - conn.lastActivity < idleTicks) continue;
    conn.askedToLeave = true;
    askToLeave(conn);
  }
}

// Until the process answers, what arrives for it is held: a change it handled after saving
// its data for the next instance would be lost with it.
void Loader::askToLeave(Conn& conn) {
  message ask;
  ask.insert(SYS_CTRL, kCtrlLeaveRequest);
  deliver(conn, ask);
  conn.holding = true;
}

// --- frames ----------------------------------------------------------------------------------

void Loader::handleFrame(Conn& conn, message& m) {
  unsigned int code;
  const bool control = isCtrl(m, &code);
  if (!conn.registered) {
    if (!control || code != kCtrlRegister) {
      conn.dead = true;
      conn.failure = "first frame is not a registration";
      return;
    }
    registerProcess(conn, m);
    return;
  }
  conn.askedToLeave = false;
  if (control) {
    handleControl(conn, code, m);
    return;
  }
  route(conn, m);
}

void Loader::registerProcess(Conn& conn, const message& m) {
  const std::vector<unsigned int> words = m.get_u32_array(kRegistrationWords);
  if (words.size() != 12) {
    conn.dead = true;
    conn.failure = "registration without twelve words";
    return;
  }
  unsigned int id = words[0];
  if (id == 0) {
    while (byId_.count(nextTransient_) != 0 || nextTransient_ < kFirstTransientId) {
      ++nextTransient_;
    }
    id = nextTransient_++;
  } else if (id == kLoaderId || id == BADID || byId_.count(id) != 0) {
    conn.dead = true;
    conn.failure = "id " + std::to_string(id) + " is in use";
    return;
  }
  conn.id = id;
  conn.registered = true;
  byId_[id] = &conn;
  auto started = startedPids_.find(conn.pid);
  if (started != startedPids_.end()) conn.command = started->second;

  message ready;
  ready.insert(SYS_CTRL, kCtrlReady);
  ready.insert_u32(kReadyIdField, id);
  auto departed = departed_.find(id);
  if (departed != departed_.end()) {
    if (conn.command.empty()) conn.command = departed->second.command;
    if (departed->second.hasData) ready.insert_message(kPermDataField, departed->second.data);
  }
  deliver(conn, ready);
  if (options_.trace) printf("kl-loader: %s registered\n", describe(conn).c_str());
  if (departed != departed_.end()) {
    // The frames that waited for this instance go out behind CTRL_READY.
    for (const message& waiting : departed->second.waiting) deliver(conn, waiting);
    departed_.erase(departed);
  }
}

void Loader::handleControl(Conn& conn, unsigned int code, const message& m) {
  switch (code) {
    case kCtrlRunning:
      conn.running = true;
      break;
    case kCtrlLeaveSetting:
      conn.leaveValue = m.get(SYS_CTRL_ARG, 0);
      break;
    case kCtrlLeaveAgree: {
      Departed& departed = departed_[conn.id];
      departed.command = conn.command;
      if (const message::flat_message* data = m.get_message_ref(kPermDataField)) {
        departed.data = message(*data);
        departed.hasData = true;
      }
      if (options_.trace) printf("kl-loader: %s leaves\n", describe(conn).c_str());
      // The process has agreed; ending it is the loader's part. Frames for it stay held
      // until the connection closes, then wait for the next instance.
      if (conn.pid > 0) kill(conn.pid, SIGTERM);
      break;
    }
    case kCtrlLeaveRefuse:
      conn.holding = false;
      for (const message& held : conn.held) deliver(conn, held);
      conn.held.clear();
      break;
    default:
      break;  // 4 (announces leaving) needs nothing here
  }
}

// The fast path: a frame whose every destination is connected goes on as bytes, its path
// records rewritten. False leaves the frame, untouched, to the decoding path.
bool Loader::routeFlat(Conn& from, const unsigned char* body, uint32_t length, uint32_t now) {
  FlatFrame frame;
  if (!parseFlatFrame(body, length, &frame)) return false;
  if (frame.type == TYPE_REQUEST && options_.policies.count(from.id) != 0) return false;
  if (frame.from.size() >= 0xFFFF) return false;
  std::vector<unsigned int> to = frame.to;
  if (!to.empty() && to.front() == PATH_BOTH) to.erase(to.begin());
  std::vector<std::vector<unsigned int>> groups;
  if (!to.empty() && to.front() == PATH_MULTI) {
    size_t pos = 1;
    while (pos < to.size()) {
      const size_t count = to[pos];
      if (count == 0 || count > to.size() - pos - 1) break;
      const auto first = to.begin() + static_cast<ptrdiff_t>(pos) + 1;
      groups.emplace_back(first, first + static_cast<ptrdiff_t>(count));
      pos += 1 + count;
    }
  } else {
    groups.push_back(to);
  }
  std::vector<Conn*> targets;
  for (const std::vector<unsigned int>& group : groups) {
    if (group.empty() || group.front() == kLoaderId) return false;
    Conn* dest = byId(group.front());
    if (dest == nullptr || dest->holding) return false;
    targets.push_back(dest);
  }
  from.askedToLeave = false;
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
    if (dest.writer.queueFrame(std::move(out), frameLength) > 1023) {
      dest.writer.flush(FrameWriter::kTry);
    }
  }
  return true;
}

void Loader::route(Conn& from, message& m) {
  std::vector<unsigned int> to = m.get_u32_array(SYS_TO);
  // PATH_BOTH asks for the loader's side and the sender's own: the sender delivered its
  // copy itself, so the rest of the path is routed here.
  if (!to.empty() && to.front() == PATH_BOTH) to.erase(to.begin());
  if (!to.empty() && to.front() == PATH_MULTI) {
    size_t pos = 1;
    while (pos < to.size()) {
      const size_t count = to[pos];
      if (count == 0 || count > to.size() - pos - 1) break;
      const auto first = to.begin() + static_cast<ptrdiff_t>(pos) + 1;
      routeOne(from, m, std::vector<unsigned int>(first, first + static_cast<ptrdiff_t>(count)));
      if (from.dead) return;
      pos += 1 + count;
    }
    return;
  }
  routeOne(from, m, to);
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
    deliver(*dest, m);
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
      body.insert_message_array(STD_OBJS, list);
      break;
    }
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

void Loader::deliver(Conn& to, const message& m) {
  if (to.dead) return;
  if (to.writer.queue(m) > 1023) to.writer.flush(FrameWriter::kTry);
}

// --- departures -------------------------------------------------------------------------------

void Loader::reapDead() {
  for (auto it = conns_.begin(); it != conns_.end();) {
    Conn* conn = it->second.get();
    ++it;
    if (conn->dead) closeConn(conn, conn->failure);
  }
}

void Loader::closeConn(Conn* conn, const std::string& why) {
  if (!why.empty()) {
    fprintf(stderr, "kl-loader: %s: %s, connection closed\n", describe(*conn).c_str(), why.c_str());
  } else if (options_.trace) {
    printf("kl-loader: %s disconnected\n", describe(*conn).c_str());
  }
  runner_.removeSocket(conn->fd);
  close(conn->fd);
  const unsigned int id = conn->id;
  const bool registered = conn->registered;
  std::vector<message> held;
  held.swap(conn->held);
  if (registered) byId_.erase(id);
  conns_.erase(conn->fd);  // `conn` is gone from here on
  if (!registered) return;
  auto departed = departed_.find(id);
  // A process that agreed to leave will be back: nobody forgets it.
  if (departed == departed_.end()) {
    announceDeparture(id);
    return;
  }
  if (held.empty()) return;
  // What arrived while it was leaving goes to the next instance, started now.
  std::vector<message>& waiting = departed->second.waiting;
  waiting.insert(waiting.end(), held.begin(), held.end());
  if (!departed->second.restarting && !departed->second.command.empty()) {
    departed->second.restarting = true;
    startService(departed->second.command);
  }
}

void Loader::announceDeparture(unsigned int id) {
  message gone;
  gone.insert(SYS_CMD, CMD_DISCONNECTED);
  gone.insert(SYS_FROM, std::vector<unsigned int>{id});
  gone.insert(SYS_TO, std::vector<unsigned int>());
  for (auto& entry : byId_) deliver(*entry.second, gone);
}

Loader::Conn* Loader::byId(unsigned int id) {
  auto it = byId_.find(id);
  return it == byId_.end() || it->second->dead ? nullptr : it->second;
}

std::string Loader::describe(const Conn& conn) const {
  std::string text = conn.registered ? "id " + std::to_string(conn.id) : "unregistered connection";
  if (!conn.command.empty()) text += " (" + conn.command.front();
  if (conn.pid > 0) {
    text += conn.command.empty() ? " (pid " : ", pid ";
    text += std::to_string(conn.pid);
  }
  if (!conn.command.empty() || conn.pid > 0) text += ")";
  return text;
}

void Loader::trace(const char* what, const Conn& from, unsigned int to, const message& m) {
  if (!options_.trace) return;
  printf("kl-loader: %s %u -> %u\n", what, from.id, to);
  fflush(stdout);
  m.dump2(std::cout, "  ", 0);
}

}  // namespace loader
}  // namespace kl
