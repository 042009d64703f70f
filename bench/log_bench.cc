// Log lines from one process into kl-logd (started here under a temporary KL_ROOT, its
// output discarded), against the peer: one send() of the same line to a local Unix datagram
// socket, which is what syslog(3) costs per line. A child process drains the datagrams as
// kl-logd drains the stream.
//
// The unmuted cases send bursts of kBurst lines and then, untimed, wait until the reader has
// taken everything: they measure the sender's cost per line while the reader keeps up. A
// small record takes far more of a stream socket's send buffer than its length, so without
// the pauses the Logger soon meets a full socket and sleeps (100 ms per retry, by design);
// BM_LoggerLogSustained shows that rate, in real time.
//
//   BM_LstreamLine        a line formatted through kl::lstream and sent (unmuted)
//   BM_LoggerLog          the same finished line handed to Logger::log (the record write)
//   BM_DatagramSend       the same finished line, one send() on a datagram socket (peer)
//   BM_LoggerLogSustained Logger::log without pauses: what kl-logd takes per second
//   BM_MutedLine          a line formatted through a muted lstream, dropped in the process
//   BM_MutedLineChecked   a muted line skipped by isMuted(), as services write it
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kl/base/clock.h"
#include "kl/log/log_format.h"
#include "kl/log/lstream.h"
#include "kl/runner/runner.h"

namespace {

const char kLine[] = "eth0: rx packets 123456 bytes 185184000";
constexpr unsigned int kTopicShown = 1;
constexpr unsigned int kTopicMuted = 3;
constexpr int kBurst = 64;

std::string gRoot;
int gDatagram = -1;
pid_t gLogd = -1;
pid_t gSink = -1;

// Stops the children and removes the root, on every way out of main.
void cleanup() {
  for (pid_t pid : {gSink, gLogd}) {
    if (pid <= 0) continue;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
  }
  if (!gRoot.empty()) {
    const std::string command = "rm -rf '" + gRoot + "'";
    if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", gRoot.c_str());
  }
}

sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size());
  return addr;
}

// kl-logd muting kTopicMuted, its output discarded. Returns its pid.
pid_t startLogd() {
  const pid_t pid = fork();
  if (pid == 0) {
    setenv("KL_ROOT", gRoot.c_str(), 1);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    dup2(null, 2);
    execl(KL_LOGD_PATH, "kl-logd", "--mute", "3", static_cast<char*>(nullptr));
    _exit(127);
  }
  const sockaddr_un addr = unixAddress(gRoot + kl::logformat::kSocketPath);
  for (int tries = 0; tries < 500; ++tries) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const bool up = connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (up) return pid;
    usleep(10000);
  }
  fprintf(stderr, "kl-logd did not start\n");
  exit(1);
}

// A datagram socket bound under the root, drained by a child; gDatagram is connected to it.
pid_t startDatagramSink() {
  const std::string path = gRoot + "/dgram";
  const sockaddr_un addr = unixAddress(path);
  const int sink = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (bind(sink, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) exit(1);
  const pid_t pid = fork();
  if (pid == 0) {
    char buf[2048];
    while (recv(sink, buf, sizeof buf, 0) >= 0) {
    }
    _exit(0);
  }
  close(sink);
  gDatagram = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (connect(gDatagram, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) exit(1);
  return pid;
}

// Registers `log`'s source and, the first time, waits for kl-logd's mute notice and lets
// the Logger read it.
void awaitMute(kl::lstream& log) {
  log << "registering" << std::endl;
  if (log.isMuted()) return;
  pollfd p{kl::Logger::getLogger()->socket(), POLLIN, 0};
  if (poll(&p, 1, 5000) != 1) exit(1);
  kl::getRunner()->runSocks(kl::getJiffies());
  if (!log.isMuted()) exit(1);
}

// Untimed: waits (at most 1 s) until the reader of fd's socket has taken everything sent.
void awaitDrained(benchmark::State& state, int fd) {
  state.PauseTiming();
  int queued = 0;
  for (int tries = 0; tries < 20000 && ioctl(fd, SIOCOUTQ, &queued) == 0 && queued > 0; ++tries) {
    usleep(50);
  }
  state.ResumeTiming();
}

void BM_LstreamLine(benchmark::State& state) {
  kl::lstream log(kTopicShown, 0);
  unsigned int n = 123456;
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) {
      log << "eth0: rx packets " << n << " bytes " << n * 1500 << std::endl;
    }
    awaitDrained(state, kl::Logger::getLogger()->socket());
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_LstreamLine);

void BM_LoggerLog(benchmark::State& state) {
  kl::Logger* logger = kl::Logger::getLogger();
  kl::Source* source = logger->registerSource({kTopicShown, 2});
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) logger->log(source, kLine, sizeof kLine - 1);
    awaitDrained(state, logger->socket());
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_LoggerLog);

void BM_DatagramSend(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) {
      benchmark::DoNotOptimize(send(gDatagram, kLine, sizeof kLine - 1, 0));
    }
    awaitDrained(state, gDatagram);
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_DatagramSend);

void BM_LoggerLogSustained(benchmark::State& state) {
  kl::Logger* logger = kl::Logger::getLogger();
  kl::Source* source = logger->registerSource({kTopicShown, 2});
  for (auto _ : state) logger->log(source, kLine, sizeof kLine - 1);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LoggerLogSustained)->UseRealTime()->Iterations(20000);

void BM_MutedLine(benchmark::State& state) {
  kl::lstream log(kTopicMuted, 0);
  awaitMute(log);
  unsigned int n = 123456;
  for (auto _ : state) log << "eth0: rx packets " << n << " bytes " << n * 1500 << std::endl;
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutedLine);

void BM_MutedLineChecked(benchmark::State& state) {
  kl::lstream log(kTopicMuted, 0);
  awaitMute(log);
  unsigned int n = 123456;
  for (auto _ : state) {
    if (!log.isMuted()) log << "eth0: rx packets " << n << " bytes " << n * 1500 << std::endl;
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MutedLineChecked);

}  // namespace

int main(int argc, char** argv) {
  char pattern[] = "/tmp/kl-log-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 1;
  gRoot = pattern;
  setenv("KL_ROOT", pattern, 1);
  atexit(cleanup);
  gLogd = startLogd();
  gSink = startDatagramSink();
  kl::Runner runner;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  runner.shutdown();
  close(gDatagram);
  return 0;
}
