// Costs per unit at scale: for each quantity that a service lets grow, the cost of one unit
// of it as the count grows by tens, so that a cost that rises with the count shows as a
// rising row instead of hiding in one total. Every benchmark reports per_unit_ns, its
// measured time divided by the units it handled; after the runs one table gives each row's
// best figure per count and the ratio of its largest to its smallest figure (the goal is
// at most 2); a second table gives what each further unit costs between two counts, where
// costs paid once per run (a round trip, an fsync) drop out.
//   a. fan-out: Handler::sendNotify of one change to N subscribers; per subscriber. The
//      handler's connection is a counter of the frames it is given.
//   b. get-all: N objects fetched from a service process through kl-loader, by AsyncGetall
//      and by FullReget, the service answering in chunks of 100; per object.
//   c. store: N records of about 100 bytes; per record: set into a fresh store (without the
//      closing fsync), get in a shuffled order, reopen (constructing the Store on the
//      files) and compaction (N live records among N freed ones).
//   d. timers: N timers armed with expiries spread over a minute, then all fired (the clock
//      moved on with advanceClock) or all cancelled in a shuffled order; per timer.
//   e. pending requests: a Handler posts N requests (each with a time-out timer) to a
//      service process through kl-loader and then takes the N replies; per request, for
//      the posting alone and for posting plus all replies.
//   f. connected processes: the round trip of one request to a service through kl-loader
//      while N further processes are connected to the loader and idle; per round trip.
//   g. message fields: a message of N fields (u32, string, u64 and bool in turn); per field:
//      decode (unflatten), == of two equal messages built apart, merge of two messages of N
//      fields of which half the ids are shared (into a copy, so the copy's clone counts).
// Process rows run in one development root with one kl-loader; the service and the idle
// processes are this program started again with a role argument.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bench_procs.h"
#include "kl/base/diagnostics.h"
#include "kl/kl.h"

namespace {

using Clock = std::chrono::steady_clock;

double nsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// The counter every benchmark reports: `ns` of measured work over `units` units.
void setPerUnit(benchmark::State& state, const char* counter, double ns, double units) {
  state.counters[counter] = units > 0 ? ns / units : 0;
}

double runUnits(const benchmark::State& state, int64_t perIteration) {
  return static_cast<double>(state.iterations()) * static_cast<double>(perIteration);
}

constexpr char kPerUnit[] = "per_unit_ns";
constexpr char kPerUnitPost[] = "post_per_unit_ns";

// --- processes ---------------------------------------------------------------------------

constexpr char kServeRole[] = "--scale-serve";
constexpr char kIdleRole[] = "--scale-idle";
constexpr unsigned int kServerId = 0x230;
constexpr unsigned int kClientId = 0x231;
constexpr unsigned int kFirstIdleId = 0x2000;
constexpr unsigned int kEchoHandler = 1;    // answers CMD_NOOP with an empty reply
constexpr unsigned int kClientHandler = 2;  // the client's posting Handler
constexpr unsigned int kChunk = 100;        // objects per get-all reply
constexpr int kExchangeTicks = 1000;        // 10 s: a lost reply fails the run, not hangs it
const int64_t kObjectCounts[] = {10, 100, 1000, 10000, 100000};

constexpr uint32_t kMtuField = 0x08000001;
constexpr uint32_t kSpeedField = 0x08000002;
constexpr uint32_t kBytesField = 0x10000003;
constexpr uint32_t kAddressField = 0x18000004;

// Objects 1..limit of a shared list, `kChunk` per reply; the handler's id is its limit.
class ObjectList : public kl::Handler {
 public:
  ObjectList(const std::map<unsigned int, kl::message>& objects, unsigned int limit)
      : objects_(objects), limit_(limit) {}

  kl::message cmdGetAll(const kl::message&, unsigned int startId, unsigned int) override {
    std::vector<kl::message::flat_message> chunk;
    auto it = startId == kl::BADID ? objects_.begin() : objects_.lower_bound(startId);
    for (; it != objects_.end() && it->first <= limit_ && chunk.size() < kChunk; ++it) {
      chunk.emplace_back(it->second);
    }
    kl::message reply;
    reply.insert_message_array(kl::STD_OBJS, std::move(chunk));
    if (it != objects_.end() && it->first <= limit_) reply.insert(kl::STD_GETALLID, it->first);
    return reply;
  }
  unsigned int getObjectCount() override { return limit_; }

 private:
  const std::map<unsigned int, kl::message>& objects_;
  unsigned int limit_;
};

int runServer() {
  std::map<unsigned int, kl::message> objects;
  const unsigned int most = static_cast<unsigned int>(kObjectCounts[4]);
  for (unsigned int id = 1; id <= most; ++id) {
    kl::message obj;
    obj.insert(kl::STD_ID, id);
    obj.insert_string(kl::STD_DESCR, "port" + std::to_string(id));
    obj.insert_u32(kMtuField, 1500);
    obj.insert_u32(kSpeedField, 1000000);
    obj.insert_u64(kBytesField, 1000003ull * id);
    IPAddr6 address{};
    address.bytes[15] = static_cast<unsigned char>(id);
    obj.insert_addr6(kAddressField, address);
    objects[id] = obj;
  }
  kl::Looper looper(kl::Looper::kConnect, kServerId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  kl::Handler echo;
  looper.addHandler(kEchoHandler, &echo);
  std::vector<std::unique_ptr<ObjectList>> lists;
  for (int64_t count : kObjectCounts) {
    lists.emplace_back(new ObjectList(objects, static_cast<unsigned int>(count)));
    looper.addHandler(static_cast<unsigned int>(count), lists.back().get());
  }
  looper.run();
  return 0;
}

// A process that registers with the loader and then only waits.
int runIdle(unsigned int id) {
  kl::Looper looper(kl::Looper::kConnect, id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  looper.run();
  return 0;
}

std::string selfPath() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return std::string();
  path[n] = '\0';
  return path;
}

// kl-loader, the service and the client Looper (this process), started on first use and
// kept until the end; idle processes are added as the connected-process row asks.
struct Procs {
  klbench::Children children;
  std::unique_ptr<kl::Looper> looper;
  kl::Handler client;
  unsigned int idle = 0;
  std::string failure;
};

klbench::TempRoot* root = nullptr;
std::unique_ptr<Procs> procs;

kl::message noop(const std::vector<unsigned int>& to) {
  kl::message m;
  m.insert(kl::SYS_TO, to);
  m.insert(kl::SYS_CMD, kl::CMD_NOOP);
  return m;
}

// Whether `to` answers a CMD_NOOP within about `seconds`; the path is broken until its
// process has registered.
bool awaitAnswer(const std::vector<unsigned int>& to, double seconds) {
  for (int i = 0; i < seconds * 100; ++i) {
    kl::message m = noop(to);
    if (!kl::isError(procs->looper->exchangeMessage(m, kExchangeTicks), nullptr, nullptr)) {
      return true;
    }
    usleep(10000);
  }
  return false;
}

Procs* startProcs() {
  if (procs) return procs->failure.empty() ? procs.get() : nullptr;
  procs.reset(new Procs);
  Procs& p = *procs;
  if (root == nullptr || !root->ok() || klbench::startLoader(p.children, root->path()) < 0 ||
      p.children.spawn({selfPath(), kServeRole}) < 0) {
    p.failure = "kl-loader or the service did not start";
    return nullptr;
  }
  p.looper.reset(new kl::Looper(kl::Looper::kConnect, kClientId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  // The idle processes started later must not inherit the client's connection.
  fcntl(p.looper->socket(), F_SETFD, FD_CLOEXEC);
  p.looper->addHandler(kClientHandler, &p.client);
  if (!awaitAnswer({kServerId, kEchoHandler}, 10)) {
    p.failure = "the service did not register";
    return nullptr;
  }
  return &p;
}

Procs* procsOrSkip(benchmark::State& state) {
  Procs* p = startProcs();
  if (p == nullptr) state.SkipWithError(procs->failure.c_str());
  return p;
}

// Turns the client's loop until done() holds; false after 10 s.
bool turnUntil(const std::function<bool()>& done) {
  kl::Looper& looper = *procs->looper;
  bool expired = false;
  kl::TimerPtr deadline = looper.addTimer(
      &expired, [](void* flag) { *static_cast<bool*>(flag) = true; }, 1000);
  while (!done() && !expired) {
    looper.dispatchQueue();
    looper.runSocks(kl::getJiffies());
  }
  if (!expired) looper.removeTimer(deadline);
  return done();
}

// --- a. fan-out ------------------------------------------------------------------------------

class CountingHandler : public kl::Handler {
 public:
  void sendMessage(kl::message& m) override {
    ++frames;
    bytes += m.max_length();
  }
  size_t frames = 0;
  size_t bytes = 0;
};

void BM_FanOut(benchmark::State& state) {
  const int64_t count = state.range(0);
  CountingHandler handler;
  for (int64_t i = 0; i < count; ++i) {
    kl::message m;
    m.insert(kl::SYS_FROM, {0x10000 + static_cast<unsigned int>(i), 7});
    m.insert(kl::SYS_NOTIFYCMD, kl::CMD_NOTIFY);
    handler.cmdSubscribe(m);
  }
  kl::message object;
  object.insert(kl::STD_ID, 3u);
  object.insert_string(kl::STD_DESCR, "uplink");
  kl::message n;
  n.insert(kl::SYS_CMD, kl::CMD_NOTIFY);
  n.insert_message_array(kl::STD_OBJS, {kl::message::flat_message(object)});
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    kl::message copy = n;
    handler.sendNotify(copy);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  if (handler.frames < static_cast<size_t>(state.iterations()))
    state.SkipWithError("a notification was not sent");
}

// --- b. get-all ------------------------------------------------------------------------------

struct Tally {
  unsigned int objects = 0;
  unsigned long long sum = 0;
  void take(const kl::message& obj) {
    ++objects;
    sum += obj.get(kl::STD_ID, 0);
  }
  static void onObject(void* self, const kl::message& obj) { static_cast<Tally*>(self)->take(obj); }
};

bool fetchAsyncGetall(unsigned int count, Tally& tally) {
  const unsigned int job = kl::sendAsyncGetall(&procs->client, &tally, Tally::onObject, kServerId,
                                               count, kl::CMD_GETALL);
  const bool ended = turnUntil([job] {
    for (const kl::AsyncGetall* live : kl::AsyncGetall::instances) {
      if (live->number() == job) return false;
    }
    return true;
  });
  if (!ended) kl::stopAsyncGetall(job);
  return ended;
}

bool fetchFullReget(unsigned int count, Tally& tally) {
  kl::FullReget all;
  all.setTimeout(kExchangeTicks);
  kl::message base;
  base.insert(kl::SYS_TO, {kServerId, count});
  all.setBase(base);
  while (!all.isEmpty()) tally.take(all.pop());
  return !kl::isError(all.reply(), nullptr, nullptr);
}

template <bool (*Fetch)(unsigned int, Tally&)>
void BM_Getall(benchmark::State& state) {
  if (procsOrSkip(state) == nullptr) return;
  const unsigned int count = static_cast<unsigned int>(state.range(0));
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    Tally tally;
    if (!Fetch(count, tally) || tally.objects != count) {
      state.SkipWithError("a fetch did not deliver every object");
      return;
    }
    benchmark::DoNotOptimize(tally.sum);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
}

// --- c. store --------------------------------------------------------------------------------

class BenchRunner : public kl::Runner {};

// A runner for the store's flush and compaction timers unless the process has one.
struct RunnerIfNone {
  std::unique_ptr<BenchRunner> own;
  RunnerIfNone() {
    if (kl::getRunner() == nullptr) own.reset(new BenchRunner);
  }
  ~RunnerIfNone() {
    if (own) own->shutdown();
  }
};

// About 100 bytes flattened.
kl::message record(unsigned int id) {
  kl::message m;
  m.insert(kl::STD_ID, id);
  m.insert(kl::STD_OBJ_COUNT, id * 3);
  m.insert_bool(kl::STD_DISABLED, id % 2 == 0);
  m.insert_string(kl::STD_DESCR, std::string(72, static_cast<char>('a' + id % 26)));
  return m;
}

std::vector<kl::message> records(int64_t count) {
  std::vector<kl::message> out;
  for (int64_t id = 0; id < count; ++id) out.push_back(record(static_cast<unsigned int>(id)));
  return out;
}

// A store path not used before (a device path under the development root).
std::string freshStorePath() {
  static int serial = 0;
  return "/scale/store" + std::to_string(++serial);
}

// A store on a path not used before. Its first opening finds no files and says so on the
// diagnostic stream, as a first run does: that line is expected here and left out.
std::unique_ptr<kl::Store> freshStore(std::string* path = nullptr) {
  static FILE* const devNull = fopen("/dev/null", "w");
  const std::string fresh = freshStorePath();
  if (path != nullptr) *path = fresh;
  kl::setDiagnosticStream(devNull);
  std::unique_ptr<kl::Store> store(new kl::Store(fresh, 10));
  kl::setDiagnosticStream(nullptr);
  return store;
}

std::vector<unsigned int> shuffled(int64_t count) {
  std::vector<unsigned int> order(static_cast<size_t>(count));
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<unsigned int>(i);
  std::shuffle(order.begin(), order.end(), std::mt19937(42));
  return order;
}

void BM_StoreSet(benchmark::State& state) {
  RunnerIfNone runner;
  const int64_t count = state.range(0);
  const std::vector<kl::message> messages = records(count);
  double ns = 0;
  for (auto _ : state) {
    std::unique_ptr<kl::Store> store = freshStore();
    const Clock::time_point start = Clock::now();
    for (int64_t id = 0; id < count; ++id) store->set(static_cast<unsigned int>(id), messages[id]);
    const double took = nsSince(start);
    state.SetIterationTime(took / 1e9);
    ns += took;
    store->deleteFiles();
  }
  setPerUnit(state, kPerUnit, ns, runUnits(state, count));
}

void BM_StoreGet(benchmark::State& state) {
  RunnerIfNone runner;
  const int64_t count = state.range(0);
  const std::vector<unsigned int> order = shuffled(count);
  std::unique_ptr<kl::Store> fresh = freshStore();
  kl::Store& store = *fresh;
  for (int64_t id = 0; id < count; ++id)
    store.set(static_cast<unsigned int>(id), record(static_cast<unsigned int>(id)));
  store.doFlush();
  size_t found = 0;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    for (unsigned int id : order) found += store.get(id).empty() ? 0 : 1;
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  if (found != state.iterations() * order.size()) state.SkipWithError("a record was missing");
  store.deleteFiles();
}

void BM_StoreReopen(benchmark::State& state) {
  RunnerIfNone runner;
  const int64_t count = state.range(0);
  std::string path;
  {
    std::unique_ptr<kl::Store> fresh = freshStore(&path);
    kl::Store& store = *fresh;
    for (int64_t id = 0; id < count; ++id)
      store.set(static_cast<unsigned int>(id), record(static_cast<unsigned int>(id)));
    store.doFlush();
  }
  double ns = 0;
  bool whole = true;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    kl::Store store(path, 10);
    const double took = nsSince(start);
    state.SetIterationTime(took / 1e9);
    ns += took;
    whole = whole && !store.restarted && store.has(static_cast<unsigned int>(count - 1));
  }
  setPerUnit(state, kPerUnit, ns, runUnits(state, count));
  if (!whole) state.SkipWithError("the store did not reopen whole");
  kl::Store(path, 10).deleteFiles();
}

void BM_StoreCompaction(benchmark::State& state) {
  RunnerIfNone runner;
  const int64_t count = state.range(0);
  const std::vector<kl::message> messages = records(2 * count);
  double ns = 0;
  bool whole = true;
  for (auto _ : state) {
    std::unique_ptr<kl::Store> fresh = freshStore();
    kl::Store& store = *fresh;
    for (int64_t id = 0; id < 2 * count; ++id) {
      store.set(static_cast<unsigned int>(id), messages[id]);
    }
    for (int64_t id = 0; id < 2 * count; id += 2) store.remove(static_cast<unsigned int>(id));
    const Clock::time_point start = Clock::now();
    store.compact(false);
    const double took = nsSince(start);
    state.SetIterationTime(took / 1e9);
    ns += took;
    whole = whole && store.ids().size() == static_cast<size_t>(count) &&
            !store.get(static_cast<unsigned int>(2 * count - 1)).empty();
    store.deleteFiles();
  }
  setPerUnit(state, kPerUnit, ns, runUnits(state, count));
  if (!whole) state.SkipWithError("compaction lost records");
}

// --- d. timers -------------------------------------------------------------------------------

// Expiries spread over the first minute, so that the heap has real work.
unsigned int timeoutOf(int64_t i) { return static_cast<unsigned int>(i * 7919 % 6000); }
constexpr unsigned int kPastEveryTimeout = 6001;

void BM_TimersFire(benchmark::State& state) {
  const int64_t count = state.range(0);
  kl::ThinRunner runner;
  int64_t fired = 0;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    for (int64_t i = 0; i < count; ++i) {
      runner.addTimer(
          &fired, [](void* n) { ++*static_cast<int64_t*>(n); }, timeoutOf(i));
    }
    kl::advanceClock(kPastEveryTimeout);
    runner.runTimers();
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  if (fired != state.iterations() * count) state.SkipWithError("not every timer fired");
}

void BM_TimersCancel(benchmark::State& state) {
  const int64_t count = state.range(0);
  kl::ThinRunner runner;
  std::vector<kl::TimerPtr> timers(static_cast<size_t>(count));
  const std::vector<unsigned int> order = shuffled(count);
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    for (int64_t i = 0; i < count; ++i)
      timers[i] = runner.addTimer(
          nullptr, [](void*) {}, timeoutOf(i));
    for (unsigned int i : order) runner.removeTimer(timers[i]);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  if (runner.timerCount() != 0) state.SkipWithError("a timer was left armed");
}

// --- e. pending requests -----------------------------------------------------------------------

void BM_PendingRequests(benchmark::State& state) {
  Procs* p = procsOrSkip(state);
  if (p == nullptr) return;
  const int64_t count = state.range(0);
  int64_t replies = 0;
  int64_t failures = 0;
  double postNs = 0;
  double allNs = 0;
  const kl::message extra;
  for (auto _ : state) {
    replies = 0;
    const Clock::time_point start = Clock::now();
    for (int64_t i = 0; i < count; ++i) {
      kl::message m = noop({kServerId, kEchoHandler});
      p->client.postMessage(
          m, &replies,
          [](void* n, const kl::message& reply, const kl::message&) {
            ++*static_cast<int64_t*>(n);
            if (kl::isError(reply, nullptr, nullptr)) *static_cast<int64_t*>(n) -= 1 << 30;
          },
          extra, kExchangeTicks);
    }
    postNs += nsSince(start);
    if (!turnUntil([&replies, count] { return replies >= count || replies < 0; })) ++failures;
    allNs += nsSince(start);
    if (replies != count) ++failures;
  }
  setPerUnit(state, kPerUnit, allNs, runUnits(state, count));
  setPerUnit(state, kPerUnitPost, postNs, runUnits(state, count));
  if (failures != 0 || p->client.pendingPosts() != 0) {
    state.SkipWithError("a posted request got no reply");
  }
}

// --- f. connected processes ----------------------------------------------------------------

// Starts idle processes until `count` are connected; false when one does not register.
bool connectIdle(Procs& p, unsigned int count) {
  const std::string self = selfPath();
  const unsigned int first = p.idle;
  for (unsigned int i = first; i < count; ++i) {
    if (p.children.spawn({self, kIdleRole, std::to_string(kFirstIdleId + i)}) < 0) return false;
  }
  for (unsigned int i = first; i < count; ++i) {
    if (!awaitAnswer({kFirstIdleId + i}, 30)) return false;
  }
  p.idle = count;
  return true;
}

void BM_RoundTrip(benchmark::State& state) {
  Procs* p = procsOrSkip(state);
  if (p == nullptr) return;
  const unsigned int others = static_cast<unsigned int>(state.range(0));
  if (p->idle > others || !connectIdle(*p, others)) {
    state.SkipWithError("the idle processes could not be connected");
    return;
  }
  bool answered = true;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    kl::message m = noop({kServerId, kEchoHandler});
    answered =
        answered && !kl::isError(p->looper->exchangeMessage(m, kExchangeTicks), nullptr, nullptr);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, 1));
  if (!answered) state.SkipWithError("a round trip failed");
}

// --- g. message fields -----------------------------------------------------------------------

// Fields first..first+count-1: u32, string, u64 and bool in turn.
kl::message fields(int64_t first, int64_t count) {
  kl::message m;
  for (int64_t i = first; i < first + count; ++i) {
    const uint32_t id = static_cast<uint32_t>(i);
    switch (i % 4) {
      case 0:
        m.insert_u32(id, static_cast<unsigned int>(i));
        break;
      case 1:
        m.insert_string(id, "value" + std::to_string(i));
        break;
      case 2:
        m.insert_u64(id, 1000003ull * i);
        break;
      default:
        m.insert_bool(id, i % 8 == 3);
        break;
    }
  }
  return m;
}

void BM_MessageDecode(benchmark::State& state) {
  const int64_t count = state.range(0);
  std::vector<unsigned char> flat;
  fields(1, count).flatten(flat);
  bool ok = true;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    kl::message m;
    ok = m.unflatten(flat.data(), static_cast<unsigned int>(flat.size()),
                     kl::message::flatten_full) &&
         ok;
    benchmark::DoNotOptimize(m);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  if (!ok || kl::message(flat) != fields(1, count)) state.SkipWithError("decoding failed");
}

void BM_MessageEqual(benchmark::State& state) {
  const int64_t count = state.range(0);
  const kl::message a = fields(1, count);
  const kl::message b = fields(1, count);
  bool equal = true;
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    equal = (a == b) && equal;
    benchmark::DoNotOptimize(equal);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  if (!equal) state.SkipWithError("equal messages compared unequal");
}

void BM_MessageMerge(benchmark::State& state) {
  const int64_t count = state.range(0);
  const kl::message into = fields(1, count);
  const kl::message other = fields(1 + count / 2, count);
  const Clock::time_point start = Clock::now();
  for (auto _ : state) {
    kl::message m = into;
    m.merge(other);
    benchmark::DoNotOptimize(m);
  }
  setPerUnit(state, kPerUnit, nsSince(start), runUnits(state, count));
  kl::message check = into;
  check.merge(other);
  if (!check.includes(other) || check == into) state.SkipWithError("merge lost fields");
}

// --- registration and the table ---------------------------------------------------------------

struct Row {
  const char* benchmark;  // the registered name
  const char* counter;    // the counter it reports the row in
  const char* label;      // the row of the table
  bool perCount = true;   // the unit is one of the N counted (not so for the round trip)
};

const Row kRows[] = {
    {"a_fanout", kPerUnit, "a fan-out sendNotify / subscriber"},
    {"b_getall_async", kPerUnit, "b get-all AsyncGetall / object"},
    {"b_getall_full", kPerUnit, "b get-all FullReget / object"},
    {"c_store_set", kPerUnit, "c store set / record"},
    {"c_store_get", kPerUnit, "c store get / record"},
    {"c_store_reopen", kPerUnit, "c store reopen / record"},
    {"c_store_compaction", kPerUnit, "c store compaction / record"},
    {"d_timers_fire", kPerUnit, "d timers arm+fire / timer"},
    {"d_timers_cancel", kPerUnit, "d timers arm+cancel / timer"},
    {"e_pending", kPerUnitPost, "e requests post / request"},
    {"e_pending", kPerUnit, "e requests post+reply / request"},
    {"f_roundtrip", kPerUnit, "f loader round trip (N others)", false},
    {"g_decode", kPerUnit, "g message decode / field"},
    {"g_equal", kPerUnit, "g message == / field"},
    {"g_merge", kPerUnit, "g message merge / field"},
};

// Other work on the machine slows single runs down by a third or more: the table takes each
// count's best run.
constexpr int kRepetitions = 5;

std::vector<int64_t> powersOfTen(int64_t from, int64_t to) {
  std::vector<int64_t> out;
  for (int64_t n = from; n <= to; n *= 10) out.push_back(n);
  return out;
}

// Each count runs kRepetitions times; the table takes the best. Counts from `fixedFrom` on
// run `fixedIterations` iterations, as their set-up or their run is long.
void add(const char* name, void (*fn)(benchmark::State&), const std::vector<int64_t>& counts,
         double minTime, bool manualTime, int64_t fixedFrom = 0, int64_t fixedIterations = 0) {
  for (int64_t count : counts) {
    benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(name, fn)->Arg(count);
    b->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions);
    if (manualTime) {
      b->UseManualTime();
    } else {
      b->UseRealTime();
    }
    if (fixedFrom != 0 && count >= fixedFrom) {
      b->Iterations(fixedIterations);
    } else {
      b->MinTime(minTime);
    }
  }
}

void registerAll() {
  add("g_decode", BM_MessageDecode, powersOfTen(10, 100000), 0.03, false);
  add("g_equal", BM_MessageEqual, powersOfTen(10, 100000), 0.03, false);
  add("g_merge", BM_MessageMerge, powersOfTen(10, 100000), 0.03, false);
  add("d_timers_fire", BM_TimersFire, powersOfTen(10, 1000000), 0.03, false);
  add("d_timers_cancel", BM_TimersCancel, powersOfTen(10, 1000000), 0.03, false);
  add("a_fanout", BM_FanOut, powersOfTen(10, 100000), 0.03, false);
  add("c_store_set", BM_StoreSet, powersOfTen(10, 100000), 0.03, true, 10000, 1);
  add("c_store_get", BM_StoreGet, powersOfTen(10, 100000), 0.03, false);
  add("c_store_reopen", BM_StoreReopen, powersOfTen(10, 100000), 0.03, true);
  add("c_store_compaction", BM_StoreCompaction, powersOfTen(10, 10000), 0.03, true, 1000, 2);
  add("b_getall_async", BM_Getall<fetchAsyncGetall>, powersOfTen(10, 100000), 0.05, false, 100000,
      1);
  add("b_getall_full", BM_Getall<fetchFullReget>, powersOfTen(10, 100000), 0.05, false, 100000, 1);
  add("e_pending", BM_PendingRequests, powersOfTen(10, 10000), 0.05, false);
  add("f_roundtrip", BM_RoundTrip, powersOfTen(1, 1000), 0.2, false);
}

// The display: benchmark's console lines for the single runs, and the figures they carry
// kept for the table (the best of the repetitions per row and count).
class TableReporter : public benchmark::ConsoleReporter {
 public:
  explicit TableReporter(OutputOptions options) : ConsoleReporter(options) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      shown.push_back(run);
      if (run.error_occurred) continue;
      const int64_t count = std::strtoll(run.run_name.args.c_str(), nullptr, 10);
      for (const auto& counter : run.counters) {
        const Key key{run.run_name.function_name, counter.first};
        auto cell = best_[key].emplace(count, counter.second.value);
        if (!cell.second) cell.first->second = std::min(cell.first->second, counter.second.value);
      }
    }
    if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  }

  void printTable() const {
    std::vector<int64_t> counts;
    for (const auto& row : best_) {
      for (const auto& cell : row.second) counts.push_back(cell.first);
    }
    std::sort(counts.begin(), counts.end());
    counts.erase(std::unique(counts.begin(), counts.end()), counts.end());
    printf("\nns per unit, best of %d runs; columns: the count N\n%-34s", kRepetitions, "");
    for (int64_t count : counts) printf(" %9s", countName(count).c_str());
    printf(" %8s\n", "max/min");
    for (const Row& row : kRows) {
      auto it = best_.find(Key{row.benchmark, row.counter});
      if (it == best_.end()) continue;
      printf("%-34s", row.label);
      double low = 0, high = 0;
      for (int64_t count : counts) {
        auto cell = it->second.find(count);
        if (cell == it->second.end()) {
          printf(" %9s", "-");
          continue;
        }
        const double v = cell->second;
        printf(" %9s", figure(v).c_str());
        low = low == 0 ? v : std::min(low, v);
        high = std::max(high, v);
      }
      printf(" %7.1fx%s\n", low > 0 ? high / low : 0.0, low > 0 && high > 2 * low ? " !" : "");
    }
    printf("(! : above the goal of 2)\n");
    printMarginalTable(counts);
  }

  // What each further unit costs: (T(N) - T(N/10)) / (N - N/10), T being the whole run's
  // time. Costs paid once per run (a round trip, an fsync, opening a file) drop out, so a
  // row that is flat here costs the same for its ten-thousandth unit as for its tenth.
  void printMarginalTable(const std::vector<int64_t>& counts) const {
    printf("\nns per further unit between N/10 and N\n%-34s", "");
    for (size_t i = 1; i < counts.size(); ++i) printf(" %9s", countName(counts[i]).c_str());
    printf(" %8s\n", "max/min");
    for (const Row& row : kRows) {
      auto it = best_.find(Key{row.benchmark, row.counter});
      if (!row.perCount || it == best_.end()) continue;
      printf("%-34s", row.label);
      double low = 0, high = 0;
      for (size_t i = 1; i < counts.size(); ++i) {
        auto cell = it->second.find(counts[i]);
        auto before = it->second.find(counts[i - 1]);
        if (cell == it->second.end() || before == it->second.end()) {
          printf(" %9s", "-");
          continue;
        }
        const double extra = (cell->second * counts[i] - before->second * counts[i - 1]) /
                             static_cast<double>(counts[i] - counts[i - 1]);
        printf(" %9s", figure(extra).c_str());
        if (extra <= 0) continue;
        low = low == 0 ? extra : std::min(low, extra);
        high = std::max(high, extra);
      }
      printf(" %7.1fx%s\n", low > 0 ? high / low : 0.0, low > 0 && high > 2 * low ? " !" : "");
    }
  }

 private:
  using Key = std::pair<std::string, std::string>;  // benchmark, counter

  static std::string countName(int64_t count) {
    if (count >= 1000000 && count % 1000000 == 0) return std::to_string(count / 1000000) + "M";
    if (count >= 1000 && count % 1000 == 0) return std::to_string(count / 1000) + "k";
    return std::to_string(count);
  }
  static std::string figure(double ns) {
    char text[32];
    snprintf(text, sizeof text, ns < 10 ? "%.2f" : ns < 100 ? "%.1f" : "%.0f", ns);
    return text;
  }

  std::map<Key, std::map<int64_t, double>> best_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && strcmp(argv[1], kServeRole) == 0) return runServer();
  if (argc == 3 && strcmp(argv[1], kIdleRole) == 0) {
    return runIdle(static_cast<unsigned int>(strtoul(argv[2], nullptr, 0)));
  }
  benchmark::Initialize(&argc, argv);
  klbench::TempRoot tempRoot;  // KL_ROOT for the stores, the loader and the services
  root = &tempRoot;
  registerAll();
  TableReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                               : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  procs.reset();
  root = nullptr;
  reporter.printTable();
  return 0;
}
