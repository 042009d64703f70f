#include "kl/runner/crash_report.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "kl/message/system.h"
#include "kl/runner/runner.h"
#include "kl/testing/temp_root.h"

namespace kl {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// A real fault, hidden from the undefined-behaviour sanitizer, which would stop it first.
__attribute__((no_sanitize("undefined"))) void nullWrite() {
  volatile int* volatile p = nullptr;
  *p = 1;
}

// The register lines of this machine, as regular expressions.
std::string registerPattern() {
#if defined(__powerpc__) && !defined(__powerpc64__)
  const std::string h = "0x[0-9a-f]{8}";
  std::string p = "nip=" + h + "  lr=" + h + " ctr=" + h + " sp=" + h + "\n" + "ccr=" + h +
                  " xer=" + h + " msr=" + h + "\n";
  for (int i = 0; i < 32; ++i) {
    p += "gpr" + std::to_string(i) + (i < 10 ? " =" : "=") + h + (i % 4 == 3 ? "\n" : " ");
  }
  return p;
#elif defined(__x86_64__)
  const std::string h = "0x[0-9a-f]{16}";
  return "rip=" + h + "  rsp=" + h + " rbp=" + h + "\n" + "efl=" + h + " err=" + h + " trp=" + h +
         " cr2=" + h + "\n" + "rax=" + h + " rbx=" + h + " rcx=" + h + " rdx=" + h + "\n" +
         "rsi=" + h + " rdi=" + h + " r8 =" + h + " r9 =" + h + "\n" + "r10=" + h + " r11=" + h +
         " r12=" + h + " r13=" + h + "\n" + "r14=" + h + " r15=" + h + "\n";
#else
  return "registers: not available on this machine\n";
#endif
}

// What these tests verify, on x86_64 and on 32-bit PowerPC under qemu-ppc alike: every
// section up to the backtrace records, the register lines of the machine (qemu-user hands
// the handler a real PowerPC signal context), the report device and the fall-back to
// standard output, the abort cause and the SIGUSR2 snapshot. Not verified anywhere: the
// log tail, which needs standard output on the platform's log device (a character device
// with major number 60) that no workstation has.
class CrashReportTest : public kl::testing::TempRootTest {
 protected:
  // Runs body in a child with a Runner, standard output in <root>/stdout. Returns the exit
  // status (see inChild).
  int crashInChild(void (*body)()) {
    return inChild([this, body] {
      const int out = open(path("/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1);
      Runner runner;
      body();
      return true;
    });
  }
  void createReportDevice() { writeFile("/dev/log244", ""); }
  std::string report() { return readFile(path("/dev/log244")); }
  std::string output() { return readFile(path("/stdout")); }
};

TEST_F(CrashReportTest, FaultWritesEverySectionToTheReportDevice) {
  createReportDevice();
  EXPECT_EQ(crashInChild(nullWrite), 1);
  const std::string text = report();
  char exe[256];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe);
  ASSERT_GT(n, 0);
  EXPECT_EQ(text.substr(0, n), std::string(exe, n));
  const std::regex layout(
      "[^\n]*\n--- signal=11 --------------------------------------------\n\n" + registerPattern() +
      "\nbacktrace: (0x[0-9a-f]+ )+\n\ncode:\n([0-9a-f]{8} ){8}\n\nmaps:\n((.* r-xp .*\n)+)\n\n$");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(text, m, layout)) << text;
  std::istringstream maps(m[3].str());
  for (std::string line; std::getline(maps, line);) EXPECT_LE(line.size(), 100u) << line;
  EXPECT_EQ(text.find("abort cause"), std::string::npos);
  EXPECT_EQ(text.find("logtail"), std::string::npos);  // standard output is no log device
  EXPECT_EQ(output().find("died with signal 11 on "), 0u);
}

// On a workstation the report device is a plain file: a new report replaces the one before,
// however long that was, and lists every executable mapping (the program's and the
// libraries').
TEST_F(CrashReportTest, ANewReportReplacesTheLastOne) {
  writeFile("/dev/log244", std::string(20000, 'X'));
  EXPECT_EQ(crashInChild(nullWrite), 1);
  const std::string text = report();
  EXPECT_EQ(text.find('X'), std::string::npos) << "the last report's tail is left";
  const size_t maps = text.find("\n\nmaps:\n");
  ASSERT_NE(maps, std::string::npos) << text;
  size_t lines = 0;
  for (size_t at = text.find(" r-xp ", maps); at != std::string::npos;
       at = text.find(" r-xp ", at + 1)) {
    ++lines;
  }
  EXPECT_GE(lines, 2u) << text.substr(maps);
}

TEST_F(CrashReportTest, WithoutADeviceTheReportGoesToStandardOutput) {
  EXPECT_EQ(crashInChild(nullWrite), 1);
  const std::string text = output();
  EXPECT_NE(text.find("\n--- signal=11 ---"), std::string::npos);
  EXPECT_NE(text.find("\n\nmaps:\n"), std::string::npos);
  const std::regex last("\n\ndied with signal 11 on [A-Z][a-z]{2} [A-Z][a-z]{2} .*\n\n$");
  EXPECT_TRUE(std::regex_search(text, last)) << text;
}

TEST_F(CrashReportTest, AbortPrintsItsCause) {
  createReportDevice();
  EXPECT_EQ(crashInChild([] {
              eAbortCause = "store index corrupt";
              abort();
            }),
            1);
  const std::string text = report();
  EXPECT_NE(text.find("\n--- signal=6 ---"), std::string::npos);
  EXPECT_NE(text.find("\n\nabort cause: store index corrupt\n\nmaps:\n"), std::string::npos)
      << text;
}

TEST_F(CrashReportTest, BacktraceRecordsPrintNewestFirst) {
  createReportDevice();
  EXPECT_EQ(crashInChild([] {
              message outer;
              outer.insert(SYS_CMD, CMD_GETALL);
              MessageBacktraceInfo outerInfo("handling request", &outer);
              message inner;
              inner.insert_string(STD_DESCR, "uplink");
              MessageBacktraceInfo innerInfo("storing object", &inner);
              nullWrite();
            }),
            1);
  const std::string text = report();
  const std::regex records(
      "extra 0x[0-9a-f]+\nstoring object\n--- kl::message --------\n string "
      "\\[STD_DESCR\\]=uplink\n"
      "------------------------\n"
      "extra 0x[0-9a-f]+\nhandling request\n--- kl::message --------\n u32 "
      "\\[SYS_CMD\\]=CMD_GETALL\n"
      "------------------------\n\n\n$");
  EXPECT_TRUE(std::regex_search(text, records)) << text;
}

TEST_F(CrashReportTest, Usr2SnapshotLetsTheProcessRunOn) {
  createReportDevice();
  EXPECT_EQ(crashInChild([] {
              raise(SIGUSR2);
              raise(SIGUSR2);
              fputs("still running\n", stdout);
              fflush(stdout);
            }),
            0);
  EXPECT_EQ(report(), "");  // snapshots go to standard output
  const std::string text = output();
  const size_t first = text.find("\n--- signal=12 ---");
  ASSERT_NE(first, std::string::npos);
  EXPECT_NE(text.find("\n--- signal=12 ---", first + 1), std::string::npos);
  EXPECT_NE(text.find("\n\nstill running\n"), std::string::npos);
  EXPECT_EQ(text.find("died with"), std::string::npos);
}

// Faults two calls deep, so that the frame chain holds frames of this program.
__attribute__((noinline)) void faultDeeper() {
  nullWrite();
  asm volatile("" ::: "memory");  // no tail call: this frame stays on the chain
}
__attribute__((noinline)) void faultDeep() {
  faultDeeper();
  asm volatile("" ::: "memory");
}

// The addresses of the report's backtrace line.
std::vector<std::string> backtraceOf(const std::string& text) {
  std::vector<std::string> out;
  const size_t start = text.find("\nbacktrace: ");
  const size_t end = text.find("\n\ncode:");
  if (start == std::string::npos || end == std::string::npos) return out;
  std::istringstream words(text.substr(start + 12, end - start - 12));
  for (std::string w; words >> w;) out.push_back(w);
  return out;
}

TEST_F(CrashReportTest, BacktraceWalksTheFrameChain) {
  createReportDevice();
  EXPECT_EQ(crashInChild(faultDeep), 1);
  // The program counter, then (at least) the frames of faultDeeper and faultDeep.
  EXPECT_GE(backtraceOf(report()).size(), 3u) << report();
}

#if defined(__x86_64__) || (defined(__powerpc__) && !defined(__powerpc64__))
// Faults with the frame register on a forged frame whose back chain does not climb.
__attribute__((noinline, no_sanitize("address", "undefined"))) void faultOnFrame(uintptr_t* f) {
#if defined(__x86_64__)
  asm volatile("mov %0, %%rbp\n\tmovq $1, 0" : : "r"(f) : "memory");
#else
  asm volatile("mr 1, %0\n\tli 9, 0\n\tstw 9, 0(9)" : : "r"(f) : "memory", "r9");
#endif
}

template <int kBackChain>  // the back chain, in words from the frame
__attribute__((noinline)) void forgedChain() {
  uintptr_t words[64] = {};
  uintptr_t* frame = words + 32;
  frame[0] = reinterpret_cast<uintptr_t>(frame + kBackChain);
  frame[1] = 0x1234;  // the return address, one word up on both machines
  alarm(2);           // a walk that does not end is stopped here, and the test fails
  faultOnFrame(frame);
}

TEST_F(CrashReportTest, FrameWalkStopsOnAChainThatDoesNotClimb) {
  const struct {
    const char* name;
    void (*body)();
  } cases[] = {{"a frame that chains to itself", forgedChain<0>},
               {"a frame that chains downwards", forgedChain<-8>}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    createReportDevice();
    EXPECT_EQ(crashInChild(c.body), 1);
    const std::vector<std::string> trace = backtraceOf(report());
    ASSERT_FALSE(trace.empty()) << report();
    EXPECT_EQ(std::count(trace.begin(), trace.end(),
                         "0x" + std::string(2 * sizeof(void*) - 4, '0') + "1234"),
              1)
        << report();
  }
}
#endif

TEST(BacktraceInfo, NestsOnTheProcessList) {
  message m;
  EXPECT_EQ(backtraceInfoHead, nullptr);
  {
    MessageBacktraceInfo a("a", &m);
    {
      MessageBacktraceInfo b("b", &m);
      EXPECT_EQ(backtraceInfoHead, &b);
      EXPECT_EQ(b.next(), &a);
    }
    EXPECT_EQ(backtraceInfoHead, &a);
  }
  EXPECT_EQ(backtraceInfoHead, nullptr);
  char buf[256];
  Dumper d(buf, sizeof buf);
  MessageBacktraceInfo c("label", &m);
  c.dump(d);
  EXPECT_EQ(std::string(d.data(), d.size()),
            "label\n--- kl::message --------\n------------------------\n");
}

}  // namespace
}  // namespace kl
