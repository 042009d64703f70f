#include "kl/runner/runner.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "kl/base/clock.h"

namespace kl {
namespace {

class TestRunner : public Runner {
 public:
  void stop() { stop_ = true; }
};

void priorHandler(int) {}

sighandler_t currentHandler(int sig) {
  struct sigaction now;
  sigaction(sig, nullptr, &now);
  return now.sa_handler;
}

class RunnerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int sig : {SIGINT, SIGHUP, SIGUSR1}) signal(sig, priorHandler);
  }
  void TearDown() override {
    runner_.shutdown();
    for (int sig : {SIGINT, SIGHUP, SIGUSR1}) signal(sig, SIG_DFL);
  }

  static void count(void* ctx, int sig) { static_cast<std::vector<int>*>(ctx)->push_back(sig); }

  TestRunner runner_;
  std::vector<int> seen_;
};

TEST_F(RunnerTest, IsTheProcessRunner) { EXPECT_EQ(getRunner(), &runner_); }

TEST_F(RunnerTest, PipeOpensOnceAndRestoreBringsBackThePriorAction) {
  EXPECT_TRUE(runner_.setSigaction(SIGINT, Runner::SIGACT_HANDLE));
  EXPECT_TRUE(runner_.setSigaction(SIGINT, Runner::SIGACT_HANDLE));
  EXPECT_EQ(runner_.socketCount(), 1u);  // the self-pipe
  EXPECT_EQ(currentHandler(SIGINT), handleSignal);
  EXPECT_TRUE(runner_.setSigaction(SIGINT, Runner::SIGACT_RESTORE));
  EXPECT_EQ(runner_.socketCount(), 0u);
  EXPECT_EQ(currentHandler(SIGINT), priorHandler);
}

// Numbers past the table are refused; 0 is a number the table has (its disposition is the
// initial one, so asking for that changes nothing), but no signal the system can act on.
TEST_F(RunnerTest, SignalNumbersAtAndPastTheTablesEnds) {
  EXPECT_FALSE(runner_.setSigaction(65, Runner::SIGACT_IGNORE));
  EXPECT_FALSE(runner_.setSigaction(-1, Runner::SIGACT_IGNORE));
  EXPECT_TRUE(runner_.setSigaction(0, Runner::SIGACT_RESTORE));
  EXPECT_FALSE(runner_.setSigaction(0, Runner::SIGACT_IGNORE));
}

void priorSiginfoHandler(int, siginfo_t*, void*) {}

// A prior three-argument handler (the crash handler is one) comes back with SA_SIGINFO, or
// it would be called with one argument.
TEST_F(RunnerTest, RestoreKeepsAPriorSiginfoHandler) {
  struct sigaction prior = {};
  prior.sa_sigaction = priorSiginfoHandler;
  prior.sa_flags = SA_SIGINFO;
  sigemptyset(&prior.sa_mask);
  ASSERT_EQ(sigaction(SIGUSR1, &prior, nullptr), 0);
  EXPECT_TRUE(runner_.setSigaction(SIGUSR1, Runner::SIGACT_HANDLE));
  EXPECT_TRUE(runner_.setSigaction(SIGUSR1, Runner::SIGACT_RESTORE));
  struct sigaction now;
  sigaction(SIGUSR1, nullptr, &now);
  EXPECT_TRUE(now.sa_flags & SA_SIGINFO);
  EXPECT_EQ(now.sa_sigaction, priorSiginfoHandler);
}

TEST_F(RunnerTest, PipeClosesWhenTheLastHandledSignalLeaves) {
  runner_.setSigaction(SIGINT, Runner::SIGACT_HANDLE);
  runner_.setSigaction(SIGHUP, Runner::SIGACT_HANDLE);
  runner_.setSigaction(SIGINT, Runner::SIGACT_IGNORE);
  EXPECT_EQ(currentHandler(SIGINT), SIG_IGN);
  EXPECT_EQ(runner_.socketCount(), 1u);
  runner_.setSigaction(SIGHUP, Runner::SIGACT_DEFAULT);
  EXPECT_EQ(currentHandler(SIGHUP), SIG_DFL);
  EXPECT_EQ(runner_.socketCount(), 0u);
  // The prior action was captured when each signal first left SIGACT_RESTORE.
  runner_.setSigaction(SIGHUP, Runner::SIGACT_RESTORE);
  EXPECT_EQ(currentHandler(SIGHUP), priorHandler);
}

TEST_F(RunnerTest, EachDeliveryRunsTheCallbackOnTheLoop) {
  EXPECT_TRUE(runner_.addSighandler(SIGUSR1, &seen_, count, true));
  raise(SIGUSR1);
  raise(SIGUSR1);
  EXPECT_TRUE(seen_.empty());  // nothing runs in signal context
  runner_.runSocks(getJiffies());
  EXPECT_EQ(seen_, (std::vector<int>{SIGUSR1, SIGUSR1}));
}

TEST_F(RunnerTest, SignalsNoLongerHandledAreDropped) {
  runner_.addSighandler(SIGUSR1, &seen_, count, true);
  runner_.addSighandler(SIGHUP, &seen_, count, true);
  raise(SIGUSR1);
  runner_.setSigaction(SIGUSR1, Runner::SIGACT_IGNORE);  // still queued in the pipe
  raise(SIGHUP);
  runner_.runSocks(getJiffies());
  EXPECT_EQ(seen_, (std::vector<int>{SIGHUP}));
}

TEST_F(RunnerTest, RunLoopDeliversSignalsAndStops) {
  struct Ctx {
    TestRunner* runner;
    int got = 0;
  } ctx{&runner_};
  runner_.addSighandler(
      SIGHUP, &ctx,
      [](void* p, int) {
        Ctx* c = static_cast<Ctx*>(p);
        ++c->got;
        c->runner->stop();
      },
      true);
  runner_.addTimer(
      nullptr, [](void*) { raise(SIGHUP); }, 1);
  runner_.run();
  EXPECT_EQ(ctx.got, 1);
}

TEST_F(RunnerTest, ShutdownRestoresEverySignalWithACallback) {
  runner_.addSighandler(SIGINT, &seen_, count, true);
  runner_.addSighandler(SIGHUP, &seen_, count, true);
  runner_.addSighandler(SIGUSR1, &seen_, count, false);  // callback only
  runner_.shutdown();
  EXPECT_EQ(currentHandler(SIGINT), priorHandler);
  EXPECT_EQ(currentHandler(SIGHUP), priorHandler);
  EXPECT_EQ(currentHandler(SIGUSR1), priorHandler);
  EXPECT_EQ(runner_.socketCount(), 0u);
}

TEST_F(RunnerTest, SignalNumbersAbove64AreRefused) {
  EXPECT_FALSE(runner_.addSighandler(70, &seen_, count, true));
  EXPECT_FALSE(runner_.removeSighandler(65, true));
  EXPECT_FALSE(runner_.setSigaction(65, Runner::SIGACT_HANDLE));
  EXPECT_TRUE(runner_.removeSighandler(64, false));
}

// Member-function timers, with the virtual method looked up on the object when armed.
struct Base {
  virtual ~Base() = default;
  virtual void tick() { log.push_back("base"); }
  std::vector<std::string> log;
};
struct Derived : Base {
  void tick() override { log.push_back("derived"); }
  void other() { log.push_back("other"); }
};

TEST_F(RunnerTest, MemberFunctionTimers) {
  Derived d;
  addTimer<Base>(&d, &Base::tick, 0);
  addTimer(&d, &Derived::other, 0);
  TimerPtr cancelled = addTimer(&d, &Derived::other, 0);
  EXPECT_TRUE(removeTimer(&cancelled));
  EXPECT_FALSE(cancelled);
  runner_.runTimers();
  EXPECT_EQ(d.log, (std::vector<std::string>{"derived", "other"}));
}

TEST(RunnerDeathTest, ASecondRunnerEndsTheProcess) {
  EXPECT_EXIT(
      {
        Runner first;
        Runner second;
      },
      ::testing::ExitedWithCode(1), "ERROR: created more than two runners\n");
}

}  // namespace
}  // namespace kl
