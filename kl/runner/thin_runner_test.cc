#include "kl/runner/thin_runner.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kl/base/clock.h"

namespace kl {
namespace {

// A ThinRunner whose loop a test can stop, with a log of what the callbacks saw.
class TestRunner : public ThinRunner {
 public:
  void stop() { stop_ = true; }
  using ThinRunner::sleepTime;
};

class ThinRunnerTest : public ::testing::Test {
 protected:
  ~ThinRunnerTest() override {
    for (int fd : fds_) close(fd);
  }

  // A pipe whose read end is ready: returns the read end.
  int readablePipe() {
    int p[2];
    EXPECT_EQ(pipe(p), 0);
    EXPECT_EQ(write(p[1], "x", 1), 1);
    fds_.push_back(p[0]);
    fds_.push_back(p[1]);
    return p[0];
  }

  // Stops the loop `ticks` from now.
  void stopAfter(unsigned int ticks) {
    runner_.addTimer(
        this, [](void* self) { static_cast<ThinRunnerTest*>(self)->runner_.stop(); }, ticks);
  }

  TestRunner runner_;
  std::vector<std::string> log_;
  std::vector<int> fds_;
};

// Appends its name to the log of the test that owns it.
struct Recorder {
  std::vector<std::string>* log;
  std::string name;
  static void fire(void* self) {
    Recorder* r = static_cast<Recorder*>(self);
    r->log->push_back(r->name);
  }
};

TEST_F(ThinRunnerTest, SleepTimeFollowsTheNearestTimer) {
  EXPECT_EQ(runner_.sleepTime(getJiffies()), -1);
  TimerPtr far = runner_.addTimer(nullptr, Recorder::fire, 2000);  // 20 s ahead
  EXPECT_EQ(runner_.sleepTime(getJiffies()), 10000);
  TimerPtr near = runner_.addTimer(nullptr, Recorder::fire, 30);
  const int ms = runner_.sleepTime(getJiffies());
  EXPECT_GT(ms, 250);
  EXPECT_LE(ms, 300);
  runner_.addTimer(nullptr, Recorder::fire, 0);
  EXPECT_EQ(runner_.sleepTime(getJiffies()), 0);
  EXPECT_EQ(runner_.sleepTime(getJiffies() + 359999), 0);  // long overdue is still due
  EXPECT_TRUE(runner_.removeTimer(far));
  EXPECT_TRUE(runner_.removeTimer(near));
}

TEST_F(ThinRunnerTest, OverlongTimeoutIsClampedWithAWarning) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(limitMaxTimeout(4294607296u), 4294607296u);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(limitMaxTimeout(4294607297u), 4294607296u);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "WARNING: limiting timer timeout to 4294607296cs\n");
}

TEST_F(ThinRunnerTest, TimersFireInExpiryOrderAndStopTheLoop) {
  Recorder a{&log_, "a"}, b{&log_, "b"}, c{&log_, "c"};
  runner_.addTimer(&c, Recorder::fire, 3);
  runner_.addTimer(&a, Recorder::fire, 1);
  runner_.addTimer(&b, Recorder::fire, 2);
  stopAfter(4);
  runner_.run();
  EXPECT_EQ(log_, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(runner_.timerCount(), 0u);
}

// A timer armed with time-out 0 inside a timer callback runs in the next pass.
TEST_F(ThinRunnerTest, ZeroTimeoutArmedInACallbackWaitsForTheNextPass) {
  struct Ctx {
    ThinRunner* runner;
    int fired = 0;
    int rearmed = 0;
  } ctx{&runner_};
  runner_.addTimer(
      &ctx,
      [](void* p) {
        Ctx* c = static_cast<Ctx*>(p);
        ++c->fired;
        c->runner->addTimer(
            p, [](void* q) { ++static_cast<Ctx*>(q)->rearmed; }, 0);
      },
      0);
  runner_.runTimers();
  EXPECT_EQ(ctx.fired, 1);
  EXPECT_EQ(ctx.rearmed, 0);
  runner_.runTimers();
  EXPECT_EQ(ctx.rearmed, 1);
}

TEST_F(ThinRunnerTest, TimerArmedAndRemovedInOneCallbackNeverFires) {
  struct Ctx {
    ThinRunner* runner;
    int late = 0;
  } ctx{&runner_};
  runner_.addTimer(
      &ctx,
      [](void* p) {
        Ctx* c = static_cast<Ctx*>(p);
        TimerPtr t = c->runner->addTimer(
            p, [](void* q) { ++static_cast<Ctx*>(q)->late; }, 0);
        EXPECT_TRUE(c->runner->removeTimer(t));
      },
      0);
  runner_.runTimers();
  runner_.runTimers();
  EXPECT_EQ(ctx.late, 0);
  EXPECT_EQ(runner_.timerCount(), 0u);
}

TEST_F(ThinRunnerTest, RemoveByContextAndCallbackTakesTheFirstMatch) {
  Recorder r{&log_, "r"};
  runner_.addTimer(&r, Recorder::fire, 100);
  runner_.addTimer(&r, Recorder::fire, 200);
  runner_.addDelayedTimer(&r, Recorder::fire, 5);
  EXPECT_TRUE(runner_.removeTimer(&r, Recorder::fire));
  EXPECT_EQ(runner_.timerCount(), 2u);
  EXPECT_TRUE(runner_.removeTimer(&r, Recorder::fire));
  EXPECT_TRUE(runner_.removeTimer(&r, Recorder::fire));  // the delayed one, marked
  EXPECT_FALSE(runner_.removeTimer(&log_, Recorder::fire));
  EXPECT_FALSE(runner_.removeTimer(TimerPtr()));
  runner_.addDelayedTimers();  // frees the marked record
  EXPECT_EQ(runner_.timerCount(), 0u);
}

TEST_F(ThinRunnerTest, DelayedTimerCountsFromWhenTheLoopRegainsControl) {
  Recorder r{&log_, "delayed"};
  runner_.addDelayedTimer(&r, Recorder::fire, 2);
  usleep(50000);  // five ticks pass before the loop starts
  runner_.runTimers();
  EXPECT_TRUE(log_.empty());  // the countdown started only now
  stopAfter(4);
  runner_.run();
  EXPECT_EQ(log_, (std::vector<std::string>{"delayed"}));
}

// One pass serves the expired timers after the wait and before the ready sockets, and serves
// them although poll() returned ready descriptors.
TEST_F(ThinRunnerTest, APassRunsTimersBeforeReadySockets) {
  Recorder timer{&log_, "timer"};
  runner_.addTimer(&timer, Recorder::fire, 0);
  runner_.addSocket(
      readablePipe(), &log_,
      [](void* log, int, unsigned int) {
        static_cast<std::vector<std::string>*>(log)->push_back("socket");
      },
      POLLIN);
  runner_.runSocks(getJiffies());
  EXPECT_EQ(log_, (std::vector<std::string>{"timer", "socket"}));
}

// A delayed timer armed in a socket callback that then goes on working for ten ticks counts
// from the end of the socket pass, not from when it was armed.
TEST_F(ThinRunnerTest, DelayedTimerArmedInACallbackIgnoresTheRestOfThePass) {
  struct Ctx {
    ThinRunner* runner;
    unsigned int passEnd = 0;
    unsigned int fired = 0;
  } ctx{&runner_};
  const int fd = readablePipe();
  runner_.addSocket(
      fd, &ctx,
      [](void* p, int fd, unsigned int) {
        Ctx* c = static_cast<Ctx*>(p);
        c->runner->removeSocket(fd);
        c->runner->addDelayedTimer(
            p,
            [](void* q) {
              Ctx* c = static_cast<Ctx*>(q);
              c->fired = getJiffies();
              static_cast<TestRunner*>(c->runner)->stop();
            },
            5);
        usleep(100000);  // the rest of the pass
        c->passEnd = getJiffies();
      },
      POLLIN);
  stopAfter(200);  // a safety net
  runner_.run();
  ASSERT_NE(ctx.fired, 0u);
  EXPECT_GE(ctx.fired - ctx.passEnd, 5u);
}

// A timer may remove itself through its own handle from its callback: the removal only
// marks it, and the other timers are not disturbed.
TEST_F(ThinRunnerTest, TimerRemovingItselfFromItsCallback) {
  struct Ctx {
    ThinRunner* runner;
    TimerPtr self;
    bool removed = false;
  } ctx{&runner_, TimerPtr()};
  Recorder a{&log_, "a"}, b{&log_, "b"};
  runner_.addTimer(&a, Recorder::fire, 0);
  ctx.self = runner_.addTimer(
      &ctx,
      [](void* p) {
        Ctx* c = static_cast<Ctx*>(p);
        c->removed = c->runner->removeTimer(c->self);
      },
      0);
  runner_.addTimer(&b, Recorder::fire, 0);
  runner_.addTimer(&b, Recorder::fire, 1000);
  runner_.runTimers();
  EXPECT_TRUE(ctx.removed);
  EXPECT_EQ(log_, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(runner_.timerCount(), 1u);
  EXPECT_GT(runner_.sleepTime(getJiffies()), 0);  // the heap is whole: only the far timer
}

TEST_F(ThinRunnerTest, DuplicateSocketIsRefusedWithAWarning) {
  const int fd = readablePipe();
  runner_.addSocket(
      fd, nullptr, [](void*, int, unsigned int) {}, POLLIN);
  ::testing::internal::CaptureStderr();
  runner_.addSocket(
      fd, nullptr, [](void*, int, unsigned int) {}, POLLIN);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "WARNING: could not add socket fd=" + std::to_string(fd) + " becouse of dup\n");
  EXPECT_EQ(runner_.socketCount(), 1u);
  EXPECT_TRUE(runner_.changeSocket(fd, POLLOUT));
  EXPECT_TRUE(runner_.removeSocket(fd));
  EXPECT_FALSE(runner_.removeSocket(fd));
  EXPECT_FALSE(runner_.changeSocket(fd, POLLIN));
}

// Slots are served from the last down; a callback that removes a lower slot moves the last
// one into it, and that socket must not be served a second time.
TEST_F(ThinRunnerTest, RemovalDuringThePassServesNoSocketTwice) {
  struct Ctx {
    ThinRunner* runner;
    int fds[3];
    int served[3] = {0, 0, 0};
  } ctx{&runner_, {readablePipe(), readablePipe(), readablePipe()}};
  auto serve = [](void* p, int fd, unsigned int revents) {
    Ctx* c = static_cast<Ctx*>(p);
    EXPECT_TRUE(revents & POLLIN);
    for (int i = 0; i < 3; ++i) {
      if (c->fds[i] == fd) ++c->served[i];
    }
    if (fd == c->fds[2]) c->runner->removeSocket(c->fds[0]);
  };
  for (int fd : ctx.fds) runner_.addSocket(fd, &ctx, serve, POLLIN);
  runner_.runSocks(getJiffies());
  EXPECT_EQ(ctx.served[2], 1);
  EXPECT_EQ(ctx.served[1], 1);
  EXPECT_EQ(ctx.served[0], 0);
  EXPECT_EQ(runner_.socketCount(), 2u);
}

TEST_F(ThinRunnerTest, SocketAddedDuringThePassWaitsForTheNext) {
  struct Ctx {
    ThinRunner* runner;
    int first, second;
    int servedSecond = 0;
  } ctx{&runner_, readablePipe(), readablePipe()};
  runner_.addSocket(
      ctx.first, &ctx,
      [](void* p, int fd, unsigned int) {
        Ctx* c = static_cast<Ctx*>(p);
        c->runner->removeSocket(fd);
        c->runner->addSocket(
            c->second, p, [](void* q, int, unsigned int) { ++static_cast<Ctx*>(q)->servedSecond; },
            POLLIN);
      },
      POLLIN);
  runner_.runSocks(getJiffies());
  EXPECT_EQ(ctx.servedSecond, 0);
  runner_.runSocks(getJiffies());
  EXPECT_EQ(ctx.servedSecond, 1);
}

TEST_F(ThinRunnerTest, HooksAlternateTheirOrderFromPassToPass) {
  Recorder one{&log_, "1"}, two{&log_, "2"};
  runner_.addBeforeSleep(&one, Recorder::fire);
  runner_.addBeforeSleep(&two, Recorder::fire);
  struct Ctx {
    TestRunner* runner;
    int passes = 0;
  } ctx{&runner_};
  // A hook added last runs first; it stops the loop after three passes.
  runner_.addBeforeSleep(&ctx, [](void* p) {
    Ctx* c = static_cast<Ctx*>(p);
    if (++c->passes == 3) c->runner->stop();
  });
  // An always-ready descriptor keeps poll() from sleeping.
  runner_.addSocket(
      readablePipe(), nullptr, [](void*, int, unsigned int) {}, POLLIN);
  runner_.run();
  EXPECT_EQ(log_, (std::vector<std::string>{"2", "1", "1", "2", "2", "1"}));
}

TEST_F(ThinRunnerTest, RemovingAdjacentTwinHooksTakesOnlyTheFirst) {
  Recorder r{&log_, "r"}, other{&log_, "o"};
  runner_.addBeforeSleep(&other, Recorder::fire);
  runner_.addBeforeSleep(&r, Recorder::fire);
  runner_.addBeforeSleep(&r, Recorder::fire);
  runner_.removeBeforeSleep(&r, Recorder::fire);
  stopAfter(0);
  runner_.run();
  EXPECT_EQ(log_, (std::vector<std::string>{"r", "o"}));
}

TEST_F(ThinRunnerTest, ShutdownReleasesEverything) {
  Recorder r{&log_, "r"};
  runner_.addTimer(&r, Recorder::fire, 0);
  runner_.addSocket(
      readablePipe(), nullptr, [](void*, int, unsigned int) {}, POLLIN);
  runner_.addBeforeSleep(&r, Recorder::fire);
  runner_.shutdown();
  EXPECT_EQ(runner_.timerCount(), 0u);
  EXPECT_EQ(runner_.socketCount(), 0u);
  runner_.runTimers();
  EXPECT_TRUE(log_.empty());
}

}  // namespace
}  // namespace kl
