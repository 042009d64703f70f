// Fetching a whole object list through the development loader: 10,000 objects of six
// fields from a handler in another process that answers CMD_GETALL in chunks of 50, 200 or
// 1000 objects (the handler chooses; here one handler per chunk size, its id the size).
// The fetchers measured side by side in one run:
//   - exchange: the floor, a hand-written loop of Looper::exchangeMessage calls that
//     follows STD_GETALLID and touches each object as the others do;
//   - FullReget: the same requests behind isEmpty()/pop(), which add the filter field;
//   - AsyncReget: posted requests and a callback per object, the loop turning between
//     chunks;
//   - AsyncGetall: a job per fetch, posted through a Handler.
// Every fetch must deliver all 10,000 objects. The summary gives each fetcher's best objects
// per second of five runs and the ratios to exchange, and FullReget to AsyncReget, per chunk
// size.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_procs.h"
#include "kl/kl.h"

namespace {

constexpr unsigned int kServerId = 0x210;
constexpr unsigned int kClientId = 0x211;
constexpr unsigned int kJobHandler = 1;
constexpr unsigned int kObjects = 10000;
constexpr int kExchangeTicks = 1000;  // 10 s: a lost reply fails the benchmark, not hangs it
const unsigned int kChunkSizes[] = {50, 200, 1000};

// The six fields of an object.
constexpr uint32_t kMtuField = 0x08000001;      // u32
constexpr uint32_t kSpeedField = 0x08000002;    // u32
constexpr uint32_t kBytesField = 0x10000003;    // u64
constexpr uint32_t kAddressField = 0x18000004;  // addr6

// --- the serving process ---------------------------------------------------------------

class ObjectList : public kl::Handler {
 public:
  ObjectList(const std::map<unsigned int, kl::message>& objects, unsigned int chunk)
      : objects_(objects), chunk_(chunk) {}

  kl::message cmdGetAll(const kl::message&, unsigned int startId, unsigned int) override {
    std::vector<kl::message::flat_message> chunk;
    chunk.reserve(chunk_);
    auto it = startId == kl::BADID ? objects_.begin() : objects_.lower_bound(startId);
    for (; it != objects_.end() && chunk.size() < chunk_; ++it) chunk.emplace_back(it->second);
    kl::message reply;
    reply.insert_message_array(kl::STD_OBJS, std::move(chunk));
    if (it != objects_.end()) reply.insert(kl::STD_GETALLID, it->first);
    return reply;
  }
  unsigned int getObjectCount() override { return static_cast<unsigned int>(objects_.size()); }

 private:
  const std::map<unsigned int, kl::message>& objects_;
  unsigned int chunk_;
};

int runServer() {
  std::map<unsigned int, kl::message> objects;
  for (unsigned int id = 1; id <= kObjects; ++id) {
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
  std::vector<std::unique_ptr<ObjectList>> handlers;
  for (unsigned int chunk : kChunkSizes) {
    handlers.emplace_back(new ObjectList(objects, chunk));
    looper.addHandler(chunk, handlers.back().get());
  }
  looper.run();
  return 0;
}

// --- the client (this process) ---------------------------------------------------------

struct Setup {
  klbench::TempRoot root;
  klbench::Children children;
  std::unique_ptr<kl::Looper> looper;
  kl::Handler jobs;
  std::string failure;

  ~Setup() {
    looper.reset();
    children.killAll();
  }
};

Setup* setup = nullptr;

kl::message target(unsigned int chunk) {
  kl::message m;
  m.insert(kl::SYS_TO, {kServerId, chunk});
  return m;
}

bool startAll(Setup& s) {
  if (!s.root.ok() || klbench::startLoader(s.children, s.root.path()) < 0) return false;
  if (s.children.fork(runServer) < 0) return false;
  s.looper.reset(new kl::Looper(kl::Looper::kConnect, kClientId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  s.looper->addHandler(kJobHandler, &s.jobs);
  // Until the server has registered, its path is broken.
  for (int i = 0; i < 500; ++i) {
    kl::message m = target(kChunkSizes[0]);
    m.insert(kl::SYS_CMD, kl::CMD_NOOP);
    if (!kl::isError(s.looper->exchangeMessage(m, kExchangeTicks), nullptr, nullptr)) return true;
    usleep(10000);
  }
  return false;
}

// What every fetcher does with an object: read one field, so that none is skipped unseen.
struct Tally {
  unsigned int objects = 0;
  unsigned long long sum = 0;
  bool done = false;
  void take(const kl::message& obj) {
    ++objects;
    sum += obj.get(kl::STD_ID, 0);
  }
  static void onObject(void* self, const kl::message& obj) { static_cast<Tally*>(self)->take(obj); }
  static void onDone(void* self, const kl::message& reply) {
    Tally* t = static_cast<Tally*>(self);
    t->done = true;
    if (kl::isError(reply, nullptr, nullptr)) t->objects = 0;
  }
};

// Turns the loop until done() holds; false after 10 s.
bool turnUntil(const std::function<bool()>& done) {
  kl::Looper& looper = *setup->looper;
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

bool fetchByExchange(unsigned int chunk, Tally& tally) {
  kl::message base = target(chunk);
  base.insert(kl::SYS_CMD, kl::CMD_GETALL);
  for (;;) {
    kl::message request = base;
    const kl::message reply = setup->looper->exchangeMessage(request, kExchangeTicks);
    if (kl::isError(reply, nullptr, nullptr)) return false;
    for (const kl::message::flat_message& flat : *reply.get_message_array_ref(kl::STD_OBJS)) {
      tally.take(kl::message(flat));
    }
    if (!reply.has(kl::STD_GETALLID)) return true;
    base.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
  }
}

bool fetchByFullReget(unsigned int chunk, Tally& tally) {
  kl::FullReget all;
  all.setTimeout(kExchangeTicks);
  all.setBase(target(chunk));
  while (!all.isEmpty()) tally.take(all.pop());
  return !kl::isError(all.reply(), nullptr, nullptr);
}

bool fetchByAsyncReget(unsigned int chunk, Tally& tally) {
  kl::message request = target(chunk);
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  kl::AsyncReget fetch;
  fetch.start(request, &tally, Tally::onObject, Tally::onDone, kExchangeTicks);
  return turnUntil([&tally] { return tally.done; });
}

bool fetchByAsyncGetall(unsigned int chunk, Tally& tally) {
  const unsigned int job =
      kl::sendAsyncGetall(&setup->jobs, &tally, Tally::onObject, kServerId, chunk, kl::CMD_GETALL);
  const bool ended = turnUntil([job] {
    for (const kl::AsyncGetall* live : kl::AsyncGetall::instances) {
      if (live->number() == job) return false;
    }
    return true;
  });
  if (!ended) kl::stopAsyncGetall(job);
  return ended;
}

enum Fetcher { kExchange = 0, kFullReget = 1, kAsyncReget = 2, kAsyncGetall = 3 };
const char* const kFetcherNames[] = {"exchange", "FullReget", "AsyncReget", "AsyncGetall"};
bool (*const kFetchers[])(unsigned int, Tally&) = {fetchByExchange, fetchByFullReget,
                                                   fetchByAsyncReget, fetchByAsyncGetall};

// Other processes on the machine slow single runs down by a factor of two or more: the
// summary takes each fetcher's best run.
constexpr int kRepetitions = 5;
std::map<std::pair<int, unsigned int>, double> rates;  // (fetcher, chunk) -> best objects/s

void BM_Fetch(benchmark::State& state) {
  if (setup == nullptr || !setup->failure.empty()) {
    state.SkipWithError(setup == nullptr ? "no set-up" : setup->failure.c_str());
    return;
  }
  const int fetcher = static_cast<int>(state.range(0));
  const unsigned int chunk = static_cast<unsigned int>(state.range(1));
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    Tally tally;
    if (!kFetchers[fetcher](chunk, tally) || tally.objects != kObjects) {
      state.SkipWithError("a fetch did not deliver every object");
      return;
    }
    benchmark::DoNotOptimize(tally.sum);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double objects = static_cast<double>(state.iterations()) * kObjects;
  double& best = rates[{fetcher, chunk}];
  best = std::max(best, objects / seconds);
  state.SetItemsProcessed(static_cast<int64_t>(objects));
  state.SetLabel(std::string(kFetcherNames[fetcher]) + "/chunk " + std::to_string(chunk));
}

void registerAll() {
  for (unsigned int chunk : kChunkSizes) {
    for (int fetcher = kExchange; fetcher <= kAsyncGetall; ++fetcher) {
      benchmark::RegisterBenchmark("BM_Fetch", BM_Fetch)
          ->Args({fetcher, static_cast<int64_t>(chunk)})
          ->Unit(benchmark::kMillisecond)
          ->Repetitions(kRepetitions)
          ->ReportAggregatesOnly(true)
          ->UseRealTime();
    }
  }
}

void printSummary() {
  printf("\nobjects per second, best of %d runs (ratio to exchange)\n%-8s", kRepetitions, "chunk");
  for (const char* name : kFetcherNames) printf(" %22s", name);
  printf("  FullReget/AsyncReget\n");
  for (unsigned int chunk : kChunkSizes) {
    printf("%-8u", chunk);
    const double floor = rates[{kExchange, chunk}];
    for (int f = kExchange; f <= kAsyncGetall; ++f) {
      const double rate = rates[{f, chunk}];
      printf(" %13.0f (%5.2fx)", rate, floor > 0 ? rate / floor : 0.0);
    }
    const double async = rates[{kAsyncReget, chunk}];
    printf("  %19.2fx\n", async > 0 ? rates[{kFullReget, chunk}] / async : 0.0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Setup s;
  setup = &s;
  if (!startAll(s)) s.failure = "kl-loader or the object server did not come up";
  registerAll();
  benchmark::RunSpecifiedBenchmarks();
  printSummary();
  setup = nullptr;
  return 0;
}
