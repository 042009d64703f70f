// The development loader with real sockets: a Loader runs its loop in a child process on a
// temporary root, and each test connects processes to its socket, as services would.
#include "tools/loader/loader.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kl/base/clock.h"
#include "kl/base/endian.h"
#include "kl/base/sanitizer.h"
#include "kl/looper/control.h"
#include "kl/looper/framing.h"
#include "kl/looper/path.h"
#include "kl/message/system.h"
#include "kl/testing/temp_root.h"

namespace kl {
namespace loader {
namespace {

// The handler inside a test process that sends and receives.
constexpr unsigned int kHandler = 7;

using Path = std::vector<unsigned int>;

void ignoreFailure(void*, FrameFailure, long, int) {}

message registration(unsigned int id) {
  message m;
  m.insert(SYS_TO, Path{kLoaderId});
  m.insert(SYS_CTRL, kl::ctrl::kRegister);
  m.insert(kl::ctrl::kRegistrationWords, Path{id, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
  return m;
}

// A request from handler kHandler of the sending process.
message request(const Path& to, unsigned int cmd, unsigned int requestId) {
  message m;
  m.insert(SYS_TO, to);
  m.insert(SYS_FROM, Path{kHandler});
  m.insert(SYS_CMD, cmd);
  setType(m, TYPE_REQUEST);
  setRequestID(m, requestId);
  m.insert_bool(SYS_REPLYEXP, true);
  return m;
}

unsigned int errorCode(const message& m) {
  unsigned int code = 0;
  return isError(m, &code, nullptr) ? code : 0;
}

// A process's connection to the loader.
class Process {
 public:
  explicit Process(const std::string& socketPath)
      : reader_(-1, nullptr, ignoreFailure), writer_(-1, nullptr, ignoreFailure) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    fcntl(fd_, F_SETFL, O_NONBLOCK);
    reader_.setFd(fd_);
    writer_.setFd(fd_);
  }
  ~Process() { close(fd_); }

  bool connected() const { return connected_; }
  void send(const message& m) {
    writer_.queue(m);
    writer_.flush(FrameWriter::kBlock);
  }
  void sendBytes(const std::vector<unsigned char>& bytes) {
    writer_.writeRaw(bytes.data(), bytes.size());
  }
  // The next frame from the loader within `timeoutMs`.
  bool read(message* m, int timeoutMs = 2000) {
    return reader_.readMessage(*m, (timeoutMs + 9) / 10, true);
  }
  bool quiet() {
    message m;
    return !read(&m, 50);
  }
  // Registers with `id` (0: a transient one); the id CTRL_READY assigns, or 0.
  unsigned int registerAs(unsigned int id) {
    send(registration(id));
    message ready;
    unsigned int code = 0;
    if (!read(&ready) || !isCtrl(ready, &code) || code != kl::ctrl::kReady) return 0;
    return ready.get_u32(kl::ctrl::kReadyProcessId, 0);
  }
  // Whether the loader closes the connection within `timeoutMs`; frames before it are
  // passed over.
  bool closedWithin(int timeoutMs = 2000) {
    unsigned char sink[4096];
    for (int waited = 0; waited < timeoutMs; waited += 10) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 10) <= 0) continue;
      const ssize_t n = ::read(fd_, sink, sizeof sink);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
    return false;
  }
  // The loader still answers: a CMD_NOOP to id 1 gets its reply, and it is the next frame.
  bool answered() {
    send(request({kLoaderId}, CMD_NOOP, 99));
    message reply;
    unsigned int id = 0;
    return read(&reply) && getRequestID(reply, &id) && id == 99 && !isRequest(reply);
  }

 private:
  int fd_;
  bool connected_ = false;
  FrameReader reader_;
  FrameWriter writer_;
};

class LoaderTest : public testing::TempRootTest {
 protected:
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      waitpid(pid_, &status, 0);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "loader status " << status;
    }
    testing::TempRootTest::TearDown();
  }

  // Runs a Loader with `options` in a child on this root, its error stream in a file.
  void startLoader(const Options& options = Options()) {
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      setenv("KL_ROOT", root_.c_str(), 1);
      const int err = open(path("/loader.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(err, 2);
      close(err);
      Loader loader(options);
      if (!loader.start()) _exit(1);
      loader.run();
      _exit(0);
    }
    for (int tries = 0; tries < 400; ++tries) {
      if (Process(socketPath()).connected()) return;
      usleep(5000);
    }
    FAIL() << "the loader does not listen on " << socketPath();
  }

  std::string socketPath() const { return path("/ram/kelosock"); }
  std::unique_ptr<Process> process() { return std::unique_ptr<Process>(new Process(socketPath())); }
  // A process registered as `id`.
  std::unique_ptr<Process> registered(unsigned int id) {
    std::unique_ptr<Process> p = process();
    EXPECT_EQ(p->registerAs(id), id);
    return p;
  }

  // The lines the loader wrote on its error stream so far.
  std::vector<std::string> errorLines() const {
    std::ifstream in(path("/loader.err"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // Whether the loader's error stream has a line with `text`.
  bool saidSomething(const std::string& text) const {
    for (const std::string& line : errorLines()) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }

  pid_t pid_ = -1;
};

// --- bad input closes only the connection that sent it ------------------------------------------

struct BadInput {
  const char* name;
  bool registerFirst;                // as id 30
  std::vector<unsigned char> bytes;  // sent after that
  const char* why;                   // the reason in the closing line on the error stream
};

std::vector<unsigned char> frameOf(const message& m) {
  uint32_t length;
  std::unique_ptr<unsigned char[]> frame = makeFrame(m, &length);
  return std::vector<unsigned char>(frame.get(), frame.get() + length);
}

TEST_F(LoaderTest, BadInputClosesOnlyThatConnectionWithOneLine) {
  message bareWords = registration(31);
  bareWords.insert(kl::ctrl::kRegistrationWords, Path{31, 2});
  const BadInput cases[] = {
      {"malformed frame", true, {6, 0, 0, 0, 'g', 'a', 'r', 'b', 'a', 'g'}, "malformed frame"},
      {"first frame not a registration", false, frameOf(request({20}, CMD_NOOP, 1)),
       "first frame is not a registration"},
      {"first frame a control message other than 5", false, frameOf([] {
         message m;
         m.insert(SYS_CTRL, 6u);
         return m;
       }()),
       "first frame is not a registration"},
      {"id in use", false, frameOf(registration(20)), "id 20 is in use"},
      {"the loader's own id", false, frameOf(registration(kLoaderId)), "id 1 is in use"},
      {"registration short of twelve words", false, frameOf(bareWords),
       "registration without twelve words"},
      {"oversized length prefix",
       true,
       {0xff, 0xff, 0xff, 0xff, 1, 2, 3},
       "frame of 4294967295 bytes is too large"},
      {"length prefix one above the limit", true,
       [] {
         std::vector<unsigned char> b(4);
         storeLe32(b.data(), kMaxFrameBytes + 1);
         return b;
       }(),
       "frame of 67108865 bytes is too large"},
  };
  startLoader();
  std::unique_ptr<Process> other = registered(20);
  size_t linesBefore = 0;
  for (const BadInput& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<Process> bad = process();
    if (c.registerFirst) {
      ASSERT_EQ(bad->registerAs(30), 30u);
    }
    bad->sendBytes(c.bytes);
    ASSERT_TRUE(bad->closedWithin());
    const std::vector<std::string> lines = errorLines();
    ASSERT_EQ(lines.size(), linesBefore + 1);
    EXPECT_EQ(lines.back(),
              "kl-loader: " + std::string(c.registerFirst ? "id 30" : "unregistered connection") +
                  " (pid " + std::to_string(getpid()) + "): " + c.why + ", connection closed");
    linesBefore = lines.size();
    if (c.registerFirst) {
      message gone;
      ASSERT_TRUE(other->read(&gone));
      EXPECT_EQ(gone.get(SYS_CMD, 0), CMD_DISCONNECTED);
      EXPECT_EQ(gone.get_u32_array(SYS_FROM), Path{30});
    }
    EXPECT_TRUE(other->answered());
  }
}

TEST_F(LoaderTest, ALengthPrefixAtTheLimitWaitsForItsBody) {
  startLoader();
  std::unique_ptr<Process> p = registered(20);
  std::vector<unsigned char> prefix(4);
  storeLe32(prefix.data(), kMaxFrameBytes);
  p->sendBytes(prefix);
  EXPECT_FALSE(p->closedWithin(100));
  EXPECT_TRUE(errorLines().empty());
}

// --- routing
// --------------------------------------------------------------------------------------

TEST_F(LoaderTest, FrameGoesToTheFirstIdWhichMovesToTheFrontOfFrom) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  std::unique_ptr<Process> b = registered(21);
  a->send(request({21, 5, 6}, CMD_GET, 4));
  message got;
  ASSERT_TRUE(b->read(&got));
  EXPECT_EQ(got.get_u32_array(SYS_TO), (Path{5, 6}));
  EXPECT_EQ(got.get_u32_array(SYS_FROM), (Path{20, kHandler}));
  EXPECT_FALSE(got.has(SYS_POLICY));
}

// Each case: the path A (20) sends to, then what B (21) and C (22) receive as SYS_TO, in order.
struct MultiCase {
  const char* name;
  Path to;
  std::vector<Path> atB;
  std::vector<Path> atC;
};

TEST_F(LoaderTest, MultiPathFansOutEachGroupAsItsOwnPath) {
  const MultiCase cases[] = {
      {"two groups", {PATH_MULTI, 2, 21, 5, 1, 22}, {{5}}, {{}}},
      {"same process twice", {PATH_MULTI, 1, 21, 3, 21, 8, 9}, {{}, {8, 9}}, {}},
      {"a group of count 0 ends the list", {PATH_MULTI, 1, 21, 0, 1, 22}, {{}}, {}},
      {"a group running past the end is dropped", {PATH_MULTI, 1, 22, 3, 21, 5}, {}, {{}}},
      {"behind PATH_BOTH", {PATH_BOTH, PATH_MULTI, 1, 22, 2, 21, 4}, {{4}}, {{}}},
  };
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  std::unique_ptr<Process> b = registered(21);
  std::unique_ptr<Process> c = registered(22);
  for (const MultiCase& mc : cases) {
    SCOPED_TRACE(mc.name);
    message m;
    m.insert(SYS_TO, mc.to);
    m.insert(SYS_FROM, Path{kHandler});
    m.insert(SYS_CMD, CMD_GET);
    a->send(m);
    const std::pair<Process*, const std::vector<Path>*> receivers[] = {{b.get(), &mc.atB},
                                                                       {c.get(), &mc.atC}};
    for (const auto& r : receivers) {
      for (const Path& expected : *r.second) {
        message got;
        ASSERT_TRUE(r.first->read(&got));
        EXPECT_EQ(got.get_u32_array(SYS_TO), expected);
        EXPECT_EQ(got.get_u32_array(SYS_FROM), (Path{20, kHandler}));
      }
    }
    EXPECT_TRUE(b->quiet());
    EXPECT_TRUE(c->quiet());
    EXPECT_TRUE(a->answered()) << "nothing else came back to the sender";
  }
}

// --- broken paths
// ----------------------------------------------------------------------------------

TEST_F(LoaderTest, BrokenPathRequestGetsAnErrorReplyWithItsRequestId) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  a->send(request({99, 5}, CMD_GET, 8));
  message reply;
  ASSERT_TRUE(a->read(&reply));
  EXPECT_EQ(errorCode(reply), ERROR_BRKPATH);
  unsigned int id = 0;
  EXPECT_TRUE(getRequestID(reply, &id));
  EXPECT_EQ(id, 8u);
  EXPECT_FALSE(isRequest(reply));
  EXPECT_EQ(reply.get_u32_array(SYS_TO), Path{kHandler});
}

TEST_F(LoaderTest, BrokenPathWithoutRequestIdGetsANotice) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  message m;
  m.insert(SYS_TO, Path{99, 5});
  m.insert(SYS_FROM, Path{kHandler});
  m.insert(SYS_CMD, CMD_GET);
  a->send(m);
  message notice;
  ASSERT_TRUE(a->read(&notice));
  EXPECT_EQ(errorCode(notice), ERROR_BRKPATH);
  unsigned int id = 0;
  EXPECT_FALSE(getRequestID(notice, &id));
  EXPECT_EQ(notice.get_u32_array(SYS_TO), Path{kHandler});
  EXPECT_EQ(notice.get_u32_array(SYS_FROM), (Path{99, 5}));
}

TEST_F(LoaderTest, BrokenPathErrorsAreNeverAnswered) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  for (bool withRequestId : {false, true}) {
    SCOPED_TRACE(withRequestId ? "as a reply" : "as a notice");
    message m = errorMsg(ERROR_BRKPATH, "");
    m.insert(SYS_TO, Path{99});
    m.insert(SYS_FROM, Path{kHandler});
    if (withRequestId) {
      setRequestID(m, 5);
      m.insert_bool(SYS_REPLYEXP, true);
    }
    a->send(m);
    EXPECT_TRUE(a->answered()) << "the next frame is the answer to the probe, not to the error";
  }
}

// --- departures, rights, the loader's own commands, ids
// ----------------------------------------------

TEST_F(LoaderTest, DepartureReachesEveryOtherProcess) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  std::unique_ptr<Process> b = registered(21);
  std::unique_ptr<Process> c = registered(22);
  b.reset();
  for (Process* p : {a.get(), c.get()}) {
    message gone;
    ASSERT_TRUE(p->read(&gone));
    EXPECT_EQ(gone.get(SYS_CMD, 0), CMD_DISCONNECTED);
    EXPECT_EQ(gone.get_u32_array(SYS_FROM), Path{21});
    EXPECT_TRUE(gone.has(SYS_TO));
    EXPECT_TRUE(gone.get_u32_array(SYS_TO).empty());
    EXPECT_TRUE(p->quiet());
  }
  EXPECT_TRUE(errorLines().empty()) << "an ordinary departure is not an error";
}

TEST_F(LoaderTest, PolicyBitsMarkRequestsOfThatProcessOnly) {
  Options options;
  options.policies[20] = 0x5;
  startLoader(options);
  std::unique_ptr<Process> a = registered(20);
  std::unique_ptr<Process> b = registered(21);

  a->send(request({21, 5}, CMD_GET, 3));
  message atB;
  ASSERT_TRUE(b->read(&atB));
  EXPECT_EQ(atB.get(SYS_POLICY, 0), 0x5u);

  message reply;
  reply.insert(SYS_TO, Path{21, kHandler});
  reply.insert(SYS_FROM, Path{5});
  setType(reply, TYPE_REPLY);
  setRequestID(reply, 3);
  a->send(reply);
  message back;
  ASSERT_TRUE(b->read(&back));
  EXPECT_EQ(back.get_u32_array(SYS_FROM), (Path{20, 5}));
  EXPECT_FALSE(back.has(SYS_POLICY)) << "a reply from the marked process";

  b->send(request({20, 5}, CMD_GET, 4));
  message atA;
  ASSERT_TRUE(a->read(&atA));
  EXPECT_FALSE(atA.has(SYS_POLICY)) << "a request from an unmarked process";
}

TEST_F(LoaderTest, GetAllOnTheLoaderListsTheProcesses) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  std::unique_ptr<Process> b = registered(0x10005);
  a->send(request({kLoaderId}, CMD_GETALL, 6));
  message reply;
  ASSERT_TRUE(a->read(&reply));
  unsigned int id = 0;
  ASSERT_TRUE(getRequestID(reply, &id));
  EXPECT_EQ(id, 6u);
  EXPECT_EQ(reply.get_u32_array(SYS_TO), Path{kHandler});
  EXPECT_EQ(reply.get_u32_array(SYS_FROM), Path{kLoaderId});
  const std::vector<message::flat_message> list = reply.get_message_array(STD_OBJS);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(message(list[0]).get(STD_ID, 0), 20u);
  EXPECT_EQ(message(list[1]).get(STD_ID, 0), 0x10005u);
  EXPECT_EQ(message(list[0]).get_string(kProcState, ""), "registered");
}

// A second loader on the same root refuses to take the first one's socket, which goes on
// routing; a socket left by a loader that died is replaced.
TEST_F(LoaderTest, ASecondLoaderRefusesALiveSocketAndReplacesADeadOne) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  auto startAnother = [this](const std::string& errFile) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      setenv("KL_ROOT", root_.c_str(), 1);
      const int err = open(path(errFile).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(err, 2);
      close(err);
      Loader second{Options()};
      _exit(second.start() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(startAnother("/second.err"), 1);
  std::ifstream in(path("/second.err"));
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "kl-loader: another kl-loader listens on " + socketPath());
  std::unique_ptr<Process> b = registered(21);  // the first loader still routes
  a->send(request({21, 2}, CMD_GET, 1));
  message got;
  ASSERT_TRUE(b->read(&got));
  EXPECT_EQ(got.get_u32_array(SYS_FROM), (Path{20, kHandler}));

  // The first loader dies without removing its socket: the next one takes the path.
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
  struct stat st;
  ASSERT_EQ(stat(socketPath().c_str(), &st), 0) << "the dead loader's socket is gone";
  startLoader();
  registered(22);
}

// A started service that ends before it registers is reported, whatever its status, and
// the process list shows how it ended.
TEST_F(LoaderTest, AServiceThatEndsWithoutRegisteringIsReportedAndListed) {
  Options options;
  options.services = {{"sh", "-c", "exit 0"}, {"sh", "-c", "exit 3"}};
  startLoader(options);
  for (int waited = 0; waited < 300 && !saidSomething("exited 3 without registering"); ++waited) {
    usleep(10000);
  }
  EXPECT_TRUE(saidSomething("(sh) exited 0 without registering"));
  EXPECT_TRUE(saidSomething("(sh) exited 3 without registering"));
  std::unique_ptr<Process> a = registered(20);
  a->send(request({kLoaderId}, CMD_GETALL, 1));
  message reply;
  ASSERT_TRUE(a->read(&reply));
  std::set<std::string> states;
  for (const message::flat_message& flat : reply.get_message_array(STD_OBJS)) {
    const message proc(flat);
    if (proc.get(STD_ID, BADID) == 0) states.insert(proc.get_string(kProcState, ""));
  }
  EXPECT_EQ(states, (std::set<std::string>{"exited 0", "exited 3"}));
}

TEST(SplitCommandLine, SplitsAsAShellWouldWithoutExpanding) {
  struct Case {
    const char* line;
    std::vector<std::string> words;  // empty with ok false: refused
    bool ok;
  };
  const Case cases[] = {
      {"svc 4 6", {"svc", "4", "6"}, true},
      {"  svc \t 4  ", {"svc", "4"}, true},
      {"sh -c 'exit 7'", {"sh", "-c", "exit 7"}, true},
      {"echo \"a \\\"b\\\" c\"", {"echo", "a \"b\" c"}, true},
      {"a'b c'd", {"ab cd"}, true},
      {"a\\ b", {"a b"}, true},
      {"'$HOME' \"*\"", {"$HOME", "*"}, true},
      {"''", {""}, true},
      {"", {}, true},
      {"sh -c 'exit", {}, false},
      {"say \"hi", {}, false},
      {"trailing\\", {}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    std::vector<std::string> words;
    EXPECT_EQ(splitCommandLine(c.line, &words), c.ok);
    if (c.ok) {
      EXPECT_EQ(words, c.words);
    }
  }
}

// A started service's output comes through the loader line by line, each behind its id (its
// pid before it registers); a last line without an end is kept too.
TEST_F(LoaderTest, ServiceOutputLinesCarryTheirOrigin) {
  Options options;
  options.services = {{"sh", "-c", "echo one >&2; printf 'two\\nthree' >&2"}};
  startLoader(options);
  for (int waited = 0; waited < 300 && !saidSomething("] three"); ++waited) usleep(10000);
  std::vector<std::string> relayed;
  for (const std::string& line : errorLines()) {
    if (line.compare(0, 5, "[pid ") == 0) relayed.push_back(line.substr(line.find("] ") + 2));
  }
  EXPECT_EQ(relayed, (std::vector<std::string>{"one", "two", "three"}));
}

// A started service that does not register is named once it is late.
TEST_F(LoaderTest, AServiceThatDoesNotRegisterIsNamed) {
  Options options;
  options.services = {{"sleep", "30"}};
  options.registerWarnSeconds = 1;
  startLoader(options);
  for (int waited = 0; waited < 400 && !saidSomething("has not registered"); ++waited) {
    usleep(10000);
  }
  EXPECT_TRUE(saidSomething("(sleep) has not registered after 1 s"));
}

TEST_F(LoaderTest, UnknownLoaderCommandIsNotImplemented) {
  startLoader();
  std::unique_ptr<Process> a = registered(20);
  a->send(request({kLoaderId}, 0x123456, 2));
  message reply;
  ASSERT_TRUE(a->read(&reply));
  EXPECT_EQ(errorCode(reply), ERROR_NOTIMP);
}

TEST_F(LoaderTest, TransientIdsStartAt0x10000AndSkipIdsInUse) {
  startLoader();
  std::unique_ptr<Process> taken = registered(0x10001);
  std::unique_ptr<Process> first = process();
  std::unique_ptr<Process> second = process();
  EXPECT_EQ(first->registerAs(0), 0x10000u);
  EXPECT_EQ(second->registerAs(0), 0x10002u);
  // The transient id is an ordinary hop.
  taken->send(request({0x10002, 5}, CMD_GET, 1));
  message got;
  ASSERT_TRUE(second->read(&got));
  EXPECT_EQ(got.get_u32_array(SYS_FROM), (Path{0x10001, kHandler}));
}

// --- fairness and bounds -----------------------------------------------------------------------

std::string hexOf(const message& m) {
  std::ostringstream out;
  m.dump2(out, "", 0);
  return out.str();
}

// The resident memory of process `pid` in KiB, from /proc.
long residentKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
  }
  return -1;
}

// A request of about `size` bytes from handler kHandler, expecting a reply.
message paddedRequest(const Path& to, unsigned int requestId, size_t size) {
  message m = request(to, CMD_GET, requestId);
  m.insert_string(STD_DESCR, std::string(size, 'x'));
  return m;
}

// The next frame for `p` that is not a departure notice.
bool readSkippingDepartures(Process& p, message* m, int timeoutMs) {
  while (p.read(m, timeoutMs)) {
    if (m->get(SYS_CMD, 0) != CMD_DISCONNECTED) return true;
  }
  return false;
}

class LoaderFlowTest : public LoaderTest {
 protected:
  void TearDown() override {
    for (const pid_t child : children_) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    LoaderTest::TearDown();
  }

  // A service process registered as `id` that answers every request with an empty reply,
  // after `pauseUs` (0: as fast as it can). Returns once the service is registered.
  void startEchoService(unsigned int id, unsigned int pauseUs = 0) {
    int registeredPipe[2];
    ASSERT_EQ(pipe(registeredPipe), 0);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      close(registeredPipe[0]);
      Process p(socketPath());
      if (p.registerAs(id) != id) _exit(1);
      if (write(registeredPipe[1], "r", 1) != 1) _exit(1);
      close(registeredPipe[1]);
      for (message m; p.read(&m, 30000);) {
        unsigned int requestId;
        if (!isRequest(m) || !getRequestID(m, &requestId)) continue;
        if (pauseUs != 0) usleep(pauseUs);
        message reply;
        reply.insert(SYS_TO, m.get_u32_array(SYS_FROM));
        setType(reply, TYPE_REPLY);
        setRequestID(reply, requestId);
        p.send(reply);
      }
      _exit(0);
    }
    children_.push_back(child);
    close(registeredPipe[1]);
    pollfd ready = {registeredPipe[0], POLLIN, 0};
    char byte = 0;
    const bool registered = poll(&ready, 1, 10000) == 1 && read(registeredPipe[0], &byte, 1) == 1;
    close(registeredPipe[0]);
    ASSERT_TRUE(registered) << "service " << id << " did not register";
  }

  // A process that sends requests to `to` without pause and never reads.
  pid_t startFlooder(const Path& to) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      Process p(socketPath());
      if (p.registerAs(0) == 0) _exit(1);
      for (unsigned int id = 1;; ++id) p.send(paddedRequest(to, id, 40));
    }
    children_.push_back(child);
    return child;
  }

  std::vector<pid_t> children_;
};

// Monitors get a copy of every frame routed between others, with sender, receiver and
// time; frames to and from monitors are not copied; a monitor that leaves is simply gone.
TEST_F(LoaderFlowTest, MonitorsSeeEveryRoutedFrame) {
  startLoader();
  startEchoService(5);
  std::unique_ptr<Process> first = registered(20);
  std::unique_ptr<Process> second = registered(21);
  for (Process* m : {first.get(), second.get()}) {
    m->send(request({kLoaderId}, kLoaderCmdMonitor, 1));
    message reply;
    ASSERT_TRUE(m->read(&reply));
    EXPECT_EQ(errorCode(reply), 0u);
  }
  std::unique_ptr<Process> driver = registered(9);
  // The driver's registration answer, from the loader, is the first copy.
  for (Process* m : {first.get(), second.get()}) {
    message copy;
    ASSERT_TRUE(m->read(&copy));
    EXPECT_EQ(copy.get_u32(kMonFrom, 0), kLoaderId);
    EXPECT_EQ(copy.get_u32(kMonTo, 0), 9u);
  }
  driver->send(request({5, 2}, CMD_GET, 7));
  message reply;
  ASSERT_TRUE(driver->read(&reply));
  for (Process* m : {first.get(), second.get()}) {
    message copy;
    ASSERT_TRUE(m->read(&copy));
    EXPECT_EQ(copy.get(SYS_CMD, 0), kLoaderCmdMonitor);
    EXPECT_EQ(copy.get_u32(kMonFrom, 0), 9u);
    EXPECT_EQ(copy.get_u32(kMonTo, 0), 5u);
    EXPECT_GT(copy.get_u32(kMonSeconds, 0), 1600000000u);
    message routed;
    const std::vector<unsigned char>* body =
        static_cast<const message&>(copy).get_raw_ref(kMonFrame);
    ASSERT_NE(body, nullptr);
    ASSERT_TRUE(routed.unflatten(body->data(), static_cast<unsigned int>(body->size()),
                                 message::flatten_full));
    EXPECT_EQ(routed.get(SYS_CMD, 0), CMD_GET);
    EXPECT_EQ(routed.get_u32_array(SYS_TO), Path({2}));
    EXPECT_EQ(routed.get_u32_array(SYS_FROM), Path({9, 7})) << "as delivered: the sender in front";
    ASSERT_TRUE(m->read(&copy));
    EXPECT_EQ(copy.get_u32(kMonFrom, 0), 5u);
    EXPECT_EQ(copy.get_u32(kMonTo, 0), 9u);
  }
  // A monitor's own requests and their replies are not copied to the others.
  second->send(request({5, 2}, CMD_GET, 8));
  ASSERT_TRUE(second->read(&reply));
  EXPECT_TRUE(first->quiet());
  // The first monitor leaves: the departure notices to the others are frames like any
  // other for the second.
  first.reset();
  unsigned int departures = 0;
  for (message m; second->read(&m, 500);) {
    if (m.get(SYS_CMD, 0) != kLoaderCmdMonitor) continue;
    EXPECT_EQ(m.get_u32(kMonFrom, 0), kLoaderId);
    ++departures;
  }
  EXPECT_EQ(departures, 2u) << "to 5 and to 9";
  EXPECT_TRUE(second->answered()) << "a monitor's own traffic is not copied to it";
}

// A monitor that ends with copies unread resets its connection: an ordinary departure,
// without a line on the loader's error stream.
TEST_F(LoaderFlowTest, AMonitorEndingWithCopiesUnreadLeavesQuietly) {
  startLoader();
  startEchoService(5);
  std::unique_ptr<Process> monitor = registered(20);
  monitor->send(request({kLoaderId}, kLoaderCmdMonitor, 1));
  std::unique_ptr<Process> driver = registered(9);
  for (unsigned int id = 1; id <= 200; ++id) {
    driver->send(paddedRequest({5, 2}, id, 1000));
    message reply;
    ASSERT_TRUE(readSkippingDepartures(*driver, &reply, 5000));
    if (id == 100) monitor.reset();
  }
  EXPECT_TRUE(driver->answered());
  EXPECT_EQ(errorLines(), std::vector<std::string>());
}

// A monitor that stops reading is cut off at its own bound; the services' round trips stay
// fast meanwhile and nobody else is cut off.
TEST_F(LoaderFlowTest, AStalledMonitorIsCutOffWithoutSlowingTheServices) {
  startLoader();
  startEchoService(5);
  std::unique_ptr<Process> monitor = registered(20);
  monitor->send(request({kLoaderId}, kLoaderCmdMonitor, 1));
  std::unique_ptr<Process> driver = registered(9);
  std::vector<double> roundTrips;
  for (unsigned int id = 1; id <= 1500; ++id) {
    const auto t0 = std::chrono::steady_clock::now();
    driver->send(paddedRequest({5, 2}, id, 4000));
    message reply;
    unsigned int got = 0;
    ASSERT_TRUE(readSkippingDepartures(*driver, &reply, 5000)) << "round trip " << id;
    ASSERT_TRUE(getRequestID(reply, &got) && got == id);
    roundTrips.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  std::sort(roundTrips.begin(), roundTrips.end());
  std::cout << "round trips with a stalled monitor: median " << roundTrips[roundTrips.size() / 2]
            << " ms, slowest " << roundTrips.back() << " ms\n";
  EXPECT_LT(roundTrips.back(), 1000.0);
  EXPECT_TRUE(saidSomething("monitor stopped reading")) << "the monitor was not cut off";
  EXPECT_EQ(errorLines().size(), 1u) << "only the monitor was cut off";
}

// A process floods service 5 with requests and never reads its replies. The loader keeps
// routing for everyone, paces the flood at the service's speed, and cuts off the flooder
// when its unread replies pass the cap; the service survives and the loader gives the
// memory back.
TEST_F(LoaderFlowTest, AFloodingClientNeitherStarvesOthersNorKillsItsTarget) {
  Options options;
  options.maxQueuedBytes = 4u << 20;
  startLoader(options);
  startEchoService(5);
  startEchoService(7);
  std::unique_ptr<Process> driver = registered(9);
  const long rssBefore = residentKiB(pid_);
  startFlooder({5, 2});
  // Round trips to the other service while the flood goes on.
  std::vector<double> roundTrips;
  for (unsigned int id = 1; id <= 100; ++id) {
    const uint32_t start = getJiffies();
    const auto t0 = std::chrono::steady_clock::now();
    driver->send(request({7, 2}, CMD_GET, id));
    message reply;
    unsigned int got = 0;
    ASSERT_TRUE(readSkippingDepartures(*driver, &reply, 5000)) << "round trip " << id;
    ASSERT_TRUE(getRequestID(reply, &got) && got == id) << hexOf(reply);
    roundTrips.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    (void)start;
    usleep(20000);
  }
  std::sort(roundTrips.begin(), roundTrips.end());
  std::cout << "round trips to another service during the flood: median " << roundTrips[50]
            << " ms, slowest " << roundTrips.back() << " ms\n";
  // A starved loader answers in seconds, if at all; a fair one in well under a second even
  // under a sanitizer or an emulator.
  EXPECT_LT(roundTrips.back(), 1000.0);
  for (int waited = 0; waited < 300 && !saidSomething("stopped reading"); ++waited) usleep(100000);
  EXPECT_TRUE(saidSomething("stopped reading")) << "the flooder was not cut off";
  const long rssPeak = residentKiB(pid_);
  // The flooded service is alive and answers through the loader.
  driver->send(request({5, 2}, CMD_GET, 1000));
  message reply;
  unsigned int got = 0;
  ASSERT_TRUE(readSkippingDepartures(*driver, &reply, 5000));
  EXPECT_TRUE(getRequestID(reply, &got) && got == 1000 && !isError(reply, nullptr, nullptr));
  EXPECT_FALSE(saidSomething("id 5 "));
  const long rssAfter = residentKiB(pid_);
  std::cout << "loader resident memory: " << rssBefore << " KiB before, " << rssPeak
            << " KiB at the cut-off, " << rssAfter << " KiB after\n";
#ifndef KL_ADDRESS_SANITIZER  // which holds freed memory in its quarantine
  EXPECT_LT(rssAfter, rssBefore + 16 * 1024);
#endif
}

// A sender that reads its replies but sends far faster than its receiver reads: the loader
// stops reading the sender while the receiver's queue is long, so neither is cut off and
// every request is answered.
TEST_F(LoaderFlowTest, AFastSenderIsPacedAtItsReceiversSpeed) {
  Options options;
  options.maxQueuedBytes = 1u << 20;
  startLoader(options);
  startEchoService(5, 50);
  std::unique_ptr<Process> sender = registered(9);
  unsigned int sent = 0;
  unsigned int answered = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  for (message m; std::chrono::steady_clock::now() < end;) {
    sender->send(paddedRequest({5, 2}, ++sent, 200));
    while (sender->read(&m, 0)) {
      ASSERT_FALSE(isError(m, nullptr, nullptr)) << hexOf(m);
      ++answered;
    }
  }
  for (message m; answered < sent && readSkippingDepartures(*sender, &m, 5000);) {
    ASSERT_FALSE(isError(m, nullptr, nullptr)) << hexOf(m);
    ++answered;
  }
  std::cout << "requests sent in 3 s to a slow service: " << sent << "\n";
  EXPECT_EQ(answered, sent);
  EXPECT_FALSE(saidSomething("stopped reading"));
  // Far more than the cap's worth of requests went through.
  EXPECT_GT(sent * 200u, 2u << 20);
}

// A process that stops reading: frames for it queue up to the cap, then it is cut off at
// once. Every request sent to it is answered with ERROR_BRKPATH exactly once: those still
// queued for it, and those that reached its socket, which it can no longer answer.
TEST_F(LoaderFlowTest, ACutOffAnswersTheRequestsQueuedForIt) {
  Options options;
  options.maxQueuedBytes = 1u << 20;
  startLoader(options);
  std::unique_ptr<Process> stopped = registered(40);
  std::unique_ptr<Process> sender = registered(41);
  const unsigned int sent = 1200;
  for (unsigned int id = 1; id <= sent; ++id) sender->send(paddedRequest({40, 3}, id, 2000));
  std::set<unsigned int> answered;
  for (message m; answered.size() < sent && readSkippingDepartures(*sender, &m, 3000);) {
    unsigned int id = 0, code = 0;
    ASSERT_TRUE(getRequestID(m, &id)) << hexOf(m);
    ASSERT_TRUE(isError(m, &code, nullptr));
    EXPECT_EQ(code, ERROR_BRKPATH);
    EXPECT_EQ(m.get_u32_array(SYS_TO), Path{kHandler});
    EXPECT_TRUE(answered.insert(id).second) << "answered twice: " << id;
  }
  EXPECT_TRUE(
      saidSomething("kl-loader: id 40 (pid " + std::to_string(getpid()) + "): stopped reading ("));
  // Some reached the stopped process's socket before the cut-off: answered all the same.
  unsigned int delivered = 0;
  for (message m; stopped->read(&m, 200);) delivered += isRequest(m) ? 1 : 0;
  EXPECT_GT(delivered, 0u);
  EXPECT_EQ(answered.size(), sent);
}

// A process that dies with requests it has read and not answered: each sender gets
// ERROR_BRKPATH for each at once, not a time-out; a request it did answer is not answered
// again.
TEST_F(LoaderTest, RequestsToAProcessThatDiesAreAnswered) {
  startLoader();
  fflush(nullptr);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    Process p(socketPath());
    if (p.registerAs(50) != 50 || write(ready[1], "a", 1) != 1) _exit(1);
    message first;
    if (!p.read(&first, 5000)) _exit(1);
    message reply;
    reply.insert(SYS_TO, first.get_u32_array(SYS_FROM));
    setType(reply, TYPE_REPLY);
    unsigned int id = 0;
    getRequestID(first, &id);
    setRequestID(reply, id);
    p.send(reply);  // the first request is answered, the others are not
    for (message m; p.read(&m, 300);) {
    }
    if (write(ready[1], "b", 1) != 1) _exit(1);
    pause();
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);  // registered
  std::unique_ptr<Process> sender = registered(51);
  for (unsigned int id = 1; id <= 3; ++id) sender->send(request({50, 2}, CMD_GET, id));
  message m;
  ASSERT_TRUE(sender->read(&m));
  unsigned int id = 0;
  EXPECT_TRUE(getRequestID(m, &id) && id == 1 && !isError(m, nullptr, nullptr)) << hexOf(m);
  ASSERT_EQ(read(ready[0], &byte, 1), 1);  // it has read the other two
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  const auto t0 = std::chrono::steady_clock::now();
  std::set<unsigned int> broken;
  while (broken.size() < 2 && readSkippingDepartures(*sender, &m, 2000)) {
    unsigned int code = 0;
    ASSERT_TRUE(getRequestID(m, &id) && isError(m, &code, nullptr)) << hexOf(m);
    EXPECT_EQ(code, ERROR_BRKPATH);
    broken.insert(id);
  }
  EXPECT_EQ(broken, (std::set<unsigned int>{2, 3}));
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 1.0);
  EXPECT_FALSE(readSkippingDepartures(*sender, &m, 200)) << "more answers: " << hexOf(m);
  close(ready[0]);
  close(ready[1]);
}

// All queues together have a cap too: past it the largest queue is cut off.
TEST_F(LoaderFlowTest, TheCapHoldsForAllQueuesTogether) {
  Options options;
  options.maxQueuedBytes = 1u << 20;
  options.maxTotalQueuedBytes = 1536u << 10;
  startLoader(options);
  std::unique_ptr<Process> first = registered(40);
  std::unique_ptr<Process> second = registered(41);
  std::unique_ptr<Process> sender = registered(42);
  for (unsigned int id = 1; id <= 450; ++id) sender->send(paddedRequest({40, 3}, id, 2000));
  for (unsigned int id = 1; id <= 450; ++id) sender->send(paddedRequest({41, 3}, id, 2000));
  for (int waited = 0; waited < 50 && !saidSomething("for all)"); ++waited) usleep(100000);
  EXPECT_TRUE(saidSomething(" bytes queued, ")) << "no cut-off for the sum of the queues";
  // The loader still answers the sender, behind the ERROR_BRKPATH replies for its requests.
  sender->send(request({kLoaderId}, CMD_NOOP, 9999));
  unsigned int id = 0;
  for (message m; id != 9999 && sender->read(&m, 3000);) getRequestID(m, &id);
  EXPECT_EQ(id, 9999u);
}

// SIGTERM ends the loader in time, even with a service that ignores it and one that is
// stopped.
TEST_F(LoaderFlowTest, SigtermEndsTheLoaderWhateverItsChildrenDo) {
  Options options;
  options.services = {{"sh", "-c", "trap '' TERM; while :; do sleep 1; done"}, {"sleep", "100"}};
  startLoader(options);
  // Both services are started soon after the loader listens (later under an emulator).
  std::vector<pid_t> started;
  for (int waited = 0; waited < 500 && started.size() < 2; ++waited) {
    if (waited > 0) usleep(10000);
    std::ifstream in("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) +
                     "/children");
    started.clear();
    for (pid_t child; in >> child;) started.push_back(child);
  }
  ASSERT_EQ(started.size(), 2u);
  usleep(100000);  // the shell sets its trap
  kill(started[1], SIGSTOP);
  const auto t0 = std::chrono::steady_clock::now();
  kill(pid_, SIGTERM);
  int status = 0;
  for (int waited = 0; waited < 1000 && waitpid(pid_, &status, WNOHANG) == 0; ++waited) {
    usleep(10000);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const bool exited = WIFEXITED(status);
  if (!exited) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
  for (const pid_t child : started) {
    EXPECT_NE(kill(child, 0), 0) << "child " << child << " lives";
    kill(child, SIGKILL);
  }
  ASSERT_TRUE(exited) << "still running after " << seconds << " s";
  EXPECT_LT(seconds, 2.5);
}

}  // namespace
}  // namespace loader
}  // namespace kl
