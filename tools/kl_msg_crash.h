// File: tools/kl_msg_crash.h
//
// kl-msg crash: a crash report made readable. The report (what a Runner writes on a fatal
// signal, or on SIGUSR2) lists the executable, the registers, a backtrace of raw addresses
// and the executable mappings of the process. Each backtrace address that lies in a mapping
// whose file can be found (the executable, libkl, any other library whose path the report
// did not cut) is turned into its file's own address through the ELF program headers, and
// named by binutils' addr2line (function, inlined frames, file:line), or by the nearest
// symbol of the file's symbol table when it has no debug information. A PowerPC file is
// read with powerpc-linux-gnu-addr2line, so a report from the device reads on a workstation.
// Every other line of the report is printed as it stands.
#ifndef TOOLS_KL_MSG_CRASH_H_
#define TOOLS_KL_MSG_CRASH_H_

#include <cstdint>
#include <string>
#include <vector>

namespace klmsg {

// One executable mapping of the report's "maps:" section.
struct CrashMapping {
  uint64_t start = 0, end = 0;  // the mapped range of addresses
  uint64_t offset = 0;          // file offset of `start`
  unsigned long inode = 0;      // of the mapped file
  std::string path;             // as listed (possibly cut at the report's 100 bytes)
};

// What the symbolizer needs from a report.
struct CrashReport {
  std::string executable;              // the first line
  std::vector<uint64_t> backtrace;     // the addresses of the "backtrace:" line
  std::vector<CrashMapping> mappings;  // the "maps:" section
  std::vector<std::string> lines;      // the whole report, line by line
  size_t backtraceLine = 0;            // index of the "backtrace:" line in `lines`
};

// Parses a report; false with *error set when the text is not one (no "--- signal=" line
// or no "backtrace:" line).
bool parseCrashReport(const std::string& text, CrashReport* report, std::string* error);

// kl-msg crash [FILE|-]: 0, or 1 after one line when the input cannot be read or is not a
// crash report.
int crashCommand(int argc, char** argv);

}  // namespace klmsg

#endif  // TOOLS_KL_MSG_CRASH_H_
