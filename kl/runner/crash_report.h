// File: kl/runner/crash_report.h
//
// The crash report. When a process that owns a kl::Runner gets SIGSEGV, SIGILL, SIGABRT,
// SIGBUS or SIGFPE, a handler installed by the Runner writes a report to <root>/dev/log244
// (or to standard output when that cannot be opened), prints
//   died with signal <n> on <date>
// on standard output and exits with status 1. SIGUSR2 writes the same report to standard
// output and lets the process run on: a live snapshot on request (kill -USR2 <pid>).
//
// The report, section by section:
//   <executable path>
//   --- signal=<n> --------------------------------------------
//   <registers>
//   backtrace: <pc> <return addresses along the frame chain>
//   code: <the eight 32-bit words at the fault address>
//   abort cause: <eAbortCause>                  (only when set)
//   maps: <the executable mappings of /proc/self/maps>
//   extra 0x<address>  + the dump of every live BacktraceInfo, newest first
//   logtail 1024 begin: ... logtail end         (fatal signals, device log output only)
//
// Registers on 32-bit PowerPC (the device):
//   nip=0x<8>  lr=0x<8> ctr=0x<8> sp=0x<8>
//   ccr=0x<8> xer=0x<8> msr=0x<8>
//   gpr0 =0x<8> gpr1 =0x<8> gpr2 =0x<8> gpr3 =0x<8>      ... eight lines, to gpr31
// Registers on x86_64 (workstations), 16 hex digits each, in the same style:
//   rip=0x<16>  rsp=0x<16> rbp=0x<16>
//   efl=0x<16> err=0x<16> trp=0x<16> cr2=0x<16>
//   rax=0x<16> rbx=0x<16> rcx=0x<16> rdx=0x<16>
//   rsi=0x<16> rdi=0x<16> r8 =0x<16> r9 =0x<16>
//   r10=0x<16> r11=0x<16> r12=0x<16> r13=0x<16>
//   r14=0x<16> r15=0x<16>
// The backtrace follows the saved frame pointers (the library is built with them) and stops
// at the stack top recorded by the Runner constructor.
//
// Until its final line the handler uses only write, read, open, readlink, lseek, fstat and
// getpid with buffers prepared in advance; it never allocates.
//
// A SIGBUS inside a guarded read (kl/runner/fault_guard.h) is no crash: the handler hands it
// back to that read at once and writes nothing.
#ifndef KL_RUNNER_CRASH_REPORT_H_
#define KL_RUNNER_CRASH_REPORT_H_

#include "kl/message/dump.h"
#include "kl/message/message.h"

// A text that explains a deliberate abort, printed in the report when not null. The library
// defines it as a weak null pointer, so a program may assign it, or define its own
// eAbortCause, which then takes the library's place; a program that does neither links and
// runs as well.
extern const char* eAbortCause;

namespace kl {

// Context that running code declares on its stack, printed by the crash report. Constructing
// one pushes it on a process-wide list; destroying it pops it. Construction and destruction
// must nest (stack objects do).
class BacktraceInfo {
 public:
  BacktraceInfo();
  BacktraceInfo(const BacktraceInfo&) = delete;
  BacktraceInfo& operator=(const BacktraceInfo&) = delete;
  virtual ~BacktraceInfo();

  // Writes this context into `out`. Runs in the crash handler: no allocation, no locks.
  virtual void dump(Dumper& out) = 0;

  // The next older record, or null.
  BacktraceInfo* next() const { return next_; }

 private:
  BacktraceInfo* next_;
};

// The newest live BacktraceInfo, or null.
extern BacktraceInfo* backtraceInfoHead;

// A message in flight: dumps `label`, a line end and the message.
// REQUIRES: label and *msg outlive the record.
class MessageBacktraceInfo : public BacktraceInfo {
 public:
  // Pushes the record for `msg`, shown under `label`.
  MessageBacktraceInfo(const char* label, const message* msg) : label_(label), msg_(msg) {}
  void dump(Dumper& out) override;

 private:
  const char* label_;
  const message* msg_;
};

}  // namespace kl

#endif  // KL_RUNNER_CRASH_REPORT_H_
