// The crash handler. Everything up to the final line runs in signal context: only
// async-signal-safe calls, buffers prepared in advance (kl/runner/signal_table.h) and this
// frame's stack.
#include "kl/runner/crash_report.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "kl/base/root.h"
#include "kl/runner/signal_table.h"

const char* eAbortCause __attribute__((weak)) = nullptr;

namespace kl {

BacktraceInfo* backtraceInfoHead = nullptr;

BacktraceInfo::BacktraceInfo() : next_(backtraceInfoHead) { backtraceInfoHead = this; }

BacktraceInfo::~BacktraceInfo() { backtraceInfoHead = next_; }

void MessageBacktraceInfo::dump(Dumper& out) {
  out << label_;
  out << "\n";
  msg_->dump2(out, "", 0);
}

namespace {

using internal::signalTable;

constexpr int kLogMajor = 60;
constexpr unsigned kReportMinor = 244;
constexpr int kLogTailBytes = 1024;
constexpr unsigned kDumpBufferSize = 1600;
constexpr unsigned kLineSize = sizeof(signalTable.line);

// The Dumper of backtrace records, built with the Runner so that the handler constructs
// no stream.
alignas(Dumper) unsigned char dumperStorage[sizeof(Dumper)];
char dumpBuffer[kDumpBufferSize];
Dumper* dumper = nullptr;

// Writes all bytes. A result of exactly 4 is taken for EINTR (whose value it is) and the
// same bytes are written again; the library's report writer has always done so. A chunk of
// exactly 4 bytes is counted, or it would be written for ever.
void writeAll(int fd, const char* data, size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, data, len);
    if (n <= 0) return;
    if (n == EINTR && len != 4) continue;
    data += n;
    len -= static_cast<size_t>(n);
  }
}

void writeText(int fd, const char* text) { writeAll(fd, text, strlen(text)); }

// prefix, value in `base` (2-36, else 10) padded with '0' to minDigits, suffix; one write.
void writeNumber(int fd, const char* prefix, unsigned long long value, const char* suffix,
                 unsigned base, unsigned minDigits) {
  static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  if (base < 2 || base > 36) base = 10;
  char* digits = signalTable.scratch + sizeof signalTable.scratch;
  unsigned count = 0;
  do {
    *--digits = kDigits[value % base];
    value /= base;
    ++count;
  } while (value != 0 && count < sizeof signalTable.scratch);
  while (count < minDigits && count < sizeof signalTable.scratch) {
    *--digits = '0';
    ++count;
  }
  char out[192];
  size_t used = 0;
  for (const char* part : {prefix, static_cast<const char*>(nullptr), suffix}) {
    const char* src = part != nullptr ? part : digits;
    const size_t n = part != nullptr ? strlen(part) : count;
    const size_t take = n < sizeof out - used ? n : sizeof out - used;
    memcpy(out + used, src, take);
    used += take;
  }
  writeAll(fd, out, used);
}

constexpr unsigned kWordDigits = 2 * sizeof(void*);  // 8 on the device, 16 on x86_64

void writeHex(int fd, const char* prefix, uintptr_t value, const char* suffix) {
  writeNumber(fd, prefix, value, suffix, 16, kWordDigits);
}

// Reads raw memory of other frames and of the code: byte by byte and outside the
// sanitizers' view, since none of it is this program's own objects.
__attribute__((no_sanitize("address", "undefined"))) void loadBytes(uintptr_t address, void* out,
                                                                    size_t n) {
  const volatile unsigned char* src = reinterpret_cast<const volatile unsigned char*>(address);
  unsigned char* dst = static_cast<unsigned char*>(out);
  for (size_t i = 0; i < n; ++i) dst[i] = src[i];
}

uintptr_t loadWord(uintptr_t address) {
  uintptr_t word;
  loadBytes(address, &word, sizeof word);
  return word;
}

// The machine's registers at the fault, and where the frame walk starts.
struct Fault {
  uintptr_t pc;
  uintptr_t link;       // the link register, or 0 where the machine has none
  uintptr_t frame;      // first frame of the walk
  unsigned linkOffset;  // where a frame keeps its return address
};

#if defined(__powerpc__) && !defined(__powerpc64__)

enum { kNip = 32, kMsr = 33, kCtr = 35, kLnk = 36, kXer = 37, kCcr = 38 };

Fault writeRegisters(int fd, void* context) {
  const unsigned long* r = static_cast<ucontext_t*>(context)->uc_mcontext.uc_regs->gregs;
  writeHex(fd, "nip=0x", r[kNip], " ");
  writeHex(fd, " lr=0x", r[kLnk], " ");
  writeHex(fd, "ctr=0x", r[kCtr], " ");
  writeHex(fd, "sp=0x", r[1], "\n");
  writeHex(fd, "ccr=0x", r[kCcr], " ");
  writeHex(fd, "xer=0x", r[kXer], " ");
  writeHex(fd, "msr=0x", r[kMsr], "\n");
  for (unsigned i = 0; i < 32; ++i) {
    writeNumber(fd, "gpr", i, i < 10 ? " =0x" : "=0x", 10, 1);
    writeHex(fd, "", r[i], i % 4 == 3 ? "\n" : " ");
  }
  return Fault{r[kNip], r[kLnk], r[1], 4};
}

#elif defined(__x86_64__)

Fault writeRegisters(int fd, void* context) {
  const greg_t* r = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  writeHex(fd, "rip=0x", r[REG_RIP], " ");
  writeHex(fd, " rsp=0x", r[REG_RSP], " ");
  writeHex(fd, "rbp=0x", r[REG_RBP], "\n");
  writeHex(fd, "efl=0x", r[REG_EFL], " ");
  writeHex(fd, "err=0x", r[REG_ERR], " ");
  writeHex(fd, "trp=0x", r[REG_TRAPNO], " ");
  writeHex(fd, "cr2=0x", r[REG_CR2], "\n");
  static const struct {
    const char* name;
    int reg;
  } kGeneral[] = {
      {"rax=0x", REG_RAX}, {"rbx=0x", REG_RBX}, {"rcx=0x", REG_RCX}, {"rdx=0x", REG_RDX},
      {"rsi=0x", REG_RSI}, {"rdi=0x", REG_RDI}, {"r8 =0x", REG_R8},  {"r9 =0x", REG_R9},
      {"r10=0x", REG_R10}, {"r11=0x", REG_R11}, {"r12=0x", REG_R12}, {"r13=0x", REG_R13},
      {"r14=0x", REG_R14}, {"r15=0x", REG_R15},
  };
  const unsigned n = sizeof kGeneral / sizeof kGeneral[0];
  for (unsigned i = 0; i < n; ++i) {
    writeHex(fd, kGeneral[i].name, r[kGeneral[i].reg], (i % 4 == 3 || i == n - 1) ? "\n" : " ");
  }
  return Fault{static_cast<uintptr_t>(r[REG_RIP]), 0, static_cast<uintptr_t>(r[REG_RBP]), 8};
}

#else

Fault writeRegisters(int fd, void*) {
  writeText(fd, "registers: not available on this machine\n");
  return Fault{0, 0, 0, sizeof(void*)};
}

#endif

// Return addresses along the frame chain, between the handler's own frame and the stack
// top. A chain that does not climb ends the walk (a broken stack must not hang the report).
void writeBacktrace(int fd, const Fault& fault) {
  writeText(fd, "\nbacktrace: ");
  writeHex(fd, "0x", fault.pc, " ");
  if (fault.link != 0) writeHex(fd, "0x", fault.link, " ");
  const uintptr_t bottom = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  uintptr_t frame = fault.frame;
  while (frame > bottom && frame < signalTable.stackTop) {
    const uintptr_t ret = loadWord(frame + fault.linkOffset);
    if (ret == 0) break;
    writeHex(fd, "0x", ret, " ");
    const uintptr_t next = loadWord(frame);
    if (next <= frame) break;
    frame = next;
  }
}

void writeCode(int fd, uintptr_t pc) {
  writeText(fd, "\n\ncode:\n");
  for (int i = 0; i < 8; ++i) {
    uint32_t word;
    loadBytes(pc + 4 * i, &word, sizeof word);
    writeNumber(fd, "", word, " ", 16, 8);
  }
}

// A read whose result is exactly 4 is ignored and read again, like the writes above.
ssize_t readSome(int fd, char* buf, size_t len) {
  ssize_t n;
  do {
    n = read(fd, buf, len);
  } while (n == EINTR);
  return n;
}

bool hasExecMark(const char* text, size_t len) {
  static const char kMark[] = " r-xp ";
  const size_t markLen = sizeof kMark - 1;
  for (size_t i = 0; i + markLen <= len; ++i) {
    if (memcmp(text + i, kMark, markLen) == 0) return true;
  }
  return false;
}

// The executable mappings: the lines of /proc/self/maps that contain " r-xp ", through the
// 100-byte line buffer. A longer line is written cut at 100 bytes, with a line end.
void writeMaps(int fd) {
  writeText(fd, "\n\nmaps:\n");
  const int maps = open("/proc/self/maps", O_RDONLY);
  if (maps < 0) return;
  char* buf = signalTable.line;
  size_t used = 0;
  bool skipping = false;  // inside the rest of an over-long line
  bool eof = false;
  while (!eof || used > 0) {
    if (!eof && used < kLineSize) {
      const ssize_t n = readSome(maps, buf + used, kLineSize - used);
      if (n <= 0) {
        eof = true;
      } else {
        used += static_cast<size_t>(n);
      }
    }
    const char* newline = static_cast<const char*>(memchr(buf, '\n', used));
    if (newline != nullptr) {
      const size_t len = static_cast<size_t>(newline - buf) + 1;
      if (!skipping && hasExecMark(buf, len)) writeAll(fd, buf, len);
      skipping = false;
      memmove(buf, buf + len, used - len);
      used -= len;
    } else if (used == kLineSize || (eof && used > 0)) {
      if (!skipping && hasExecMark(buf, used)) {
        writeAll(fd, buf, used);
        writeText(fd, "\n");
      }
      skipping = true;
      used = 0;
    }
  }
  close(maps);
}

void writeBacktraceInfos(int fd) {
  for (BacktraceInfo* node = backtraceInfoHead; node != nullptr; node = node->next()) {
    dumper->clear();
    node->dump(*dumper);
    writeHex(fd, "extra 0x", reinterpret_cast<uintptr_t>(node), "\n");
    writeAll(fd, dumper->data(), dumper->size());
  }
}

// The last kilobyte of the process's own output log, when standard output is a log device.
void writeLogTail(int fd) {
  struct stat st;
  if (fstat(1, &st) != 0 || !S_ISCHR(st.st_mode) || major(st.st_rdev) != kLogMajor ||
      minor(st.st_rdev) == kReportMinor) {
    return;
  }
  char path[sizeof signalTable.logPrefix + 12];
  const size_t prefixLen = strlen(signalTable.logPrefix);
  memcpy(path, signalTable.logPrefix, prefixLen);
  char* digits = path + prefixLen;
  unsigned n = minor(st.st_rdev);
  char reversed[12];
  int count = 0;
  do {
    reversed[count++] = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n != 0);
  while (count > 0) *digits++ = reversed[--count];
  *digits = '\0';
  const int log = open(path, O_RDONLY);
  if (log < 0) return;
  lseek(log, -kLogTailBytes, SEEK_END);
  writeNumber(fd, "\nlogtail ", kLogTailBytes, " begin:\n", 10, 1);
  char chunk[128];
  int copied = 0;
  while (copied < kLogTailBytes) {
    const ssize_t got = readSome(log, chunk, sizeof chunk);
    if (got <= 0) break;
    const int take = got < kLogTailBytes - copied ? static_cast<int>(got) : kLogTailBytes - copied;
    writeAll(fd, chunk, take);
    copied += take;
  }
  close(log);
  writeText(fd, "\nlogtail end\n");
}

}  // namespace

namespace internal {

void crashHandler(int sig, siginfo_t*, void* context) {
  // A bus error inside a guarded read is that read's to handle (kl/runner/fault_guard.h).
  if (sig == SIGBUS && faultGuardActive()) leaveFaultGuard();
  const int savedErrno = errno;
  const bool snapshot = sig == SIGUSR2;
  int fd = 1;
  if (!snapshot) {
    signal(sig, SIG_DFL);  // a second fault ends the process
    const int device = open(signalTable.reportPath, O_WRONLY);
    if (device >= 0) {
      // On a workstation the device is a plain file: the last report must not show behind
      // this one.
      struct stat st;
      if (fstat(device, &st) == 0 && S_ISREG(st.st_mode)) {
        const int ignored = ftruncate(device, 0);  // a failure leaves the old tail, no more
        (void)ignored;
      }
      fd = device;
    }
  }
  char exe[100];
  const ssize_t exeLen = readlink("/proc/self/exe", exe, sizeof exe);
  if (exeLen > 0) {
    writeAll(fd, exe, static_cast<size_t>(exeLen));
  } else {
    writeNumber(fd, "unknown[", static_cast<unsigned>(getpid()), "]", 16, 8);
  }
  writeNumber(fd, "\n--- signal=", static_cast<unsigned>(sig),
              " --------------------------------------------\n\n", 10, 1);
  const Fault fault = writeRegisters(fd, context);
  writeBacktrace(fd, fault);
  writeCode(fd, fault.pc);
  if (eAbortCause != nullptr) {
    writeText(fd, "\n\nabort cause: ");
    writeText(fd, eAbortCause);
  }
  writeMaps(fd);
  writeBacktraceInfos(fd);
  writeText(fd, "\n\n");
  if (snapshot) {
    errno = savedErrno;
    return;
  }
  writeLogTail(fd);
  const time_t now = time(nullptr);
  printf("died with signal %d on %s\n", sig, ctime(&now));
  fflush(stdout);
  exit(1);
}

void installCrashHandler() {
  rootedPath("/dev/log244", signalTable.reportPath, sizeof signalTable.reportPath);
  rootedPath("/dev/log", signalTable.logPrefix, sizeof signalTable.logPrefix);
  if (dumper == nullptr) dumper = new (dumperStorage) Dumper(dumpBuffer, sizeof dumpBuffer);
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART | SA_SIGINFO;
  action.sa_sigaction = crashHandler;
  for (int sig : {SIGSEGV, SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR2})
    sigaction(sig, &action, nullptr);
}

}  // namespace internal
}  // namespace kl
