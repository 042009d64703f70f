// The development loader with real sockets: a Loader runs its loop in a child process on a
// temporary root, and each test connects processes to its socket, as services would.
#include "tools/loader/loader.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kl/base/endian.h"
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

}  // namespace
}  // namespace loader
}  // namespace kl
