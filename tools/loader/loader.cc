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
#include <set>
#include <utility>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "kl/base/clock.h"
#include "kl/base/endian.h"
#include "kl/base/root.h"
#include "kl/looper/control.h"
#include "kl/looper/path.h"
#include "kl/message/dump.h"
#include "kl/message/system.h"

namespace kl {
namespace loader {

namespace {

void makeDirs(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0755);
  }
  mkdir(path.c_str(), 0755);
}

std::string failureText(FrameFailure what, long result, int err) {
  // A process that ends with frames for it unread (a monitor stopped with Ctrl-C while
  // the traffic goes on) resets its connection: that too is an ordinary departure.
  if (what != FrameFailure::kTooLarge && (err == ECONNRESET || err == EPIPE)) return std::string();
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

bool splitCommandLine(const std::string& line, std::vector<std::string>* words) {
  words->clear();
  std::string word;
  bool inWord = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) words->push_back(word);
      word.clear();
      inWord = false;
      continue;
    }
    inWord = true;
    if (c == '\\') {
      if (++i == line.size()) return false;
      word += line[i];
    } else if (c == '\'') {
      const size_t end = line.find('\'', i + 1);
      if (end == std::string::npos) return false;
      word += line.substr(i + 1, end - i - 1);
      i = end;
    } else if (c == '"') {
      for (++i;; ++i) {
        if (i == line.size()) return false;
        if (line[i] == '"') break;
        if (line[i] == '\\' && i + 1 < line.size() && (line[i + 1] == '"' || line[i + 1] == '\\')) {
          ++i;
        }
        word += line[i];
      }
    } else {
      word += c;
    }
  }
  if (inWord) words->push_back(word);
  return true;
}

Loader::Conn::Conn(Loader* owner, int descriptor)
    : loader(owner),
      fd(descriptor),
      reader(descriptor, this, Loader::onFailure),
      writer(descriptor, this, Loader::onFailure) {
  reader.setMaxFrame(kMaxFrameBytes);
}

Loader::Loader(const Options& options) : options_(options), runner_(this) {}

Loader::~Loader() {
  if (listenFd_ >= 0) {
    close(listenFd_);
    unlink(socketPath_.c_str());
  }
  for (auto& entry : conns_) close(entry.second->fd);
  for (auto& entry : outputs_) close(entry.first);
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
  // A socket that accepts belongs to a loader that runs: replacing it would leave that one
  // and its services unreachable. One that refuses was left by a loader that died.
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool taken =
      probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  if (probe >= 0) close(probe);
  if (taken) {
    fprintf(stderr, "kl-loader: another kl-loader listens on %s\n", socketPath_.c_str());
    return false;
  }
  listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  unlink(socketPath_.c_str());
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 64) != 0) {
    fprintf(stderr, "kl-loader: cannot listen on %s: %s\n", socketPath_.c_str(), strerror(errno));
    return false;
  }
  fcntl(listenFd_, F_SETFL, O_NONBLOCK);
  runner_.addSocket(listenFd_, this, onAcceptCb, POLLIN);
  runner_.addBeforeSleep(this, beforeSleepCb);
  runner_.addSighandler(SIGCHLD, this, onSignalCb, true);
  runner_.addSighandler(SIGINT, this, onSignalCb, true);
  runner_.addSighandler(SIGTERM, this, onSignalCb, true);
  if (options_.idleLeaveSeconds != 0) runner_.addTimer(this, onIdleTimerCb, 100);
  runner_.addTimer(this, onRegisterWatchCb, 100);
  for (const std::vector<std::string>& command : options_.services) {
    if (!startService(command)) return false;
  }
  return true;
}

void Loader::run() {
  runner_.run();
  stopChildren();
}

// SIGTERM to every started service (with SIGCONT, for one that is stopped), SIGKILL to those
// still there after the grace period: the loader ends in time whatever its children do.
void Loader::onOutputCb(void* self, int fd, unsigned int) {
  static_cast<Loader*>(self)->relayOutput(fd);
}

void Loader::relayOutput(int fd) {
  auto it = outputs_.find(fd);
  if (it == outputs_.end()) return;
  Output& out = it->second;
  char buf[4096];
  const ssize_t n = read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n > 0) {
    out.partial.append(buf, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t end; (end = out.partial.find('\n', start)) != std::string::npos; start = end + 1) {
      writeOutputLine(out, out.partial.data() + start, end - start);
    }
    out.partial.erase(0, start);
    return;
  }
  // The end: what is left is a line of its own.
  if (!out.partial.empty()) writeOutputLine(out, out.partial.data(), out.partial.size());
  runner_.removeSocket(fd);
  close(fd);
  outputs_.erase(it);
}

void Loader::writeOutputLine(const Output& out, const char* text, size_t length) {
  std::string label = "[pid " + std::to_string(out.pid) + "] ";
  for (auto& entry : conns_) {
    if (entry.second->pid == out.pid && entry.second->registered) {
      label = "[" + std::to_string(entry.second->id) + "] ";
      break;
    }
  }
  fprintf(out.to, "%s%.*s\n", label.c_str(), static_cast<int>(length), text);
  fflush(out.to);
}

void Loader::stopChildren() {
  std::set<pid_t> children;
  for (auto& entry : conns_) {
    if (entry.second->pid > 0 && !entry.second->command.empty()) children.insert(entry.second->pid);
  }
  for (auto& started : startedPids_) children.insert(started.first);
  for (const pid_t pid : children) {
    kill(pid, SIGTERM);
    kill(pid, SIGCONT);
  }
  for (unsigned int waited = 0; !children.empty(); waited += 10) {
    for (auto it = children.begin(); it != children.end();) {
      const pid_t done = waitpid(*it, nullptr, WNOHANG);
      it = done == *it || (done < 0 && errno == ECHILD) ? children.erase(it) : std::next(it);
    }
    if (children.empty()) break;
    if (waited >= kStopGraceMs) {
      for (const pid_t pid : children) kill(pid, SIGKILL);
      for (const pid_t pid : children) waitpid(pid, nullptr, 0);
      break;
    }
    usleep(10000);
  }
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

bool Loader::startService(const std::vector<std::string>& command) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    fprintf(stderr, "kl-loader: socketpair: %s\n", strerror(errno));
    return false;
  }
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0) out[0] = out[1] = -1;
  if (pipe2(err, O_CLOEXEC) != 0) err[0] = err[1] = -1;
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) {
    fprintf(stderr, "kl-loader: fork: %s\n", strerror(errno));
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (pid == 0) {
    // The service's end of the connection on descriptor 3, as on the device; its output
    // through the loader, line by line behind its id.
    dup2(fds[1], 3);
    if (out[1] >= 0) dup2(out[1], 1);
    if (err[1] >= 0) dup2(err[1], 2);
    std::vector<char*> argv;
    for (const std::string& arg : options_.wrapper) argv.push_back(const_cast<char*>(arg.c_str()));
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
  for (int* pipeEnds : {out, err}) {
    if (pipeEnds[0] < 0) continue;
    close(pipeEnds[1]);
    fcntl(pipeEnds[0], F_SETFL, O_NONBLOCK);
    outputs_[pipeEnds[0]] = Output{pid, pipeEnds == out ? stdout : stderr, std::string()};
    runner_.addSocket(pipeEnds[0], this, onOutputCb, POLLIN);
  }
  Conn* conn = addConnection(fds[0], pid);
  conn->command = command;
  startedPids_[pid] = command;
  unregisteredSince_[pid] = getJiffies();
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
    conn.writer.writable();
    flushConn(conn);
  }
  if (events & (POLLIN | POLLHUP | POLLERR)) serveFrames(conn, (events & (POLLHUP | POLLERR)) != 0);
  if (!conn.dead) watchEvents(conn);
  reapDead();
}

// One turn of `conn`: at most kFramesPerTurn frames, fewer when it must wait for a receiver.
// A connection that hung up is read on while it waits: what it sent before is finite, and
// poll would report the hang-up again at once.
void Loader::serveFrames(Conn& conn, bool hangup) {
  const uint32_t now = getJiffies();
  const unsigned char* body;
  uint32_t length;
  for (unsigned int n = 0; n < kFramesPerTurn && !conn.dead && (conn.waitingFor == 0 || hangup);
       ++n) {
    if (!conn.reader.tryReadFrame(&body, &length)) break;
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

// Frames already read into a connection's buffer get their turn here: poll does not report
// them.
void Loader::serveBacklog() {
  std::vector<Conn*> ready;
  for (auto& entry : conns_) {
    Conn& conn = *entry.second;
    if (!conn.dead && conn.waitingFor == 0 && conn.reader.hasBufferedFrame())
      ready.push_back(&conn);
  }
  for (Conn* conn : ready) {
    if (!conn->dead) serveFrames(*conn, false);
  }
}

// The loop does not sleep while frames wait in a buffer, and looks at waiting connections
// often enough to let them go on in time.
int Loader::sleepLimit(int timeoutMs) const {
  bool waiting = false;
  for (const auto& entry : conns_) {
    const Conn& conn = *entry.second;
    if (conn.dead) continue;
    if (conn.waitingFor == 0 && conn.reader.hasBufferedFrame()) return 0;
    waiting = waiting || conn.waitingFor != 0;
  }
  if (waiting && (timeoutMs < 0 || timeoutMs > 20)) return 20;
  return timeoutMs;
}

void Loader::watchEvents(Conn& conn) {
  unsigned int events = conn.waitingFor == 0 ? POLLIN : 0;
  if (conn.writer.items() != 0) events |= POLLOUT;
  runner_.changeSocket(conn.fd, events);
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

void Loader::beforeSleepCb(void* self) {
  Loader* loader = static_cast<Loader*>(self);
  loader->serveBacklog();
  loader->updateWaits();
  loader->flushAll();
}

void Loader::flushAll() {
  for (auto& entry : conns_) {
    Conn& conn = *entry.second;
    if (conn.dead || conn.writer.items() == 0) continue;
    if (!flushConn(conn)) watchEvents(conn);
  }
  reapDead();
}

// Writes what the socket takes now, keeping the count of all queued bytes; true when the
// queue is empty.
bool Loader::flushConn(Conn& conn) {
  const uint32_t before = conn.writer.bytes();
  const bool empty = conn.writer.flush(FrameWriter::kTry);
  const uint32_t after = conn.writer.bytes();
  queuedTotal_ -= static_cast<int64_t>(before) - after;
  if (after < before) {
    conn.lastDrain = getJiffies();
    if (after < kWaitQueuedBytes / 4) conn.stalled = false;
  }
  return empty;
}

// Called after `from` sent `to` a request or a notification: `from` is not read while
// `to` is far behind, unless `to` has stopped reading.
void Loader::waitForReceiver(Conn& from, Conn& to) {
  if (&from == &to || to.stalled || to.writer.bytes() <= kWaitQueuedBytes) return;
  from.waitingFor = to.id;
}

// Lets waiting connections go on once their receiver caught up, went away or stalled.
void Loader::updateWaits() {
  const uint32_t now = getJiffies();
  for (auto& entry : conns_) {
    Conn& conn = *entry.second;
    if (conn.dead || conn.waitingFor == 0) continue;
    Conn* receiver = byId(conn.waitingFor);
    if (receiver != nullptr && receiver->writer.bytes() >= kWaitQueuedBytes / 4) {
      if (now - receiver->lastDrain < kStallTicks) continue;
      receiver->stalled = true;
    }
    conn.waitingFor = 0;
    watchEvents(conn);
  }
}

// Drops `conn` now: nothing more is queued for it, and what was queued leaves the count at
// once; the requests among it are answered when the connection is closed.
void Loader::cutOff(Conn& conn, const std::string& why) {
  if (conn.dead) return;
  conn.dead = true;
  conn.failure = why;
  queuedTotal_ -= conn.writer.bytes();
  conn.orphans = conn.writer.takeQueue();
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
    const std::string how = WIFSIGNALED(status)
                                ? "killed by signal " + std::to_string(WTERMSIG(status))
                                : "exited " + std::to_string(WEXITSTATUS(status));
    auto started = startedPids_.find(pid);
    const std::string program =
        started != startedPids_.end() && !started->second.empty() ? started->second.front() : "";
    if (started != startedPids_.end()) startedPids_.erase(started);
    unregisteredSince_.erase(pid);
    auto child = childIds_.find(pid);
    const unsigned int id = child != childIds_.end() ? child->second : 0;
    if (child != childIds_.end()) childIds_.erase(child);
    if (stopping_) continue;
    // One that left by agreement comes back; the others are listed with how they ended.
    if (id == 0 || departed_.count(id) == 0) {
      ended_.push_back(Ended{id, pid, program, how});
      if (ended_.size() > kEndedKept) ended_.pop_front();
    }
    if (id == 0) {
      fprintf(stderr, "kl-loader: process %d (%s) %s without registering\n", static_cast<int>(pid),
              program.c_str(), how.c_str());
      continue;
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) != SIGTERM) {
      fprintf(stderr, "kl-loader: process %d died with signal %d\n", static_cast<int>(pid),
              WTERMSIG(status));
    } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
      fprintf(stderr, "kl-loader: process %d exited with status %d\n", static_cast<int>(pid),
              WEXITSTATUS(status));
    }
  }
}

// A started service that has not registered within registerWarnSeconds is named once: it
// may be waiting for something, or not be a service at all.
void Loader::onRegisterWatchCb(void* self) {
  Loader* loader = static_cast<Loader*>(self);
  const uint32_t now = getJiffies();
  for (auto it = loader->unregisteredSince_.begin(); it != loader->unregisteredSince_.end();) {
    if (now - it->second < loader->options_.registerWarnSeconds * 100) {
      ++it;
      continue;
    }
    auto started = loader->startedPids_.find(it->first);
    fprintf(stderr, "kl-loader: process %d (%s) has not registered after %u s\n",
            static_cast<int>(it->first),
            started != loader->startedPids_.end() && !started->second.empty()
                ? started->second.front().c_str()
                : "",
            loader->options_.registerWarnSeconds);
    it = loader->unregisteredSince_.erase(it);
  }
  loader->runner_.addTimer(self, onRegisterWatchCb, 100);
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
  ask.insert(SYS_CTRL, ctrl::kLeaveRequest);
  deliver(conn, ask);
  conn.holding = true;
}

// --- frames ----------------------------------------------------------------------------------

void Loader::handleFrame(Conn& conn, message& m) {
  unsigned int code;
  const bool control = isCtrl(m, &code);
  if (!conn.registered) {
    if (!control || code != ctrl::kRegister) {
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
  const std::vector<unsigned int> words = m.get_u32_array(ctrl::kRegistrationWords);
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
  if (started != startedPids_.end()) {
    conn.command = started->second;
    childIds_[conn.pid] = id;
    unregisteredSince_.erase(conn.pid);
  }
  ended_.remove_if([id](const Ended& e) { return e.id == id; });

  message ready;
  ready.insert(SYS_CTRL, ctrl::kReady);
  ready.insert_u32(ctrl::kReadyProcessId, id);
  auto departed = departed_.find(id);
  if (departed != departed_.end()) {
    if (conn.command.empty()) conn.command = departed->second.command;
    if (departed->second.hasData) ready.insert_message(ctrl::kPermData, departed->second.data);
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
    case ctrl::kRunning:
      conn.running = true;
      break;
    case ctrl::kLeaveSetting:
      conn.leaveValue = m.get(SYS_CTRL_ARG, 0);
      break;
    case ctrl::kLeaveAgree: {
      Departed& departed = departed_[conn.id];
      departed.command = conn.command;
      if (const message::flat_message* data = m.get_message_ref(ctrl::kPermData)) {
        departed.data = message(*data);
        departed.hasData = true;
      }
      if (options_.trace) printf("kl-loader: %s leaves\n", describe(conn).c_str());
      // The process has agreed; ending it is the loader's part. Frames for it stay held
      // until the connection closes, then wait for the next instance.
      if (conn.pid > 0) kill(conn.pid, SIGTERM);
      break;
    }
    case ctrl::kLeaveRefuse:
      conn.holding = false;
      for (const message& held : conn.held) deliver(conn, held);
      conn.held.clear();
      break;
    default:
      break;  // 4 (announces leaving) needs nothing here
  }
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
  if (conn->monitor) --monitors_;
  std::vector<message> held;
  held.swap(conn->held);
  std::list<FrameWriter::WriteItem> orphans;
  orphans.swap(conn->orphans);
  queuedTotal_ -= conn->writer.bytes();
  if (registered) byId_.erase(id);
  PendingRequests pending;
  pending.swap(conn->pending);
  conns_.erase(conn->fd);  // `conn` is gone from here on
  answerOrphans(orphans, &pending);
  answerPending(pending);
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

// The requests among the frames that were queued for a connection that was cut off get an
// ERROR_BRKPATH reply, as if the path had broken before them; then their memory goes back
// to the system.
void Loader::answerOrphans(std::list<FrameWriter::WriteItem>& orphans, PendingRequests* pending) {
  size_t bytes = 0;
  for (FrameWriter::WriteItem& item : orphans) {
    bytes += item.remaining;
    if (item.position != item.buffer.get()) continue;  // partly delivered
    message m;
    if (!m.unflatten(item.buffer.get() + kFramePrefixBytes, loadLe32(item.buffer.get()),
                     message::flatten_full) ||
        !isReplyExpected(m)) {
      continue;
    }
    const std::vector<unsigned int> from = m.get_u32_array(SYS_FROM);
    unsigned int requestId;
    if (getRequestID(m, &requestId)) pending->erase(std::make_pair(from, requestId));
    Conn* sender = from.empty() ? nullptr : byId(from.front());
    if (sender == nullptr) continue;
    popPathFront(m, SYS_FROM);
    message error = errorMsg(ERROR_BRKPATH, "");
    reply(*sender, m, error);
  }
  orphans.clear();
#if defined(__GLIBC__)
  if (bytes > (1u << 20)) malloc_trim(0);
#endif
}

void Loader::notePending(Conn& to, const std::vector<unsigned int>& replyPath,
                         unsigned int requestId) {
  if (to.pending.size() < kMaxPendingRequests) to.pending.emplace(replyPath, requestId);
}

void Loader::noteAnswered(Conn& from, const std::vector<unsigned int>& replyPath,
                          unsigned int requestId) {
  if (!from.pending.empty()) from.pending.erase(std::make_pair(replyPath, requestId));
}

// A process that goes away with requests unanswered (it crashed, or left without answering)
// answers each with ERROR_BRKPATH through the loader, as a path that broke would.
void Loader::answerPending(const PendingRequests& pending) {
  for (const auto& entry : pending) {
    const std::vector<unsigned int>& replyPath = entry.first;
    Conn* sender = replyPath.empty() ? nullptr : byId(replyPath.front());
    if (sender == nullptr) continue;
    message request;
    request.insert(SYS_FROM, std::vector<unsigned int>(replyPath.begin() + 1, replyPath.end()));
    setRequestID(request, entry.second);
    message error = errorMsg(ERROR_BRKPATH, "");
    reply(*sender, request, error);
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
