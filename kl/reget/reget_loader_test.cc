// The fetchers end to end: kl-loader runs under a temporary root and starts
// reget_test_service (process 0x40, see that file), this process registers with the loader
// as a transient process and fetches from the service's handlers through it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kl/base/clock.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "kl/reget/async_getall.h"
#include "kl/reget/async_reget.h"
#include "kl/reget/reget.h"
#include "kl/reget/reget_test_util.h"

namespace kl {
namespace {

using testing::Recorder;
using testing::turnUntil;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using Ids = std::vector<unsigned int>;

constexpr unsigned int kService = 0x40;
constexpr unsigned int kList = 2;     // serves 1 2 3 (continuation 7), then 4 5
constexpr unsigned int kRefuser = 3;  // answers ERROR_NOTALLOWED "list refused"
constexpr unsigned int kSilent = 4;   // never answers
constexpr unsigned int kCmdHistory = 0xfd0101;
constexpr unsigned int kJobHandler = 3;
constexpr unsigned int kTurnTicks = 300;  // a fetch that takes longer has failed

// The root and the loader are set up before any test: the root is read once per process.
class LoaderEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    char pattern[] = "/tmp/kl-reget-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    setenv("KL_ROOT", root_.c_str(), 1);
    fflush(nullptr);
    const pid_t parent = getpid();
    loader_ = fork();
    if (loader_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (getppid() != parent) _exit(1);
      const std::string log = root_ + "/loader.log";
      if (freopen(log.c_str(), "w", stdout) == nullptr) _exit(1);
      dup2(1, 2);
      execl(KL_LOADER_PATH, "kl-loader", KL_REGET_SERVICE_PATH, static_cast<char*>(nullptr));
      _exit(127);
    }
    ASSERT_GT(loader_, 0);
    const std::string socket = root_ + "/ram/kelosock";
    struct stat st;
    for (int i = 0; i < 500 && stat(socket.c_str(), &st) != 0; ++i) usleep(10000);
    ASSERT_EQ(stat(socket.c_str(), &st), 0) << "kl-loader did not come up";
  }
  void TearDown() override {
    if (loader_ > 0) {
      kill(loader_, SIGTERM);
      waitpid(loader_, nullptr, 0);
    }
    const std::string command = "rm -rf '" + root_ + "'";
    EXPECT_EQ(system(command.c_str()), 0);
  }

 private:
  std::string root_;
  pid_t loader_ = -1;
};

::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new LoaderEnvironment);

class RegetLoaderTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    looper_ = new Looper(Looper::kConnect, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    jobs_ = new Handler;
    looper_->addHandler(kJobHandler, jobs_);
    // The loader starts the service; until it has registered, its path is broken.
    for (int i = 0; i < 250 && !serviceUp_; ++i) {
      message m = path(kList);
      m.insert(SYS_CMD, kCmdHistory);
      serviceUp_ = !isError(looper_->exchangeMessage(m, 100), nullptr, nullptr);
      if (!serviceUp_) usleep(20000);
    }
  }
  static void TearDownTestSuite() {
    delete jobs_;
    delete looper_;
  }
  void SetUp() override { ASSERT_TRUE(serviceUp_) << "reget_test_service did not register"; }
  void TearDown() override {
    while (!AsyncGetall::instances.empty()) AsyncGetall::instances.front()->done();
    history();  // forget this test's requests
  }

  static message path(unsigned int handler) {
    message m;
    m.insert(SYS_TO, {kService, handler});
    return m;
  }
  // The requests the list handler received since the last call.
  static std::vector<message> history() {
    message m = path(kList);
    m.insert(SYS_CMD, kCmdHistory);
    std::vector<message> requests;
    for (const message::flat_message& flat :
         looper_->exchangeMessage(m, 300).get_message_array(STD_OBJS)) {
      requests.emplace_back(flat);
    }
    return requests;
  }
  static Ids fullFetch(unsigned int handler, unsigned int timeout, unsigned int filter) {
    FullReget all;
    all.setFilter(filter);
    all.setTimeout(timeout);
    all.setBase(path(handler));
    Ids ids;
    while (!all.isEmpty()) {
      const message obj = all.pop();
      EXPECT_EQ(obj.get_u32(kRegetFilterField, 0), filter);
      ids.push_back(obj.get(STD_ID, 0));
    }
    return ids;
  }
  void startAsync(unsigned int handler, unsigned int timeout) {
    message request = path(handler);
    request.insert(SYS_CMD, CMD_GETALL);
    recorder_.fetch = &fetch_;
    fetch_.start(request, &recorder_, Recorder::onObject, Recorder::onDone, timeout);
  }
  bool turnUntilDone() {
    return turnUntil(
        *looper_, [this] { return recorder_.doneCalls > 0; }, kTurnTicks);
  }
  static bool turnUntilNoJobs() {
    return turnUntil(
        *looper_, [] { return AsyncGetall::instances.empty(); }, kTurnTicks);
  }
  // Lets replies that might still come arrive.
  static void turnBriefly() {
    turnUntil(
        *looper_, [] { return false; }, 10);
  }

  static Looper* looper_;
  static Handler* jobs_;
  static bool serviceUp_;
  AsyncReget fetch_;
  Recorder recorder_;
};

Looper* RegetLoaderTest::looper_ = nullptr;
Handler* RegetLoaderTest::jobs_ = nullptr;
bool RegetLoaderTest::serviceUp_ = false;

TEST_F(RegetLoaderTest, FullRegetFetchesBothChunks) {
  EXPECT_EQ(fullFetch(kList, 0, 0x33), Ids({1, 2, 3, 4, 5}));
  const std::vector<message> requests = history();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_FALSE(requests[0].has(STD_GETALLID));
  EXPECT_EQ(requests[1].get(STD_GETALLID, 0), 7u);
  for (const message& r : requests) {
    EXPECT_EQ(r.get(SYS_CMD, 0), CMD_GETALL);
    EXPECT_EQ(r.get_u32(kRegetFilterField, 0), 0x33u);
  }
}

TEST_F(RegetLoaderTest, AsyncRegetFetchesBothChunks) {
  startAsync(kList, AsyncReget::kDefaultTimeout);
  ASSERT_TRUE(turnUntilDone());
  EXPECT_EQ(recorder_.ids, Ids({1, 2, 3, 4, 5}));
  EXPECT_EQ(recorder_.doneCalls, 1);
  EXPECT_FALSE(recorder_.lastReply.has(STD_GETALLID));
  EXPECT_EQ(history().size(), 2u);
}

TEST_F(RegetLoaderTest, AsyncGetallDeliversEachChunkInReverse) {
  sendAsyncGetall(jobs_, &recorder_, Recorder::onObject, kService, kList, CMD_GETALL);
  ASSERT_TRUE(turnUntilNoJobs());
  EXPECT_EQ(recorder_.ids, Ids({3, 2, 1, 5, 4}));
  EXPECT_EQ(jobs_->pendingPosts(), 0u);
}

TEST_F(RegetLoaderTest, ErrorReply) {
  CaptureStderr();
  EXPECT_TRUE(fullFetch(kRefuser, 0, 0).empty());
  EXPECT_EQ(GetCapturedStderr(), "FULLREGET: list refused (9)\n");

  startAsync(kRefuser, AsyncReget::kDefaultTimeout);
  ASSERT_TRUE(turnUntilDone());
  EXPECT_EQ(getError(recorder_.lastReply), "list refused (9)");
  EXPECT_FALSE(fetch_.running());

  CaptureStderr();
  sendAsyncGetall(jobs_, &recorder_, Recorder::onObject, kService, kRefuser, CMD_GETALL);
  ASSERT_TRUE(turnUntilNoJobs());
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_TRUE(recorder_.ids.empty());
}

TEST_F(RegetLoaderTest, TimeOut) {
  const unsigned int start = getJiffies();
  CaptureStderr();
  EXPECT_TRUE(fullFetch(kSilent, 20, 0).empty());
  EXPECT_EQ(GetCapturedStderr(), "FULLREGET: std failure: timeout (13)\n");
  EXPECT_GE(getJiffies() - start, 20u);

  startAsync(kSilent, 20);
  ASSERT_TRUE(turnUntilDone());
  unsigned int code = 0;
  EXPECT_TRUE(isError(recorder_.lastReply, &code, nullptr));
  EXPECT_EQ(code, ERROR_TIMEOUT);
  EXPECT_GE(getJiffies() - start, 40u);
}

TEST_F(RegetLoaderTest, StopInsideTheObjectCallback) {
  recorder_.stopAt = 2;
  startAsync(kList, AsyncReget::kDefaultTimeout);
  ASSERT_TRUE(turnUntilDone());
  turnBriefly();
  EXPECT_EQ(recorder_.ids, Ids({1, 2}));
  EXPECT_EQ(recorder_.doneCalls, 1);
  EXPECT_EQ(history().size(), 1u);  // no continuation was asked for
}

TEST_F(RegetLoaderTest, JobsStoppedEarly) {
  // Waiting for a handler that never answers: only a stop ends the job.
  const unsigned int waiting =
      sendAsyncGetall(jobs_, &recorder_, Recorder::onObject, kService, kSilent, CMD_GETALL);
  EXPECT_EQ(jobs_->pendingPosts(), 1u);
  stopAsyncGetall(waiting);
  EXPECT_TRUE(AsyncGetall::instances.empty());
  EXPECT_EQ(jobs_->pendingPosts(), 0u);

  // Stopped before its reply came: the reply is dropped.
  stopAsyncGetall(
      sendAsyncGetall(jobs_, &recorder_, Recorder::onObject, kService, kList, CMD_GETALL));
  turnBriefly();
  EXPECT_TRUE(recorder_.ids.empty());
  EXPECT_EQ(history().size(), 1u);

  // Stopped by its own callback after two objects of the first chunk.
  recorder_.stopAt = 2;
  recorder_.job =
      sendAsyncGetall(jobs_, &recorder_, Recorder::onObject, kService, kList, CMD_GETALL);
  ASSERT_TRUE(turnUntilNoJobs());
  turnBriefly();
  EXPECT_EQ(recorder_.ids, Ids({3, 2}));
  EXPECT_EQ(history().size(), 1u);
}

}  // namespace
}  // namespace kl
