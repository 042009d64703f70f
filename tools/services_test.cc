// Services as real processes through kl-loader. Each test runs the built kl-loader under a
// temporary root with the test publisher (tools/loader/test_publisher.h) as its service;
// every other service is a forked child that constructs its own Looper (a fixed id,
// kConnect), takes text commands from the test over one pipe and reports what it sees over
// another. The test's own process never holds a Looper: one per process, and every child
// starts from a clean one.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kl/base/clock.h"
#include "kl/looper/handler.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "kl/testing/hex.h"
#include "kl/testing/temp_root.h"
#include "tools/loader/loader.h"
#include "tools/loader/test_publisher.h"

namespace kl {
namespace {

using Path = std::vector<unsigned int>;
using testing::fromHex;
using testing::toHex;
using testpub::kObjectsHandler;
using testpub::kPublisherId;

const Path kObjects = {kPublisherId, kObjectsHandler};

// The handler every service process registers beside its Looper.
constexpr unsigned int kAgentHandler = 7;
// u32 field 1 of a CMD_GET for the agent handler: it answers after this many ticks.
constexpr uint32_t kDelayField = 0x08000001;
// The service process the tests use for requests of their own.
constexpr unsigned int kDriverId = 9;

std::string hexOf(const message& m) {
  std::vector<unsigned char> bytes;
  m.flatten(bytes);
  return toHex(bytes);
}

// "40/2" -> {40, 2}.
Path parsePath(const std::string& text) {
  Path path;
  std::istringstream in(text);
  std::string part;
  while (std::getline(in, part, '/')) path.push_back(static_cast<unsigned int>(stoul(part)));
  return path;
}

std::string pathText(const Path& path) {
  std::string text;
  for (unsigned int hop : path) text += (text.empty() ? "" : "/") + std::to_string(hop);
  return text;
}

// --- the service processes' side ----------------------------------------------------------
//
// Commands, one a line:
//   post H TAG TICKS HEX   handler H (0: the Looper) posts the message HEX with a time-out
//                          of TICKS; the callback reports "TAG <hex of reply or error>"
//   subscribe H PATH       handler H subscribes to PATH; reported as "subscribed <hex>"
//                          once PATH has answered a CMD_NOOP sent behind the subscription
//   await PATH             "reachable" once PATH answers a CMD_NOOP (within 5 s), else
//                          "unreachable"
//   quit                   ends the process with status 0
// Reports, besides: "ready" after registration; "in H <hex>" for each message with a
// command other than CMD_NOOP and CMD_DISCONNECTED that reaches handler H; "answered" when
// the agent handler has answered a CMD_GET late.

class Reporter {
 public:
  explicit Reporter(int fd) : fd_(fd) {}
  void line(const std::string& text) {
    const std::string out = text + "\n";
    size_t done = 0;
    while (done < out.size()) {
      const ssize_t n = write(fd_, out.data() + done, out.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) _exit(3);  // the test went away
      done += static_cast<size_t>(n);
    }
  }
  void incoming(unsigned int handler, const message& m, unsigned int cmd) {
    if (cmd != CMD_NOOP && cmd != CMD_DISCONNECTED) {
      line("in " + std::to_string(handler) + " " + hexOf(m));
    }
  }
  static void onReply(void* self, const message& reply, const message& extra) {
    static_cast<Reporter*>(self)->line(extra.get_string(STD_DESCR, "?") + " " + hexOf(reply));
  }

 private:
  int fd_;
};

// Handler 7: reports what reaches it and answers CMD_GET after the delay the request asks.
class AgentHandler : public Handler {
 public:
  explicit AgentHandler(Reporter* reporter) : reporter_(reporter) {}

  void handleCmd(const message& m, unsigned int cmd) override {
    reporter_->incoming(kAgentHandler, m, cmd);
    if (cmd != CMD_GET) {
      Handler::handleCmd(m, cmd);
      return;
    }
    getRunner()->addTimer(new Late{this, m}, &AgentHandler::onLate, m.get_u32(kDelayField, 0));
  }

 private:
  struct Late {
    AgentHandler* handler;
    message request;
  };
  static void onLate(void* p) {
    std::unique_ptr<Late> late(static_cast<Late*>(p));
    late->handler->replyMessage(late->request, message());
    late->handler->reporter_->line("answered");
  }

  Reporter* reporter_;
};

class AgentLooper : public Looper {
 public:
  AgentLooper(unsigned int id, int commandFd, Reporter* reporter)
      : Looper(kConnect, id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
        reporter_(reporter),
        handler_(reporter) {
    addHandler(kAgentHandler, &handler_);
    addSocket(commandFd, this, onCommandCb, POLLIN);
  }

  void handleCmd(const message& m, unsigned int cmd) override {
    reporter_->incoming(0, m, cmd);
    Looper::handleCmd(m, cmd);
  }

 private:
  static void onCommandCb(void* self, int fd, unsigned int) {
    static_cast<AgentLooper*>(self)->onCommand(fd);
  }

  void onCommand(int fd) {
    char chunk[65536];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) return;
    if (n <= 0) {
      shutdown();  // the test closed its end
      return;
    }
    pending_.append(chunk, static_cast<size_t>(n));
    for (size_t eol; (eol = pending_.find('\n')) != std::string::npos;) {
      const std::string line = pending_.substr(0, eol);
      pending_.erase(0, eol + 1);
      runCommand(line);
    }
  }

  Handler* handler(unsigned int number) {
    return number == 0 ? static_cast<Handler*>(this) : &handler_;
  }

  void post(Handler* from, const std::string& tag, message m, unsigned int ticks) {
    message extra;
    extra.insert_string(STD_DESCR, tag);
    from->postMessage(m, reporter_, Reporter::onReply, extra, ticks);
  }

  static message noop(const Path& to) {
    message m;
    m.insert(SYS_TO, to);
    m.insert(SYS_CMD, CMD_NOOP);
    return m;
  }

  void runCommand(const std::string& line) {
    std::istringstream in(line);
    std::string verb;
    in >> verb;
    if (verb == "post") {
      unsigned int from, ticks;
      std::string tag, hex;
      in >> from >> tag >> ticks;
      std::getline(in, hex);
      post(handler(from), tag, message(fromHex(hex)), ticks);
    } else if (verb == "subscribe") {
      unsigned int from;
      std::string to;
      in >> from >> to;
      handler(from)->subscribe(parsePath(to), CMD_NOTIFY, message());
      post(handler(from), "subscribed", noop(parsePath(to)), 300);
    } else if (verb == "await") {
      std::string to;
      in >> to;
      const uint32_t start = getJiffies();
      while (getJiffies() - start < 500) {
        message m = noop(parsePath(to));
        if (!isError(exchangeMessage(m, 20), nullptr, nullptr)) {
          reporter_->line("reachable");
          return;
        }
        usleep(20 * 1000);
      }
      reporter_->line("unreachable");
    } else if (verb == "quit") {
      shutdown();
    }
  }

  Reporter* reporter_;
  AgentHandler handler_;
  std::string pending_;
};

[[noreturn]] void runServiceProcess(const std::string& root, unsigned int id, int commandFd,
                                    int reportFd) {
  setenv("KL_ROOT", root.c_str(), 1);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Reporter reporter(reportFd);
  // Never destroyed: the process ends with _exit, as a service that is stopped would.
  AgentLooper* looper = new AgentLooper(id, commandFd, &reporter);
  reporter.line("ready");
  looper->run();
  _exit(0);
}

// --- the test's side --------------------------------------------------------------------------

// Lines from a descriptor, each within a bounded wait.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  ~LineReader() { close(fd_); }
  // The next line (without its newline); false after `timeoutMs` or at end of file.
  bool next(std::string* line, int timeoutMs) {
    for (int waited = 0;;) {
      const size_t eol = buffer_.find('\n');
      if (eol != std::string::npos) {
        *line = buffer_.substr(0, eol);
        buffer_.erase(0, eol + 1);
        return true;
      }
      if (waited >= timeoutMs) return false;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 10) <= 0) {
        waited += 10;
        continue;
      }
      char chunk[65536];
      const ssize_t n = read(fd_, chunk, sizeof chunk);
      if (n == 0 || (n < 0 && errno != EINTR)) return false;
      if (n > 0) buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

 private:
  int fd_;
  std::string buffer_;
};

// One report of a service process: its tag, the handler for "in", and the message.
struct Report {
  std::string tag;
  unsigned int handler = 0;
  message msg;
};

// The test's handle on one forked service process.
class Service {
 public:
  Service(unsigned int id, pid_t pid, int commandFd, int reportFd)
      : id_(id), pid_(pid), commandFd_(commandFd), reports_(reportFd), reportFd_(reportFd) {}
  ~Service() { close(commandFd_); }

  void command(const std::string& line) {
    const std::string out = line + "\n";
    EXPECT_EQ(write(commandFd_, out.data(), out.size()), static_cast<ssize_t>(out.size()));
  }
  // The first report tagged `tag` (the next one when empty), within `timeoutMs`. Reports
  // passed over stay, in order, for later calls.
  bool take(const std::string& tag, Report* out, int timeoutMs = 5000) {
    for (auto it = backlog_.begin(); it != backlog_.end(); ++it) {
      if (tag.empty() || it->tag == tag) {
        *out = *it;
        backlog_.erase(it);
        return true;
      }
    }
    std::string line;
    while (reports_.next(&line, timeoutMs)) {
      Report r;
      std::istringstream in(line);
      in >> r.tag;
      if (r.tag == "in") in >> r.handler;
      std::string hex;
      std::getline(in, hex);
      if (!hex.empty()) r.msg = message(fromHex(hex));
      if (tag.empty() || r.tag == tag) {
        *out = r;
        return true;
      }
      backlog_.push_back(r);
    }
    return false;
  }
  // Whether every report has been taken.
  bool idle() const { return backlog_.empty(); }
  // Sends quit and waits (bounded) for the process; its exit status, or -1 when it had to
  // be killed.
  int quit() {
    if (pid_ <= 0) return exitStatus_;
    command("quit");
    int status = 0;
    for (int waited = 0; waitpid(pid_, &status, WNOHANG) == 0; waited += 10) {
      if (waited > 5000) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        status = -1;
        break;
      }
      usleep(10 * 1000);
    }
    pid_ = 0;
    exitStatus_ = status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return exitStatus_;
  }

  unsigned int id() const { return id_; }
  int commandFd() const { return commandFd_; }
  int reportFd() const { return reportFd_; }

 private:
  unsigned int id_;
  pid_t pid_;
  int commandFd_;
  LineReader reports_;
  int reportFd_;
  int exitStatus_ = -1;
  std::deque<Report> backlog_;
};

std::vector<unsigned int> objectIds(const message& n) {
  std::vector<unsigned int> ids;
  for (const message::flat_message& flat : n.get_message_array(STD_OBJS)) {
    ids.push_back(message(flat).get(STD_ID, BADID));
  }
  return ids;
}

unsigned int errorCode(const message& m) {
  unsigned int code = 0;
  return isError(m, &code, nullptr) ? code : 0;
}

message request(unsigned int cmd) {
  message m;
  m.insert(SYS_CMD, cmd);
  return m;
}

class ServicesTest : public testing::TempRootTest {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);  // a service that died shows as a failed write, not a kill
    TempRootTest::SetUp();
  }

  void TearDown() override {
    for (auto& service : services_) {
      EXPECT_EQ(service->quit(), 0) << "service process " << service->id();
    }
    services_.clear();
    if (loaderPid_ > 0) {
      kill(loaderPid_, SIGTERM);
      int status = 0;
      waitpid(loaderPid_, &status, 0);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "kl-loader status " << status;
    }
    const std::string log = loaderLog();
    // The publisher's failures (a sanitizer report, a failed assertion) show here.
    EXPECT_EQ(log.find("exited with status"), std::string::npos);
    EXPECT_EQ(log.find("died with signal"), std::string::npos);
    if (HasFailure()) std::cerr << "--- kl-loader's output:\n" << log << "---\n";
    TempRootTest::TearDown();
  }

  std::string loaderLog() const {
    std::ifstream in(path("/loader.log"));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // The command that runs this build's programs (an emulator in a cross build), in words;
  // none on the host.
  static std::vector<std::string> emulator() {
    std::istringstream text(KL_EMULATOR);
    std::vector<std::string> words;
    for (std::string word; text >> word;) words.push_back(word);
    return words;
  }

  // Runs `argv` as a child under this root with standard output on `outFd` and standard
  // error on `errFd`. The child ends with the test.
  pid_t launch(const std::vector<std::string>& argv, int outFd, int errFd) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("KL_ROOT", root_.c_str(), 1);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      dup2(outFd, 1);
      dup2(errFd, 2);
      std::vector<std::string> words = emulator();
      words.insert(words.end(), argv.begin(), argv.end());
      std::vector<char*> args;
      for (const std::string& arg : words) args.push_back(const_cast<char*>(arg.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
    return pid;
  }

  // Runs kl-msg with `args` to its end: its first line on the error stream (empty when none
  // came within 8 s) and its exit status (-1 when it did not exit normally).
  std::pair<std::string, int> runMsg(const std::vector<std::string>& args) {
    int err[2];
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    std::vector<std::string> argv = {KL_MSG_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    const pid_t msg = launch(argv, 1, err[1]);
    close(err[1]);
    LineReader lines(err[0]);
    std::string line;
    if (!lines.next(&line, 8000)) kill(msg, SIGKILL);
    int status = -1;
    waitpid(msg, &status, 0);
    close(err[0]);
    return {line, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
  }

  // Starts kl-loader (with `loaderOptions`) and the test publisher as its service (with
  // `publisherOptions`), then the driver process, and waits until the publisher answers.
  bool startLoader(const std::vector<std::string>& loaderOptions = {},
                   const std::string& publisherOptions = "") {
    std::vector<std::string> argv = {KL_LOADER_PATH};
    argv.insert(argv.end(), loaderOptions.begin(), loaderOptions.end());
    if (!emulator().empty()) argv.insert(argv.end(), {"--wrapper", KL_EMULATOR});
    argv.push_back(std::string(KL_TEST_PUBLISHER_PATH) + " " + publisherOptions);
    const int log =
        open(path("/loader.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    loaderPid_ = launch(argv, log, log);
    close(log);
    // The socket exists before it listens: wait until a connection is accepted.
    const std::string socketPath = path("/ram/kelosock");
    bool listening = false;
    for (int waited = 0; !listening && waited < 5000; waited += 10) {
      const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un addr{};
      addr.sun_family = AF_UNIX;
      strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
      listening = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
      close(fd);
      if (!listening) usleep(10 * 1000);
    }
    if (!listening) return false;
    driver_ = &service(kDriverId);
    driver_->command("await " + pathText(kObjects));
    Report r;
    return driver_->take("", &r) && r.tag == "reachable";
  }

  // Forks a service process registered as `id` and waits for its registration.
  Service& service(unsigned int id) {
    int command[2], report[2];
    EXPECT_EQ(pipe2(command, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(report, O_CLOEXEC), 0);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      close(command[1]);
      close(report[0]);
      // Only the test may hold the other processes' pipes: they end when it goes away.
      for (auto& other : services_) {
        close(other->commandFd());
        close(other->reportFd());
      }
      runServiceProcess(root_, id, command[0], report[1]);
    }
    close(command[0]);
    close(report[1]);
    services_.emplace_back(new Service(id, pid, command[1], report[0]));
    Report ready;
    EXPECT_TRUE(services_.back()->take("ready", &ready)) << "service " << id << " did not register";
    return *services_.back();
  }

  // --- verbs --------------------------------------------------------------------------------

  // Posts `body` to `to` from handler `from` of `s` (0: its Looper) with a time-out of
  // `ticks`; returns the tag its callback's report will carry.
  std::string post(Service& s, unsigned int from, const Path& to, message body,
                   unsigned int ticks = 300) {
    const std::string tag = "r" + std::to_string(++posts_);
    body.insert(SYS_TO, to);
    s.command("post " + std::to_string(from) + " " + tag + " " + std::to_string(ticks) + " " +
              hexOf(body));
    return tag;
  }
  // post, then the message the callback got.
  message call(Service& s, unsigned int from, const Path& to, const message& body,
               unsigned int ticks = 300) {
    Report r;
    if (!s.take(post(s, from, to, body, ticks), &r)) {
      ADD_FAILURE() << "no callback in service " << s.id();
      return errorMsg(ERROR_FAILED, "no callback");
    }
    return r.msg;
  }
  bool subscribe(Service& s, unsigned int from) {
    s.command("subscribe " + std::to_string(from) + " " + pathText(kObjects));
    Report r;
    return s.take("subscribed", &r) && errorCode(r.msg) == 0;
  }
  // Renames object `id` of the publisher at the request of `by`'s Looper.
  message rename(Service& by, unsigned int id, const std::string& name,
                 const message& extra = message()) {
    message m = extra;
    m.insert(SYS_CMD, CMD_SETOBJ);
    m.insert(STD_ID, id);
    m.insert_string(STD_DESCR, name);
    return call(by, 0, kObjects, m);
  }
  // The publisher's kCmdChange for `ids` (linked to `nextIds` when given).
  static message changeRequest(const std::vector<unsigned int>& ids,
                               const std::vector<unsigned int>& nextIds = {}) {
    message m = request(testpub::kCmdChange);
    m.insert_u32_array(testpub::kIdsField, ids);
    if (!nextIds.empty()) m.insert_u32_array(testpub::kNextIdsField, nextIds);
    return m;
  }
  message change(const std::vector<unsigned int>& ids,
                 const std::vector<unsigned int>& nextIds = {}) {
    return call(*driver_, 0, kObjects, changeRequest(ids, nextIds));
  }
  // The next message reported by `s`, which must be a notification.
  message notification(Service& s) {
    Report r;
    if (!s.take("in", &r)) {
      ADD_FAILURE() << "no notification for service " << s.id();
      return message();
    }
    EXPECT_EQ(r.msg.get(SYS_CMD, 0), CMD_NOTIFY);
    return r.msg;
  }
  // The publisher's subscribers' paths; *unsubscribes := its count of CMD_UNSUBSCRIBE.
  std::vector<Path> subscriberPaths(unsigned int* unsubscribes = nullptr) {
    const message reply = call(*driver_, 0, kObjects, request(testpub::kCmdSubscribers));
    std::vector<Path> paths;
    for (const message::flat_message& flat : reply.get_message_array(STD_OBJS)) {
      paths.push_back(message(flat).get_u32_array(SYS_FROM));
    }
    if (unsubscribes != nullptr) *unsubscribes = reply.get_u32(testpub::kUnsubscribesField, 99);
    return paths;
  }
  // No notification is on its way to `s`: a request to the publisher sent now is answered
  // behind anything the publisher sent `s` before, over the same connections.
  void expectNothingMore(Service& s) {
    EXPECT_EQ(errorCode(call(s, 0, {kPublisherId}, request(CMD_NOOP))), 0u);
    Report r;
    while (s.take("in", &r, 0)) ADD_FAILURE() << "unexpected message for " << s.id();
  }
  // kl-loader's entry for process `id` (STD_ID, pid, state), empty when it has none.
  message loaderEntry(unsigned int id) {
    const message list = call(*driver_, 0, {loader::kLoaderId}, request(CMD_GETALL));
    for (const message::flat_message& flat : list.get_message_array(STD_OBJS)) {
      const message entry(flat);
      if (entry.get(STD_ID, 0) == id) return entry;
    }
    return message();
  }
  // Has `s` ask kl-loader to make the publisher leave; returns the tag of the reply.
  std::string askPublisherToLeave(Service& s) {
    message leave = request(loader::kLoaderCmdLeave);
    leave.insert(STD_ID, kPublisherId);
    return post(s, 0, {loader::kLoaderId}, leave);
  }
  unsigned int publisherPid() { return loaderEntry(kPublisherId).get_u32(loader::kProcPid, 0); }
  // Whether `condition` holds within `timeoutMs`, asked every 20 ms.
  static bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
    for (int waited = 0; waited < timeoutMs; waited += 20) {
      if (condition()) return true;
      usleep(20 * 1000);
    }
    return condition();
  }

  pid_t loaderPid_ = 0;
  std::vector<std::unique_ptr<Service>> services_;
  Service* driver_ = nullptr;
  unsigned int posts_ = 0;
};

// --- requests ---------------------------------------------------------------------------------

TEST_F(ServicesTest, TimeoutThenTheLateReplyIsDropped) {
  ASSERT_TRUE(startLoader());
  Service& client = service(5);
  Service& server = service(6);
  message get = request(CMD_GET);
  get.insert_u32(kDelayField, 60);  // answered 0.6 s after arrival, long after 0.1 s
  const std::string tag = post(client, kAgentHandler, {6, kAgentHandler}, get, 10);
  Report r;
  ASSERT_TRUE(client.take(tag, &r));
  EXPECT_EQ(errorCode(r.msg), ERROR_TIMEOUT);
  EXPECT_EQ(r.msg.get(SYS_REQID, BADID), 0u);  // the handler's first request
  ASSERT_TRUE(server.take("answered", &r));
  // The late reply travels ahead of the answer to this request: when that is in, the late
  // one has been dealt with, and its callback did not run a second time.
  EXPECT_EQ(errorCode(call(client, kAgentHandler, {6}, request(CMD_NOOP))), 0u);
  EXPECT_FALSE(client.take(tag, &r, 0));
  EXPECT_TRUE(client.idle());
}

// --- notifications ------------------------------------------------------------------------------

TEST_F(ServicesTest, ChangeCausedByASubscriberReachesTheOthersOnly) {
  ASSERT_TRUE(startLoader());
  Service& a = service(5);
  Service& b = service(6);
  ASSERT_TRUE(subscribe(a, 0));
  ASSERT_TRUE(subscribe(b, 0));
  EXPECT_EQ(errorCode(rename(a, 3, "by-a")), 0u);
  message n = notification(b);
  EXPECT_EQ(objectIds(n), std::vector<unsigned int>({3}));
  EXPECT_EQ(n.get_u32_array(SYS_ORIGIN), Path({5}));
  EXPECT_EQ(message(n.get_message_array(STD_OBJS).at(0)).get_string(STD_DESCR, ""), "by-a");
  expectNothingMore(a);
  // And the other way round: a is subscribed, it only did not hear of its own change.
  EXPECT_EQ(errorCode(rename(b, 4, "by-b")), 0u);
  n = notification(a);
  EXPECT_EQ(objectIds(n), std::vector<unsigned int>({4}));
  EXPECT_EQ(n.get_u32_array(SYS_ORIGIN), Path({6}));
  expectNothingMore(b);
}

TEST_F(ServicesTest, LinkedObjectsArriveTailFirst) {
  ASSERT_TRUE(startLoader());
  Service& s = service(6);
  ASSERT_TRUE(subscribe(s, 0));
  // Two lists, 1 -> 2 -> 3 and 10 -> 5, and the cycle 7 <-> 8 that no list reaches.
  EXPECT_EQ(errorCode(change({1, 2, 3, 5, 7, 8, 10}, {2, 3, BADID, BADID, 8, 7, 5})), 0u);
  const message n = notification(s);
  EXPECT_EQ(objectIds(n), std::vector<unsigned int>({3, 2, 1, 5, 10}));
  EXPECT_FALSE(n.has(SYS_ORIGIN));
}

TEST_F(ServicesTest, HundredthChangedIdSendsAtOnce) {
  ASSERT_TRUE(startLoader());
  Service& s = service(6);
  ASSERT_TRUE(subscribe(s, 0));
  std::vector<unsigned int> ids;
  for (unsigned int id = 101; id <= 199; ++id) ids.push_back(id);
  // 99 ids wait for the timer: the reply to the change overtakes them.
  std::string tag = post(s, 0, kObjects, changeRequest(ids));
  Report r;
  ASSERT_TRUE(s.take("", &r));
  EXPECT_EQ(r.tag, tag);
  EXPECT_EQ(objectIds(notification(s)).size(), 99u);
  // The 100th goes out inside the request that changed it, ahead of the reply.
  ids.push_back(200);
  tag = post(s, 0, kObjects, changeRequest(ids));
  ASSERT_TRUE(s.take("", &r));
  EXPECT_EQ(r.tag, "in");
  EXPECT_EQ(objectIds(r.msg), ids);
  ASSERT_TRUE(s.take("", &r));
  EXPECT_EQ(r.tag, tag);
}

// --- subscriptions over departures and leaves ---------------------------------------------------

TEST_F(ServicesTest, DisconnectRemovesTheDepartedProcessesSubscriptionsOnly) {
  ASSERT_TRUE(startLoader());
  Service& x = service(5);
  Service& y = service(6);
  ASSERT_TRUE(subscribe(x, 0));
  ASSERT_TRUE(subscribe(x, kAgentHandler));
  ASSERT_TRUE(subscribe(y, 0));
  EXPECT_EQ(subscriberPaths(), std::vector<Path>({{5}, {5, kAgentHandler}, {6}}));
  // One notification, fanned out by kl-loader to all three, two of them in one process.
  EXPECT_EQ(errorCode(change({1})), 0u);
  Report r;
  ASSERT_TRUE(x.take("in", &r));
  EXPECT_EQ(r.handler, 0u);  // its Looper, then its handler, in the order they subscribed
  ASSERT_TRUE(x.take("in", &r));
  EXPECT_EQ(r.handler, kAgentHandler);
  EXPECT_EQ(objectIds(r.msg), std::vector<unsigned int>({1}));
  EXPECT_EQ(objectIds(notification(y)), std::vector<unsigned int>({1}));
  EXPECT_EQ(x.quit(), 0);
  EXPECT_TRUE(eventually([&] { return subscriberPaths().size() == 1; }));
  unsigned int unsubscribes = 0;
  EXPECT_EQ(subscriberPaths(&unsubscribes), std::vector<Path>({{6}}));
  EXPECT_EQ(unsubscribes, 0u);  // the departure removed them, not an unsubscribe
}

TEST_F(ServicesTest, SubscriptionsSurviveALeaveAndAReturn) {
  ASSERT_TRUE(startLoader({"--idle-leave", "1"}, "--leave"));
  Service& s = service(6);
  ASSERT_TRUE(subscribe(s, 0));
  const unsigned int firstPid = publisherPid();
  EXPECT_NE(firstPid, 0u);
  // Idle for a second: kl-loader asks the publisher to leave, and it hands over its data.
  EXPECT_TRUE(eventually(
      [&] { return loaderEntry(kPublisherId).get_string(loader::kProcState, "") == "left"; }));
  // The change request waits for a new instance, which gets its subscriber back.
  EXPECT_EQ(errorCode(change({4})), 0u);
  EXPECT_EQ(objectIds(notification(s)), std::vector<unsigned int>({4}));
  const message entry = loaderEntry(kPublisherId);
  EXPECT_EQ(entry.get_string(loader::kProcState, ""), "running");
  EXPECT_NE(entry.get_u32(loader::kProcPid, 0), firstPid);
  EXPECT_EQ(subscriberPaths(), std::vector<Path>({{6}}));
}

// A subscription sent right behind a leave request: kl-loader holds it until the publisher
// answers, so the instance that serves it next gets it, whether the publisher agreed to
// leave or refused.
TEST_F(ServicesTest, SubscriptionDuringAnAgreedLeaveGoesToTheNextInstance) {
  ASSERT_TRUE(startLoader({}, "--leave"));
  Service& s = service(6);
  const unsigned int firstPid = publisherPid();
  const std::string asked = askPublisherToLeave(s);
  ASSERT_TRUE(subscribe(s, 0));
  Report r;
  ASSERT_TRUE(s.take(asked, &r));
  EXPECT_EQ(errorCode(r.msg), 0u);
  EXPECT_NE(publisherPid(), firstPid);
  EXPECT_EQ(subscriberPaths(), std::vector<Path>({{6}}));
  EXPECT_EQ(errorCode(change({2})), 0u);
  EXPECT_EQ(objectIds(notification(s)), std::vector<unsigned int>({2}));
}

TEST_F(ServicesTest, SubscriptionDuringARefusedLeaveGoesToTheSameInstance) {
  ASSERT_TRUE(startLoader());  // the publisher offers no leave value: it refuses
  Service& s = service(6);
  const unsigned int firstPid = publisherPid();
  askPublisherToLeave(s);
  ASSERT_TRUE(subscribe(s, 0));
  EXPECT_EQ(publisherPid(), firstPid);
  EXPECT_EQ(subscriberPaths(), std::vector<Path>({{6}}));
}

// --- undo records
// ---------------------------------------------------------------------------------

TEST_F(ServicesTest, UndoRecordsReachTheUndoService) {
  ASSERT_TRUE(startLoader());
  Service& undo = service(17);
  message user;
  user.insert_string(SYS_USER, "admin");
  EXPECT_EQ(errorCode(rename(*driver_, 3, "uplink", user)), 0u);
  Report r;
  ASSERT_TRUE(undo.take("in", &r));
  EXPECT_EQ(r.handler, 0u);  // for the process itself
  message record = r.msg;
  EXPECT_EQ(record.get(SYS_CMD, 0), CMD_ADDOBJ);
  EXPECT_EQ(record.get_u32_array(SYS_FROM), kObjects);
  EXPECT_FALSE(record.has(STD_ID));
  EXPECT_EQ(record.get_string(0x20000003, ""), testpub::kUndoDescription);
  EXPECT_EQ(record.get_string(0x20000006, "?"), "admin");
  EXPECT_EQ(record.get_u32(0x08000005, 0), 0x80u);  // what CMD_SETOBJ requires
  const message copy(record.get_message(0x28000001, message::flat_message()));
  EXPECT_EQ(copy.get(SYS_CMD, 0), CMD_SETOBJ);
  EXPECT_EQ(copy.get(STD_ID, 0), 3u);
  EXPECT_EQ(copy.get_string(STD_DESCR, ""), "uplink");
  EXPECT_FALSE(copy.has(SYS_FROM));
  EXPECT_FALSE(copy.has(SYS_TO));
  message reverse(record.get_message(0x28000002, message::flat_message()));
  EXPECT_EQ(reverse.get(SYS_CMD, 0), CMD_SETOBJ);
  EXPECT_EQ(reverse.get(STD_ID, 0), 3u);
  EXPECT_EQ(reverse.get_string(STD_DESCR, ""), "port3");

  // A request that names its undo entry extends that entry.
  message continued;
  continued.insert(STD_UNDOID, 7);
  EXPECT_EQ(errorCode(rename(*driver_, 3, "backup", continued)), 0u);
  ASSERT_TRUE(undo.take("in", &r));
  record = r.msg;
  EXPECT_EQ(record.get(SYS_CMD, 0), CMD_SETOBJ);
  EXPECT_EQ(record.get(STD_ID, 0), 7u);
  EXPECT_EQ(record.size_field(0x28000001), 0u);
  EXPECT_EQ(record.size_field(0x20000003), 0u);
  EXPECT_EQ(record.size_field(0x20000006), 0u);
  EXPECT_EQ(record.get_u32(0x08000005, 0), 0x80u);
  reverse = message(record.get_message(0x28000002, message::flat_message()));
  EXPECT_EQ(reverse.get_string(STD_DESCR, ""), "uplink");
}

// kl-msg listen to a path where nothing answers says so and ends with status 1, instead of
// listening for ever; a listened-to process that dies is reported.
TEST_F(ServicesTest, KlMsgListenReportsMissingHandlersAndDepartures) {
  ASSERT_TRUE(startLoader());
  const std::string missing[] = {std::to_string(kPublisherId) + "/99", "99"};
  for (const std::string& target : missing) {
    EXPECT_EQ(runMsg({"listen", target}),
              std::make_pair("kl-msg: " + target + ": std failure: broken path (2)", 1));
  }
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  const pid_t listener = launch({KL_MSG_PATH, "listen", pathText(kObjects)}, out[1], 2);
  close(out[1]);
  LineReader lines(out[0]);
  std::string line;
  ASSERT_TRUE(lines.next(&line, 5000));
  EXPECT_EQ(line, "listening to " + pathText(kObjects));
  kill(static_cast<pid_t>(publisherPid()), SIGTERM);
  ASSERT_TRUE(lines.next(&line, 5000));
  EXPECT_EQ(line, pathText(kObjects) + " went away");
  // kl-loader's list shows how it ended.
  EXPECT_TRUE(eventually([&] {
    return loaderEntry(kPublisherId).get_string(loader::kProcState, "") == "killed by signal 15";
  }));
  kill(listener, SIGKILL);
  waitpid(listener, nullptr, 0);
  close(out[0]);
}

// kl-msg call --timeout takes fractions of a second: a reply 0.6 s late is given up on after
// 0.2 s, with a line that says so and status 1 (with a whole second it would have come).
TEST_F(ServicesTest, KlMsgCallTimeoutTakesFractions) {
  ASSERT_TRUE(startLoader());
  service(6);
  const std::string target = "6/" + std::to_string(kAgentHandler);
  EXPECT_EQ(runMsg({"call", "--timeout", "0.2", target, "u32:SYS_CMD=CMD_GET", "u32:global(1)=60"}),
            std::make_pair("kl-msg: no reply from " + target + " within 0.2 s", 1));
}

// kl-msg serve stands in for a service: registered under the given id, it answers every
// request to its handler with the fields it was given.
TEST_F(ServicesTest, KlMsgServeAnswersWithItsFields) {
  ASSERT_TRUE(startLoader());
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  const pid_t server = launch(
      {KL_MSG_PATH, "serve", "12/3", "u32:STD_ID=5", "string:STD_DESCR=stand-in"}, out[1], 2);
  close(out[1]);
  LineReader lines(out[0]);
  std::string line;
  ASSERT_TRUE(lines.next(&line, 5000));
  EXPECT_EQ(line, "serving 12/3");
  for (unsigned int cmd : {CMD_GETOBJ, CMD_SET}) {
    const message reply = call(*driver_, 0, {12, 3}, request(cmd));
    EXPECT_EQ(errorCode(reply), 0u) << hexOf(reply);
    EXPECT_EQ(reply.get(STD_ID, 0), 5u);
    EXPECT_EQ(reply.get_string(STD_DESCR, ""), "stand-in");
  }
  EXPECT_EQ(errorCode(call(*driver_, 0, {12, 4}, request(CMD_GETOBJ))), ERROR_BRKPATH);
  kill(server, SIGTERM);
  int status = -1;
  waitpid(server, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  close(out[0]);
}

// --- kl-msg without a loader ------------------------------------------------------------------

// A socket left by a loader that died refuses connections: kl-msg says that no loader
// listens, rather than the library's bare connect line.
TEST_F(ServicesTest, KlMsgSaysNoLoaderListensOnAStaleSocket) {
  mkdir(path("/ram").c_str(), 0700);
  const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path("/ram/kelosock").c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  close(stale);  // bound, never listening: as a killed loader leaves it
  EXPECT_EQ(runMsg({"list"}),
            std::make_pair("kl-msg: no loader listening on " + path("/ram/kelosock"), 1));
}

// --- kl-msg listen
// --------------------------------------------------------------------------------

TEST_F(ServicesTest, KlMsgListenPrintsObjectsAndUnsubscribesOnInterrupt) {
  ASSERT_TRUE(startLoader());
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  const pid_t listener = launch({KL_MSG_PATH, "listen", pathText(kObjects)}, out[1], 2);
  close(out[1]);
  LineReader lines(out[0]);
  std::string line;
  ASSERT_TRUE(lines.next(&line, 5000));
  EXPECT_EQ(line, "listening to " + pathText(kObjects));
  EXPECT_TRUE(eventually([&] { return subscriberPaths().size() == 1; }));
  EXPECT_EQ(errorCode(rename(*driver_, 2, "heard")), 0u);
  ASSERT_TRUE(lines.next(&line, 5000));
  EXPECT_EQ(line, "notification: 1 object");
  std::string object;
  while (lines.next(&line, 200)) object += line + "\n";
  EXPECT_NE(object.find("[STD_ID]=2"), std::string::npos) << object;
  EXPECT_NE(object.find("[STD_DESCR]=heard"), std::string::npos) << object;

  kill(listener, SIGINT);
  int status = -1;
  for (int waited = 0; waitpid(listener, &status, WNOHANG) == 0; waited += 10) {
    if (waited > 5000) {
      ADD_FAILURE() << "kl-msg listen did not end on SIGINT";
      kill(listener, SIGKILL);
      waitpid(listener, &status, 0);
      break;
    }
    usleep(10 * 1000);
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  unsigned int unsubscribes = 0;
  EXPECT_TRUE(eventually([&] { return subscriberPaths(&unsubscribes).empty(); }));
  EXPECT_EQ(unsubscribes, 1u);
}

}  // namespace
}  // namespace kl
