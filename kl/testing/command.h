// File: kl/testing/command.h
//
// Runs a shell command for tests that check kl against an independent program of this
// machine (coreutils base64, grep -E).
#ifndef KL_TESTING_COMMAND_H_
#define KL_TESTING_COMMAND_H_

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace kl {
namespace testing {

// The standard output of `/bin/sh -c command`; *status (when given) := its exit status, or
// -1 when it could not run.
inline std::string commandOutput(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) {
    if (status != nullptr) *status = -1;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  const int rc = pclose(p);
  if (status != nullptr) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_COMMAND_H_
