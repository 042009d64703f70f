#include "kl/util/system.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "kl/base/clock.h"
#include "kl/base/root.h"
#include "kl/util/text.h"

namespace {

constexpr long kTmpfsMagic = 0x01021994;

// Closes a descriptor when it goes out of scope.
struct Fd {
  int fd;
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
};

// Repeats a read or write interrupted by a signal.
template <class F>
ssize_t retryEintr(F f) {
  ssize_t n;
  do {
    n = f();
  } while (n < 0 && errno == EINTR);
  return n;
}

}  // namespace

int insmod(const char* module, const char* params) {
  utsname u;
  if (uname(&u) != 0) return -1;
  const std::string path =
      kl::rootedPath(("/lib/modules/" + std::string(u.release) + "/" + module).c_str());
  Fd file(open(path.c_str(), O_RDONLY));
  struct stat st;
  if (file.fd < 0 || fstat(file.fd, &st) != 0) return -1;
  void* image = mmap(nullptr, st.st_size, PROT_READ, MAP_SHARED, file.fd, 0);
  if (image == MAP_FAILED) return -1;
  const int result = static_cast<int>(syscall(
      SYS_init_module, image, static_cast<unsigned long>(st.st_size), params ? params : ""));
  munmap(image, st.st_size);
  return result;
}

std::string kernelModuleName(const char* module) {
  std::string name = module;
  const size_t slash = name.rfind('/');
  if (slash != std::string::npos) name.erase(0, slash + 1);
  for (char& c : name) {
    if (c == '-') c = '_';
  }
  const size_t dot = name.find('.');
  if (dot != std::string::npos) name.resize(dot);
  return name;
}

int rmmod(const char* module) {
  return static_cast<int>(
      syscall(SYS_delete_module, kernelModuleName(module).c_str(), O_NONBLOCK | O_EXCL));
}

bool isSensitiveFile(const std::string& name) {
  static const std::string kSuffix = ".backup";
  return name.size() >= kSuffix.size() &&
         name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

bool copyFile(const std::string& src, const std::string& dst) {
  struct stat st;
  if (stat(src.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  // No O_TRUNC: an existing longer dst keeps its tail.
  Fd out(open(dst.c_str(), O_WRONLY | O_CREAT, st.st_mode & 0xFFF));
  Fd in(open(src.c_str(), O_RDONLY));
  if (out.fd < 0 || in.fd < 0) return false;
  char buf[4096];
  for (;;) {
    const ssize_t n = retryEintr([&] { return read(in.fd, buf, sizeof buf); });
    if (n == 0) return true;
    if (n < 0) return false;
    const ssize_t written = retryEintr([&] { return write(out.fd, buf, n); });
    if (written != n) return false;
  }
}

bool normalizePath(std::string in, std::string& out) {
  out = "";
  if (in.empty()) return true;
  std::vector<std::string> segments;
  split(in, "/", segments);
  std::vector<std::string> kept;
  for (const std::string& segment : segments) {
    if (segment == ".") continue;
    if (segment == "..") {
      if (kept.empty()) return false;  // climbs above the root
      kept.pop_back();
      continue;
    }
    kept.push_back(segment);
  }
  for (const std::string& segment : kept) out += "/" + segment;
  if (out.empty()) out = "/";
  return true;
}

bool fileExists(const std::string& path) {
  if (path.empty()) return false;
  Fd f(open(path.c_str(), O_RDONLY));
  return f.fd >= 0;
}

namespace kl {

bool isPackageActive(const char* name) {
  if (name == nullptr) return false;
  char path[128];
  snprintf(path, sizeof path, "/var/pdb/%s", name);
  const std::string dir = rootedPath(path);
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  snprintf(path, sizeof path, "/var/pdb/%s/disabled", name);
  return stat(rootedPath(path).c_str(), &st) != 0;
}

unsigned getFreeMemory(const char* meminfoPath, const char* ramccPath, unsigned* total) {
  unsigned freeKb = 0xFFFFFFFFu;
  if (FILE* f = fopen(meminfoPath, "r")) {
    static const char* const kLines[] = {"MemTotal: %u", "MemFree: %u", "Buffers: %u",
                                         "Cached: %u"};
    char line[256];
    bool stop = false;
    while (!stop) {
      unsigned values[4];
      for (int i = 0; i < 4 && !stop; ++i) {
        stop = fgets(line, sizeof line, f) == nullptr || sscanf(line, kLines[i], &values[i]) != 1;
      }
      if (stop) break;
      if (total != nullptr) *total = values[0];
      freeKb = values[1] + values[2] + values[3];
    }
    fclose(f);
  }
  struct statfs fs;
  if (statfs(ramccPath, &fs) == 0 && fs.f_type == kTmpfsMagic) {
    freeKb -= static_cast<unsigned>((fs.f_bsize / 1024) * (fs.f_blocks - fs.f_bavail));
  }
  return freeKb;
}

unsigned getFreeMemory(unsigned* total) {
  return getFreeMemory("/proc/meminfo", rootedPath("/var/ramcc").c_str(), total);
}

unsigned getUptime() { return getJiffies() / 100; }

}  // namespace kl
