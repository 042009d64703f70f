#include "kl/runner/fault_guard.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "kl/runner/runner.h"
#include "kl/runner/signal_table.h"
#include "kl/testing/temp_root.h"

namespace kl {
namespace {

// Every test maps a real file of three pages of 'x' and truncates it underneath the mapping,
// as another process shrinking a store's data file would: page 0 stays, pages 1 and 2 go.
class FaultGuardTest : public kl::testing::TempRootTest {
 protected:
  // In the child: the mapping, after the truncation.
  const unsigned char* mapAndTruncate() {
    page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const std::string file = path("/mapped");
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    const std::string bytes(3 * page_, 'x');
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      return nullptr;
    }
    void* map = mmap(nullptr, 3 * page_, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED || truncate(file.c_str(), static_cast<off_t>(page_)) != 0) {
      return nullptr;
    }
    return static_cast<const unsigned char*>(map);
  }

  // A guarded copy of n bytes at src; false when it faulted.
  static bool copy(unsigned char* dst, const unsigned char* src, size_t n) {
    Copy job{dst, src, n};
    return guardedRead(
        [](void* ctx) {
          Copy* c = static_cast<Copy*>(ctx);
          memcpy(c->dst, c->src, c->n);
        },
        &job);
  }

  // Whether reads of the lost pages fail, twice in a row (so SIGBUS was unblocked after the
  // first), and a read of the page that stayed still succeeds.
  bool lostPagesFailKeptPageReads(const unsigned char* map) {
    unsigned char buf[64];
    if (copy(buf, map + page_ + 8, sizeof buf)) return false;
    if (copy(buf, map + 2 * page_, sizeof buf)) return false;
    return copy(buf, map, sizeof buf) && buf[0] == 'x' && buf[63] == 'x';
  }

  // inChild, with a fault that repeats for ever (a handler that returns to it) ended by
  // SIGALRM.
  int inChildAtMost20s(const std::function<bool()>& fn) {
    return inChild([&]() {
      alarm(20);
      return fn();
    });
  }

  std::string output() {
    std::ifstream in(path("/stdout"));
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  struct Copy {
    unsigned char* dst;
    const unsigned char* src;
    size_t n;
  };
  size_t page_ = 0;
};

class TestRunner : public Runner {};

// Reads one byte past the end of the truncated file, unguarded.
__attribute__((no_sanitize("undefined"))) unsigned char touch(const unsigned char* p) {
  return *static_cast<const volatile unsigned char*>(p);
}

TEST_F(FaultGuardTest, ACopyThatDoesNotFaultRunsWhole) {
  const unsigned char src[] = "guarded";
  unsigned char dst[sizeof src] = {};
  EXPECT_TRUE(copy(dst, src, sizeof src));
  EXPECT_STREQ(reinterpret_cast<const char*>(dst), "guarded");
}

// Whoever handles SIGBUS (nobody, the Runner's crash handler, or what a service set through
// the Runner since), a fault inside a guarded read ends the read with false, and the process
// goes on.
TEST_F(FaultGuardTest, AFaultEndsTheReadNotTheProcess) {
  struct Case {
    const char* name;
    bool runner;
    Runner::RunnerSigaction how;  // set through the runner after a first guarded read
  };
  const Case cases[] = {
      {"without a runner", false, Runner::SIGACT_RESTORE},
      {"with the crash handler", true, Runner::SIGACT_RESTORE},
      {"default action set through the runner", true, Runner::SIGACT_DEFAULT},
      {"ignored through the runner", true, Runner::SIGACT_IGNORE},
      {"handled through the runner", true, Runner::SIGACT_HANDLE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(inChildAtMost20s([&]() {
                const unsigned char* map = mapAndTruncate();
                if (map == nullptr) return false;
                if (!c.runner) return lostPagesFailKeptPageReads(map);
                TestRunner runner;
                if (!lostPagesFailKeptPageReads(map)) return false;
                runner.setSigaction(SIGBUS, c.how);
                return lostPagesFailKeptPageReads(map);
              }),
              0)
        << "2 + the signal the child died of, when it did";
  }
}

void exitWith42(int) { _exit(42); }

// The guard takes SIGBUS only for its reads: a bus error elsewhere ends the process as the
// action in force before the first guarded read says, or with the Runner's crash report.
TEST_F(FaultGuardTest, ABusErrorOutsideAGuardedReadGoesWhereItWentBefore) {
  struct Case {
    const char* name;
    bool runner;          // SIGBUS goes to the crash handler, else to `before`
    void (*before)(int);  // SIGBUS's action before the first guarded read
    int result;           // what inChild reports
  };
  const Case cases[] = {
      {"default action", false, SIG_DFL, 2 + SIGBUS},
      {"a program's own handler", false, exitWith42, 42},
      {"the crash handler", true, SIG_DFL, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(inChildAtMost20s([&]() {
                const int out = open(path("/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                dup2(out, 1);
                const unsigned char* map = mapAndTruncate();
                if (map == nullptr) return false;
                std::unique_ptr<TestRunner> runner;
                if (c.runner) {
                  runner.reset(new TestRunner);
                } else {
                  signal(SIGBUS, c.before);
                }
                if (!lostPagesFailKeptPageReads(map)) return false;
                touch(map + 2 * page_);
                return true;
              }),
              c.result);
    EXPECT_EQ(output().find("\ndied with signal 7 on ") != std::string::npos, c.runner);
  }
}

// The crash handler hands a guarded read's fault back itself: the guard leaves it in place
// rather than putting its own handler in front of it, however many reads fault.
TEST_F(FaultGuardTest, GuardedReadsLeaveTheCrashHandlerInPlace) {
  EXPECT_EQ(inChildAtMost20s([&]() {
              const unsigned char* map = mapAndTruncate();
              if (map == nullptr) return false;
              TestRunner runner;
              if (!lostPagesFailKeptPageReads(map) || !lostPagesFailKeptPageReads(map)) {
                return false;
              }
              struct sigaction current;
              return sigaction(SIGBUS, nullptr, &current) == 0 &&
                     (current.sa_flags & SA_SIGINFO) != 0 &&
                     current.sa_sigaction == internal::crashHandler;
            }),
            0);
}

}  // namespace
}  // namespace kl
