#include "kl/base/root.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

namespace kl {
namespace {

// The root is read once per process, so each case runs in a child with its own KL_ROOT.
struct RootCase {
  const char* env;  // null: unset
  const char* devicePath;
  const char* expected;
};

const RootCase kCases[] = {
    {nullptr, "/ram/kelosock", "/ram/kelosock"},
    {"", "/dev/log244", "/dev/log244"},
    {"/tmp/dev", "/dev/log244", "/tmp/dev/dev/log244"},
    {"/tmp/dev/", "/kelo/run/x", "/tmp/dev/kelo/run/x"},
    {"/tmp/dev", "/proc/self/maps", "/proc/self/maps"},
    {"/tmp/dev", "/proc", "/proc"},
    {"/tmp/dev", "/processes", "/tmp/dev/processes"},
};

void checkInChild(const RootCase& c) {
  if (c.env != nullptr) {
    setenv("KL_ROOT", c.env, 1);
  } else {
    unsetenv("KL_ROOT");
  }
  char buf[64];
  const bool fits = rootedPath(c.devicePath, buf, sizeof buf);
  const bool same =
      rootedPath(c.devicePath) == c.expected && fits && std::string(buf) == c.expected;
  exit(same ? 0 : 1);
}

TEST(RootDeathTest, JoinsDevicePathsOntoKlRoot) {
  for (const RootCase& c : kCases) {
    SCOPED_TRACE(std::string(c.env ? c.env : "(unset)") + " " + c.devicePath);
    EXPECT_EXIT(checkInChild(c), ::testing::ExitedWithCode(0), "");
  }
}

void tooSmallInChild() {
  setenv("KL_ROOT", "/tmp/dev", 1);
  char buf[12] = "unchanged";
  const bool fits = rootedPath("/dev/log244", buf, sizeof buf);
  exit(!fits && buf[0] == '\0' ? 0 : 1);
}

TEST(RootDeathTest, BufferTooSmallGivesEmptyString) {
  EXPECT_EXIT(tooSmallInChild(), ::testing::ExitedWithCode(0), "");
}

// A buffer of exactly the joined path's length and its terminator takes it, and not one
// byte is written past it.
void exactFitInChild() {
  setenv("KL_ROOT", "/tmp/dev", 1);
  struct {
    char buf[sizeof "/tmp/dev/dev/log244"];
    char after;
  } room;
  room.after = 'x';
  const bool fits = rootedPath("/dev/log244", room.buf, sizeof room.buf);
  exit(fits && std::string(room.buf) == "/tmp/dev/dev/log244" && room.after == 'x' ? 0 : 1);
}

TEST(RootDeathTest, ABufferOfExactlyThePathsLengthTakesIt) {
  EXPECT_EXIT(exactFitInChild(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kl
