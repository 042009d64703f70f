// File: kl/testing/temp_root.h
//
// TempRootTest: a GoogleTest fixture that owns a temporary development root (a fresh
// directory, removed afterwards) for code that reaches device paths through KL_ROOT.
// The root is read once per process, so code under test runs in a forked child whose
// KL_ROOT names the fixture's directory: inChild(fn).
#ifndef KL_TESTING_TEMP_ROOT_H_
#define KL_TESTING_TEMP_ROOT_H_

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <string>

namespace kl {
namespace testing {

class TempRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kl-root-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
  }
  void TearDown() override {
    const std::string command = "rm -rf '" + root_ + "'";
    ASSERT_EQ(system(command.c_str()), 0);
  }

  // The host path of a device path under this root.
  std::string path(const std::string& devicePath) const { return root_ + devicePath; }

  // Creates the directory devicePath and its parents under the root.
  void makeDir(const std::string& devicePath) {
    std::string partial = root_;
    size_t start = 1;
    while (start <= devicePath.size()) {
      size_t slash = devicePath.find('/', start);
      if (slash == std::string::npos) slash = devicePath.size();
      partial = root_ + devicePath.substr(0, slash);
      mkdir(partial.c_str(), 0755);
      start = slash + 1;
    }
  }

  // Writes `content` to devicePath under the root, creating its directory.
  void writeFile(const std::string& devicePath, const std::string& content) {
    makeDir(devicePath.substr(0, devicePath.rfind('/')));
    std::ofstream(path(devicePath), std::ios::binary | std::ios::trunc) << content;
  }

  // Runs fn in a child whose KL_ROOT is this root. Returns 0 when fn returned true, 1 when
  // it returned false, and 2 + the signal number when the child died of a signal.
  int inChild(const std::function<bool()>& fn) const {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("KL_ROOT", root_.c_str(), 1);
      _exit(fn() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 2 + WTERMSIG(status);
  }

  std::string root_;
};

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_TEMP_ROOT_H_
