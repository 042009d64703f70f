// File: kl/testing/io_faults.h
//
// Failing system calls on purpose, for tests of what the library does when a flash fails or
// fills. Linking kl/testing/io_faults.cc into a test program puts its own open, read, pread,
// write, pwrite, pwritev, lseek, fsync, ftruncate, rename and close in front of the C
// library's; they pass every call through, except that calls on files under a watched
// directory are counted, recorded, and one of them can be made to fail. Only that test
// program is affected; never link it into a library or a tool.
//
// A test first runs an operation with the fault disarmed to learn its calls (ioTrace), then
// runs it again once per call and fault. Descriptors are told apart by the path they were
// opened with, so the files must be opened after watchIoUnder.
#ifndef KL_TESTING_IO_FAULTS_H_
#define KL_TESTING_IO_FAULTS_H_

#include <string>
#include <vector>

namespace kl {
namespace testing {

// How the chosen call fails.
enum class IoFault {
  kNoSpace,     // -1 with ENOSPC, nothing done
  kIoError,     // -1 with EIO, nothing done
  kShortWrite,  // a write call writes the first half of its bytes (rounded down) and says so
};

// Counts and fails only calls on paths that begin with `prefix` ("" watches nothing).
void watchIoUnder(const std::string& prefix);
// Forgets the calls recorded so far; the next watched call is call 1.
void resetIoTrace();
// The names of the watched calls since resetIoTrace, in order ("pwrite", "fsync", ...).
std::vector<std::string> ioTrace();
// Whether the call of that name writes data (write, pwrite, pwritev).
bool writesData(const std::string& call);
// Makes watched call number `call` (counted as ioTrace counts) fail with `fault`, once.
void armIoFault(unsigned call, IoFault fault);
// No call fails any more; true when the armed fault was injected.
bool disarmIoFault();

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_IO_FAULTS_H_
