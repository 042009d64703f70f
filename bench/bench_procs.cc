// Process plumbing for the benchmarks; see bench_procs.h.
#include "bench/bench_procs.h"

#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace klbench {

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// In a fresh child: die with the parent, also when the parent died before prctl took hold.
void tieToParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
}

}  // namespace

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/kl-bench-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    perror("mkdtemp");
    return;
  }
  path_ = tmpl;
  mkdir((path_ + "/ram").c_str(), 0700);
  setenv("KL_ROOT", path_.c_str(), 1);
}

TempRoot::~TempRoot() {
  if (!path_.empty()) nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

pid_t Children::fork(const std::function<int()>& body) {
  fflush(stdout);
  fflush(stderr);
  const pid_t parent = getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    tieToParent(parent);
    _exit(body());
  }
  if (pid > 0) pids_.push_back(pid);
  return pid;
}

pid_t Children::spawn(const std::vector<std::string>& argv) {
  return fork([&argv]() {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, 1);
    execv(args[0], args.data());
    perror(args[0]);
    return 127;
  });
}

void Children::killAll() {
  // Stopped first, so that none of them sees the others go and reports it.
  for (const pid_t pid : pids_) kill(pid, SIGSTOP);
  while (!pids_.empty()) {
    const pid_t pid = pids_.back();
    pids_.pop_back();
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
}

bool waitForPath(const std::string& path, double seconds) {
  struct stat st;
  for (int i = 0; i < seconds * 1000; ++i) {
    if (stat(path.c_str(), &st) == 0) return true;
    const struct timespec ms = {0, 1000000};
    nanosleep(&ms, nullptr);
  }
  return false;
}

pid_t startLoader(Children& children, const std::string& root) {
  const pid_t pid = children.spawn({KL_LOADER_PATH});
  if (pid < 0 || !waitForPath(root + "/ram/kelosock", 5)) {
    fprintf(stderr, "kl-loader did not come up under %s\n", root.c_str());
    return -1;
  }
  return pid;
}

int cpuCount() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return CPU_COUNT(&set);
}

bool placeOn(pid_t pid, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
  for (long c = 0; c < cpus; ++c) {
    if (cpu < 0 || c == cpu) CPU_SET(c, &set);
  }
  return sched_setaffinity(pid, sizeof set, &set) == 0;
}

const char* placementName(int placement) {
  switch (placement) {
    case kOneCpu:
      return "one_cpu";
    case kSplit:
      return "split";
    default:
      return "free";
  }
}

void place(int placement, const std::vector<pid_t>& ends, pid_t middle) {
  const int endCpu = placement == kFree ? -1 : 0;
  const int middleCpu = placement == kFree ? -1 : placement == kOneCpu ? 0 : 1;
  for (const pid_t pid : ends) placeOn(pid, endCpu);
  placeOn(middle, middleCpu);
}

double percentile(std::vector<double>& samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(samples.size())));
  rank = std::max<size_t>(rank, 1);
  return samples[rank - 1];
}

}  // namespace klbench
