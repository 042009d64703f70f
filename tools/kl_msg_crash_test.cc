// kl-msg crash on the report of a real crash: a program linked against the shared libkl
// faults in a timer callback, and the backtrace must name the callback at the faulting
// line and the library's loop function that called it. Bad input gets one line and
// status 1.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>

#include "kl/testing/temp_root.h"

namespace {

class KlMsgCrashTest : public kl::testing::TempRootTest {
 protected:
  // Runs a shell command line; its standard output, and its exit status in *status.
  std::string run(const std::string& command, int* status) {
    const std::string out = root_ + "/out";
    *status = system((command + " >'" + out + "' 2>'" + root_ + "/err'").c_str());
    *status = WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    return read(out);
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // The line of the source file that carries `marker`.
  static int lineOf(const char* file, const std::string& marker) {
    std::ifstream in(file);
    int n = 0;
    for (std::string line; std::getline(in, line);) {
      ++n;
      if (line.find(marker) != std::string::npos) return n;
    }
    return -1;
  }
  std::string report() {
    int status;
    run("KL_ROOT='" + root_ + "' " KL_CRASH_PROGRAM, &status);
    EXPECT_EQ(status, 1) << "the program must end through its crash report";
    return read(root_ + "/out");
  }
};

TEST_F(KlMsgCrashTest, NamesTheFaultingLineAndTheLibrarysCaller) {
  const std::string text = report();
  ASSERT_NE(text.find("--- signal=11 "), std::string::npos) << text;
  std::ofstream(root_ + "/report") << text;
  int status;
  const std::string out = run(std::string(KL_MSG) + " crash '" + root_ + "/report'", &status);
  EXPECT_EQ(status, 0);
  const std::string where =
      "crash_test_program.cc:" + std::to_string(lineOf(KL_CRASH_SOURCE, "// the fault"));
  EXPECT_NE(out.find("#0 "), std::string::npos) << out;
  EXPECT_NE(out.find("faultInTimer(void*) at "), std::string::npos) << out;
  EXPECT_NE(out.find(where), std::string::npos) << out;
  EXPECT_NE(out.find("kl::ThinRunner::runTimers"), std::string::npos) << out;
  EXPECT_NE(out.find("(libkl.so"), std::string::npos) << out;
  // The rest of the report stands as it was.
  EXPECT_NE(out.find("\nmaps:\n"), std::string::npos);
  EXPECT_NE(out.find("died with signal 11 on "), std::string::npos);
  // From standard input too.
  EXPECT_EQ(run(std::string(KL_MSG) + " crash - <'" + root_ + "/report'", &status), out);
}

// The report of a program since deleted: its addresses stay as they are, with a note.
TEST_F(KlMsgCrashTest, AnExecutableThatIsGoneLeavesTheAddressesRaw) {
  const std::string program = root_ + "/program";
  int status;
  run("cp '" KL_CRASH_PROGRAM "' '" + program + "'", &status);
  ASSERT_EQ(status, 0);
  run("KL_ROOT='" + root_ + "' '" + program + "'", &status);
  EXPECT_EQ(status, 1);
  std::ofstream(root_ + "/report") << read(root_ + "/out");
  remove(program.c_str());
  const std::string out = run(std::string(KL_MSG) + " crash '" + root_ + "/report'", &status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out.find("faultInTimer"), std::string::npos) << out;
  EXPECT_NE(out.find("#0 "), std::string::npos) << out;
  EXPECT_NE(out.find("kl::ThinRunner::runTimers"), std::string::npos) << "libkl is still here";
  EXPECT_NE(read(root_ + "/err").find("not found here"), std::string::npos);
}

TEST_F(KlMsgCrashTest, InputThatIsNoReportIsOneLineAndStatusOne) {
  const struct {
    const char* name;
    const char* content;  // null: no file
  } cases[] = {
      {"text", "hello\nworld\n"},
      {"empty", ""},
      {"bad address", "/bin/x\n--- signal=11 ---\nbacktrace: 0xzz\n"},
      {"missing", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = root_ + "/in";
    remove(file.c_str());
    if (c.content != nullptr) std::ofstream(file) << c.content;
    int status;
    EXPECT_EQ(run(std::string(KL_MSG) + " crash '" + file + "'", &status), "");
    EXPECT_EQ(status, 1);
    const std::string err = read(root_ + "/err");
    EXPECT_EQ(err.find("kl-msg: "), 0u) << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
  }
}

}  // namespace
