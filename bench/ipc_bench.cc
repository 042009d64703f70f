// Request/reply round trips and one-way throughput between two service processes through
// the development loader, with its peers measured in the same run:
//   - a raw relay written here: client -> relay process -> server process -> relay ->
//     client, 64-byte payloads in length-prefixed frames over Unix stream sockets, one
//     poll() loop in the relay. The same topology with no message format and no routing
//     table: the floor of what a loader can reach.
//   - D-Bus method calls through a private dbus-daemon, client and server on sd-bus.
// Each is measured with the processes free, all on CPU 0 (the device has one core), and
// with the middle process (relay, loader, bus daemon) on CPU 1 and the ends on CPU 0.
//
// The benchmark process is the client of all three; the servers, the relay, kl-loader and
// dbus-daemon are its children and die with it. The summary at the end gives the medians,
// 99th percentiles and the ratios kl/raw and kl/dbus of this run.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_procs.h"
#include "kl/base/endian.h"
#include "kl/kl.h"

namespace {

constexpr size_t kPayloadBytes = 64;
constexpr int kOneWayBatch = 1000;
constexpr int kExchangeTicks = 1000;  // 10 s: a lost reply fails the benchmark, not hangs it

// kl side: the server is process 0x200 with handler 2, the client process 0x201.
constexpr unsigned int kServerId = 0x200;
constexpr unsigned int kClientId = 0x201;
constexpr unsigned int kHandlerId = 2;
constexpr unsigned int kCmdEcho = 0x7e0001;
constexpr unsigned int kCmdOneWay = 0x7e0002;
constexpr unsigned int kCmdCount = 0x7e0003;
constexpr uint32_t kPayloadField = 0x20000001;  // string field 1
constexpr uint32_t kCountField = 0x08000002;    // u32 field 2

// Raw relay frames: u32 LE body length, then a kind byte and the payload.
enum RawKind : unsigned char { kRawEcho = 1, kRawOneWay = 2, kRawCount = 3 };

const std::string& payload() {
  static const std::string text(kPayloadBytes, 'p');
  return text;
}

// --- raw relay --------------------------------------------------------------------------

bool writeAll(int fd, const unsigned char* data, size_t length) {
  while (length > 0) {
    const ssize_t n = write(fd, data, length);
    if (n <= 0) return false;
    data += n;
    length -= static_cast<size_t>(n);
  }
  return true;
}

void appendFrame(std::vector<unsigned char>& out, RawKind kind, const std::string& body) {
  unsigned char prefix[4];
  kl::storeLe32(prefix, static_cast<uint32_t>(body.size() + 1));
  out.insert(out.end(), prefix, prefix + 4);
  out.push_back(kind);
  out.insert(out.end(), body.begin(), body.end());
}

// Buffered frame input from a blocking stream socket.
class RawReader {
 public:
  explicit RawReader(int fd) : fd_(fd), buf_(65536) {}
  // The next frame's body; false at end of file or on an error.
  bool next(const unsigned char** body, uint32_t* length) {
    for (;;) {
      if (end_ - start_ >= 4) {
        const uint32_t n = kl::loadLe32(&buf_[start_]);
        if (end_ - start_ >= 4 + n) {
          *body = &buf_[start_ + 4];
          *length = n;
          start_ += 4 + n;
          return true;
        }
      }
      if (!fill()) return false;
    }
  }
  // Reads what is available (at least one byte); false at end of file or on an error.
  bool fill() {
    if (start_ == end_) start_ = end_ = 0;
    if (end_ == buf_.size()) {
      memmove(buf_.data(), &buf_[start_], end_ - start_);
      end_ -= start_;
      start_ = 0;
    }
    const ssize_t n = read(fd_, &buf_[end_], buf_.size() - end_);
    if (n <= 0) return false;
    end_ += static_cast<size_t>(n);
    return true;
  }
  // Hands the complete frames at the front to `out` and drops them.
  bool forwardComplete(int out) {
    size_t stop = start_;
    while (end_ - stop >= 4 && end_ - stop >= 4 + kl::loadLe32(&buf_[stop])) {
      stop += 4 + kl::loadLe32(&buf_[stop]);
    }
    const bool ok = writeAll(out, &buf_[start_], stop - start_);
    start_ = stop;
    return ok;
  }

 private:
  int fd_;
  std::vector<unsigned char> buf_;
  size_t start_ = 0;
  size_t end_ = 0;
};

// The relay: whole frames from each side to the other, one poll() loop.
int runRelay(int clientSide, int serverSide) {
  RawReader fromClient(clientSide);
  RawReader fromServer(serverSide);
  struct pollfd fds[2] = {{clientSide, POLLIN, 0}, {serverSide, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) return 1;
    if (fds[0].revents != 0) {
      if (!fromClient.fill() || !fromClient.forwardComplete(serverSide)) return 0;
    }
    if (fds[1].revents != 0) {
      if (!fromServer.fill() || !fromServer.forwardComplete(clientSide)) return 0;
    }
  }
}

int runRawServer(int fd) {
  RawReader in(fd);
  uint32_t count = 0;
  const unsigned char* body;
  uint32_t length;
  std::vector<unsigned char> out;
  while (in.next(&body, &length)) {
    if (length == 0) continue;
    out.clear();
    if (body[0] == kRawEcho) {
      appendFrame(out, kRawEcho, std::string(reinterpret_cast<const char*>(body + 1), length - 1));
    } else if (body[0] == kRawOneWay) {
      ++count;
      continue;
    } else {
      unsigned char value[4];
      kl::storeLe32(value, count);
      appendFrame(out, kRawCount, std::string(reinterpret_cast<const char*>(value), 4));
    }
    if (!writeAll(fd, out.data(), out.size())) return 1;
  }
  return 0;
}

// --- kl server ----------------------------------------------------------------------------

class EchoHandler : public kl::Handler {
 public:
  void handleCmd(const kl::message& m, unsigned int cmd) override {
    if (cmd == kCmdEcho) {
      kl::message reply;
      reply.insert_string(kPayloadField, m.get_string(kPayloadField, ""));
      replyMessage(m, reply);
    } else if (cmd == kCmdOneWay) {
      ++count_;
    } else if (cmd == kCmdCount) {
      kl::message reply;
      reply.insert_u32(kCountField, count_);
      replyMessage(m, reply);
    } else {
      kl::Handler::handleCmd(m, cmd);
    }
  }

 private:
  unsigned int count_ = 0;
};

int runKlServer() {
  kl::Looper looper(kl::Looper::kConnect, kServerId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  EchoHandler echo;
  looper.addHandler(kHandlerId, &echo);
  looper.run();
  return 0;
}

// --- D-Bus server ---------------------------------------------------------------------------

constexpr char kBusName[] = "kl.bench.Echo";
constexpr char kBusPath[] = "/kl/bench";
constexpr char kBusInterface[] = "kl.bench.Echo";

int onBusCall(sd_bus_message* m, void*, sd_bus_error*) {
  const void* data = nullptr;
  size_t size = 0;
  if (sd_bus_message_read_array(m, 'y', &data, &size) < 0) return -EINVAL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(m, &reply);
  if (r >= 0) r = sd_bus_message_append_array(reply, 'y', data, size);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r < 0 ? r : 1;
}

sd_bus* openBus(const std::string& address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return nullptr;
  if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    sd_bus_unref(bus);
    return nullptr;
  }
  return bus;
}

// The daemon's socket exists before it listens: connecting may fail at first.
sd_bus* openBusPatiently(const std::string& address) {
  for (int i = 0; i < 500; ++i) {
    if (sd_bus* bus = openBus(address)) return bus;
    usleep(10000);
  }
  return nullptr;
}

int runBusServer(const std::string& address) {
  sd_bus* bus = openBusPatiently(address);
  if (bus == nullptr) return 1;
  if (sd_bus_add_object(bus, nullptr, kBusPath, onBusCall, nullptr) < 0) return 1;
  if (sd_bus_request_name(bus, kBusName, 0) < 0) return 1;
  for (;;) {
    const int r = sd_bus_process(bus, nullptr);
    if (r < 0) return 1;
    if (r > 0) continue;
    if (sd_bus_wait(bus, UINT64_MAX) < 0) return 1;
  }
}

// --- the set-up the benchmarks share -----------------------------------------------------------

struct Setup {
  klbench::TempRoot root;
  klbench::Children children;
  pid_t loader = -1;
  pid_t klServer = -1;
  pid_t relay = -1;
  pid_t rawServer = -1;
  int rawClient = -1;
  pid_t busDaemon = -1;
  pid_t busServer = -1;
  sd_bus* bus = nullptr;
  std::unique_ptr<kl::Looper> looper;
  kl::Handler client;
  std::string failure;
  std::string busFailure;  // only the D-Bus cases fail

  ~Setup() {
    if (bus != nullptr) sd_bus_flush_close_unref(bus);
    looper.reset();
    if (rawClient >= 0) close(rawClient);
    children.killAll();
  }
};

Setup* setup = nullptr;

bool startRaw(Setup& s) {
  int a[2], b[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, a) != 0) return false;
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, b) != 0) return false;
  s.relay = s.children.fork([&]() {
    close(a[0]);
    close(b[1]);
    return runRelay(a[1], b[0]);
  });
  s.rawServer = s.children.fork([&]() {
    close(a[0]);
    close(a[1]);
    close(b[0]);
    return runRawServer(b[1]);
  });
  close(a[1]);
  close(b[0]);
  close(b[1]);
  s.rawClient = a[0];
  return s.relay > 0 && s.rawServer > 0;
}

bool startBus(Setup& s) {
  const std::string socket = s.root.path() + "/bus";
  const std::string config = s.root.path() + "/bus.conf";
  std::ofstream(config) << "<busconfig>\n"
                           "  <type>session</type>\n"
                           "  <listen>unix:path="
                        << socket
                        << "</listen>\n"
                           "  <auth>EXTERNAL</auth>\n"
                           "  <policy context=\"default\">\n"
                           "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                           "    <allow eavesdrop=\"true\"/>\n"
                           "    <allow own=\"*\"/>\n"
                           "  </policy>\n"
                           "</busconfig>\n";
  s.busDaemon = s.children.spawn(
      {"/usr/bin/dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile"});
  if (s.busDaemon < 0 || !klbench::waitForPath(socket, 10)) return false;
  const std::string address = "unix:path=" + socket;
  s.busServer = s.children.fork([address]() { return runBusServer(address); });
  s.bus = openBusPatiently(address);
  return s.busServer > 0 && s.bus != nullptr;
}

bool startAll(Setup& s) {
  if (!s.root.ok()) return false;
  s.loader = klbench::startLoader(s.children, s.root.path());
  if (s.loader < 0) return false;
  s.klServer = s.children.fork(runKlServer);
  if (s.klServer < 0 || !startRaw(s)) return false;
  if (!startBus(s)) s.busFailure = "dbus-daemon or the sd-bus server did not start";
  // Last: the client's Looper makes this process a service; the children were forked
  // before it existed.
  s.looper.reset(new kl::Looper(kl::Looper::kConnect, kClientId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  s.looper->addHandler(kHandlerId, &s.client);
  return true;
}

// --- one round trip of each kind ------------------------------------------------------------

bool klCall(unsigned int cmd, kl::message* reply) {
  kl::message m;
  m.insert(kl::SYS_TO, std::vector<unsigned int>{kServerId, kHandlerId});
  if (cmd == kCmdEcho) m.insert_string(kPayloadField, payload());
  *reply = setup->client.exchangeCmd(m, cmd, kExchangeTicks);
  return kl::isReply(*reply) && !kl::isError(*reply, nullptr, nullptr);
}

bool rawCall(RawReader& in, RawKind kind, const std::string& body, uint32_t* count) {
  std::vector<unsigned char> out;
  appendFrame(out, kind, body);
  if (!writeAll(setup->rawClient, out.data(), out.size())) return false;
  const unsigned char* reply;
  uint32_t length;
  if (!in.next(&reply, &length) || length < 1 || reply[0] != kind) return false;
  if (count != nullptr) *count = length >= 5 ? kl::loadLe32(reply + 1) : 0;
  return true;
}

bool busCall(int* error) {
  sd_bus_message* m = nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error err = SD_BUS_ERROR_NULL;
  int r = sd_bus_message_new_method_call(setup->bus, &m, kBusName, kBusPath, kBusInterface, "Echo");
  if (r >= 0) r = sd_bus_message_append_array(m, 'y', payload().data(), payload().size());
  if (r >= 0) r = sd_bus_call(setup->bus, m, 10 * 1000000ull, &err, &reply);
  const void* data = nullptr;
  size_t size = 0;
  if (r >= 0) r = sd_bus_message_read_array(reply, 'y', &data, &size);
  if (r >= 0 && size != kPayloadBytes) r = -EPROTO;
  sd_bus_error_free(&err);
  sd_bus_message_unref(reply);
  sd_bus_message_unref(m);
  *error = r;
  return r >= 0;
}

// The bus server owns its name shortly after it started; the first calls may not find it.
bool awaitBusServer() {
  int error = 0;
  for (int i = 0; i < 500; ++i) {
    if (busCall(&error)) return true;
    usleep(10000);
  }
  return false;
}

// --- the benchmarks -------------------------------------------------------------------------

enum Peer { kKl = 0, kRaw = 1, kBus = 2 };
const char* const kPeerNames[] = {"kl", "raw", "dbus"};

struct RoundTrip {
  double medianNs = 0;
  double p99Ns = 0;
};
std::map<std::pair<int, int>, RoundTrip> roundTrips;  // (peer, placement)
std::map<std::pair<int, int>, double> oneWayRates;    // (peer, placement) -> messages/s

pid_t middleOf(int peer) {
  return peer == kKl ? setup->loader : peer == kRaw ? setup->relay : setup->busDaemon;
}
pid_t serverOf(int peer) {
  return peer == kKl ? setup->klServer : peer == kRaw ? setup->rawServer : setup->busServer;
}

bool ready(benchmark::State& state) {
  if (setup != nullptr && setup->failure.empty()) return true;
  state.SkipWithError(setup == nullptr ? "no set-up" : setup->failure.c_str());
  return false;
}

void BM_RoundTrip(benchmark::State& state) {
  if (!ready(state)) return;
  const int peer = static_cast<int>(state.range(0));
  const int placement = static_cast<int>(state.range(1));
  if (peer == kBus && !setup->busFailure.empty()) {
    state.SkipWithError(setup->busFailure.c_str());
    return;
  }
  if (peer == kBus && !awaitBusServer()) {
    state.SkipWithError("the sd-bus server does not answer");
    return;
  }
  klbench::place(placement, {0, serverOf(peer)}, middleOf(peer));
  RawReader rawIn(setup->rawClient);
  std::vector<double> samples;
  samples.reserve(1 << 16);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    bool ok;
    int error = 0;
    kl::message reply;
    switch (peer) {
      case kKl:
        ok = klCall(kCmdEcho, &reply);
        break;
      case kRaw:
        ok = rawCall(rawIn, kRawEcho, payload(), nullptr);
        break;
      default:
        ok = busCall(&error);
        break;
    }
    const auto stop = std::chrono::steady_clock::now();
    if (!ok) {
      state.SkipWithError("a round trip failed");
      break;
    }
    const double ns = std::chrono::duration<double, std::nano>(stop - start).count();
    state.SetIterationTime(ns * 1e-9);
    samples.push_back(ns);
  }
  klbench::place(klbench::kFree, {0, serverOf(peer)}, middleOf(peer));
  if (samples.empty()) return;
  RoundTrip result;
  result.medianNs = klbench::percentile(samples, 50);
  result.p99Ns = klbench::percentile(samples, 99);
  roundTrips[{peer, placement}] = result;
  state.counters["median_us"] = result.medianNs / 1000;
  state.counters["p99_us"] = result.p99Ns / 1000;
  state.SetLabel(std::string(kPeerNames[peer]) + "/" + klbench::placementName(placement));
}

// kOneWayBatch requests without replies, then one request for the server's count, which
// arrives after all of them.
void BM_OneWay(benchmark::State& state) {
  if (!ready(state)) return;
  const int peer = static_cast<int>(state.range(0));
  const int placement = static_cast<int>(state.range(1));
  klbench::place(placement, {0, serverOf(peer)}, middleOf(peer));
  RawReader rawIn(setup->rawClient);
  uint32_t last = 0;
  bool first = true;
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    uint32_t count = 0;
    bool ok;
    if (peer == kKl) {
      for (int i = 0; i < kOneWayBatch; ++i) {
        kl::message m;
        m.insert(kl::SYS_TO, std::vector<unsigned int>{kServerId, kHandlerId});
        m.insert_string(kPayloadField, payload());
        setup->client.sendCmd(m, kCmdOneWay);
      }
      kl::message reply;
      ok = klCall(kCmdCount, &reply);
      count = reply.get_u32(kCountField, 0);
    } else {
      std::vector<unsigned char> out;
      for (int i = 0; i < kOneWayBatch; ++i) {
        appendFrame(out, kRawOneWay, payload());
        if (out.size() > 1023) {
          writeAll(setup->rawClient, out.data(), out.size());
          out.clear();
        }
      }
      writeAll(setup->rawClient, out.data(), out.size());
      ok = rawCall(rawIn, kRawCount, std::string(), &count);
    }
    if (!ok || (!first && count - last != static_cast<uint32_t>(kOneWayBatch))) {
      state.SkipWithError("one-way messages were lost");
      break;
    }
    first = false;
    last = count;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  klbench::place(klbench::kFree, {0, serverOf(peer)}, middleOf(peer));
  if (!first && seconds > 0) {
    oneWayRates[{peer, placement}] =
        static_cast<double>(state.iterations()) * kOneWayBatch / seconds;
  }
  state.SetItemsProcessed(state.iterations() * kOneWayBatch);
  state.SetLabel(std::string(kPeerNames[peer]) + "/" + klbench::placementName(placement));
}

void placements(benchmark::internal::Benchmark* b, std::initializer_list<int> peers) {
  for (const int peer : peers) {
    for (int placement = klbench::kFree; placement <= klbench::kSplit; ++placement) {
      b->Args({peer, placement});
    }
  }
}

BENCHMARK(BM_RoundTrip)
    ->ArgNames({"peer", "placement"})
    ->Apply([](benchmark::internal::Benchmark* b) {
      placements(b, {kKl, kRaw, kBus});
    })
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OneWay)
    ->ArgNames({"peer", "placement"})
    ->Apply([](benchmark::internal::Benchmark* b) {
      placements(b, {kKl, kRaw});
    })
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// On a virtual machine whose idle CPUs halt at once (the haltpoll driver with polling off),
// waking a process on the other, idle CPU takes some 25 microseconds, several times the
// work of a hop. The free and split placements then measure those wake-ups and where the
// kernel happens to place the processes, more than the messaging itself.
void noteHaltingIdleCpus() {
  std::ifstream in("/sys/module/haltpoll/parameters/guest_halt_poll_ns");
  long pollNs = -1;
  if (!(in >> pollNs) || pollNs != 0) return;
  printf(
      "\nNote: idle CPUs halt without polling here (haltpoll guest_halt_poll_ns=0): the\n"
      "free and split placements are dominated by waking a halted CPU; one_cpu is not.\n");
}

void printSummary() {
  printf("\nRound trip, 64-byte payload (median / p99 in microseconds; ratios of medians)\n");
  printf("%-9s %17s %17s %17s %7s %7s\n", "placement", "kl", "raw relay", "dbus", "kl/raw",
         "kl/dbus");
  for (int placement = klbench::kFree; placement <= klbench::kSplit; ++placement) {
    const auto kl = roundTrips.find({kKl, placement});
    const auto raw = roundTrips.find({kRaw, placement});
    const auto bus = roundTrips.find({kBus, placement});
    if (kl == roundTrips.end() || raw == roundTrips.end() || bus == roundTrips.end()) continue;
    printf("%-9s %8.1f / %6.1f %8.1f / %6.1f %8.1f / %6.1f %7.2f %7.2f\n",
           klbench::placementName(placement), kl->second.medianNs / 1000, kl->second.p99Ns / 1000,
           raw->second.medianNs / 1000, raw->second.p99Ns / 1000, bus->second.medianNs / 1000,
           bus->second.p99Ns / 1000, kl->second.medianNs / raw->second.medianNs,
           kl->second.medianNs / bus->second.medianNs);
  }
  printf("\nOne-way 64-byte requests (thousands of messages per second)\n");
  printf("%-9s %10s %10s %7s\n", "placement", "kl", "raw relay", "kl/raw");
  for (int placement = klbench::kFree; placement <= klbench::kSplit; ++placement) {
    const auto kl = oneWayRates.find({kKl, placement});
    const auto raw = oneWayRates.find({kRaw, placement});
    if (kl == oneWayRates.end() || raw == oneWayRates.end()) continue;
    printf("%-9s %10.1f %10.1f %7.2f\n", klbench::placementName(placement), kl->second / 1000,
           raw->second / 1000, kl->second / raw->second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Setup s;
  setup = &s;
  if (!startAll(s) && s.failure.empty()) s.failure = "the service processes did not start";
  if (klbench::cpuCount() < 2) fprintf(stderr, "one CPU only: the split placement is not split\n");
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();
  noteHaltingIdleCpus();
  setup = nullptr;
  return 0;
}
