// File: bench/bench_procs.h
//
// Process plumbing shared by the benchmarks that measure traffic between service processes:
// a temporary development root, children that die with the benchmark (even when it fails
// or crashes), the development loader started as one of them, CPU placement, and latency
// percentiles.
#ifndef BENCH_BENCH_PROCS_H_
#define BENCH_BENCH_PROCS_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace klbench {

// A fresh directory /tmp/kl-bench-XXXXXX with ram/ inside, exported as KL_ROOT so that
// children forked later find the loader's socket there. Removed with its contents.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  const std::string& path() const { return path_; }
  bool ok() const { return !path_.empty(); }

 private:
  std::string path_;
};

// The children of the benchmark. Every child gets SIGKILL when the benchmark process dies;
// the destructor stops them all, then kills and reaps them, last started first.
class Children {
 public:
  Children() = default;
  ~Children() { killAll(); }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  // Runs body() in a forked child, which exits with its result. -1 when fork fails.
  pid_t fork(const std::function<int()>& body);
  // Starts argv[0] with arguments argv[1..]; standard output goes to /dev/null.
  pid_t spawn(const std::vector<std::string>& argv);
  void killAll();
  const std::vector<pid_t>& pids() const { return pids_; }

 private:
  std::vector<pid_t> pids_;
};

// Waits up to `seconds` for `path` to exist (a socket a child creates).
bool waitForPath(const std::string& path, double seconds);

// Starts the development loader at KL_LOADER_PATH under the current KL_ROOT and waits for
// its socket. -1 when it does not come up.
pid_t startLoader(Children& children, const std::string& root);

// Restricts `pid` (0: this process) to `cpu`, or lets it run anywhere when cpu < 0.
bool placeOn(pid_t pid, int cpu);
int cpuCount();

// How the processes of one measurement are spread over the CPUs.
enum Placement { kFree = 0, kOneCpu = 1, kSplit = 2 };
const char* placementName(int placement);
// Places the two end points (client and server) and the middle (relay, loader or bus
// daemon): kFree anywhere, kOneCpu all on CPU 0, kSplit ends on CPU 0 and the middle on 1.
void place(int placement, const std::vector<pid_t>& ends, pid_t middle);

// Nearest-rank percentile (0 < p <= 100) of the samples; sorts them.
double percentile(std::vector<double>& samples, double p);

}  // namespace klbench

#endif  // BENCH_BENCH_PROCS_H_
