// Change notifications fanned out through the development loader: one service changes its
// objects as fast as it can and 1, 10 or 50 subscriber processes receive them.
//   - batched: notifyChange() for each change; the Handler collects the changed ids and
//     sendChanges() sends each notification once, addressed to every subscriber with one
//     multi-destination path that the loader fans out.
//   - one message each: every change goes as its own CMD_NOTIFY message to every
//     subscriber through sendMessage().
// Reported: objects delivered per second (summed over the subscribers) and the bytes the
// publishing service writes to its socket per changed object. The benchmark process is the
// publisher; the subscribers and kl-loader are its children and die with it.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_procs.h"
#include "kl/kl.h"

namespace {

constexpr unsigned int kPublisherId = 0x300;
constexpr unsigned int kFirstSubscriberId = 0x400;
constexpr unsigned int kHandlerId = 2;
constexpr int kMaxSubscribers = 50;
constexpr unsigned int kObjectCount = 1000;
constexpr int kChangesPerIteration = 500;
constexpr int kExchangeTicks = 1000;  // 10 s

// Commands the publisher gives its subscribers.
constexpr unsigned int kCmdStartSubscription = 0x7e0011;
constexpr unsigned int kCmdEndSubscription = 0x7e0012;
constexpr unsigned int kCmdCount = 0x7e0013;
constexpr uint32_t kCountField = 0x08000002;  // u32 field 2
constexpr uint32_t kMtuField = 0x08000001;    // u32 field 1 of each object

// --- subscriber processes ----------------------------------------------------------------------

class Subscriber : public kl::Handler {
 public:
  void handleCmd(const kl::message& m, unsigned int cmd) override {
    const std::vector<unsigned int> publisher = {kPublisherId, kHandlerId};
    if (cmd == kl::CMD_NOTIFY) {
      objects_ += m.size_message_array(kl::STD_OBJS);
    } else if (cmd == kCmdStartSubscription) {
      subscribe(publisher, kl::CMD_NOTIFY, kl::message());
    } else if (cmd == kCmdEndSubscription) {
      unsubscribe(publisher, kl::CMD_NOTIFY, kl::message());
    } else if (cmd == kCmdCount) {
      kl::message reply;
      reply.insert_u32(kCountField, objects_);
      replyMessage(m, reply);
    } else {
      kl::Handler::handleCmd(m, cmd);
    }
  }

 private:
  unsigned int objects_ = 0;
};

int runSubscriber(unsigned int id) {
  kl::Looper looper(kl::Looper::kConnect, id, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  Subscriber subscriber;
  looper.addHandler(kHandlerId, &subscriber);
  looper.run();
  return 0;
}

// --- the publisher ------------------------------------------------------------------------------

// Counts the bytes of the frames the process sends while `counting` is set.
class CountingLooper : public kl::Looper {
 public:
  CountingLooper() : kl::Looper(kConnect, kPublisherId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {}
  void sendMessage(kl::message& m) override {
    if (counting) bytes += kl::kFramePrefixBytes + kl::message::flat_message(m).size();
    kl::Looper::sendMessage(m);
  }
  bool counting = false;
  size_t bytes = 0;
};

class Objects : public kl::Handler {
 public:
  Objects() {
    for (unsigned int id = 1; id <= kObjectCount; ++id) {
      kl::message obj;
      obj.insert(kl::STD_ID, id);
      obj.insert_string(kl::STD_DESCR, "port" + std::to_string(id));
      obj.insert_u32(kMtuField, 1500);
      objects_.push_back(obj);
    }
  }
  kl::message getObject(unsigned int id) override {
    return id >= 1 && id <= objects_.size() ? objects_[id - 1] : kl::message();
  }
  unsigned int getObjectCount() override { return kObjectCount; }

  // Changes object `id` and notifies: batched, or one message to each subscriber.
  void change(unsigned int id, bool batched) {
    kl::message& obj = objects_[id - 1];
    obj.insert_u32(kMtuField, obj.get_u32(kMtuField, 0) + 1);
    if (batched) {
      notifyChange(id);
      return;
    }
    kl::message n;
    n.insert(kl::SYS_CMD, kl::CMD_NOTIFY);
    n.insert_message_array(kl::STD_OBJS, {kl::message::flat_message(obj)});
    n.insert(kl::STD_OBJ_COUNT, kObjectCount);
    for (const kl::message& record : subscriptions()) {
      kl::message copy = n;
      copy.insert(kl::SYS_TO, record.get_u32_array(kl::SYS_FROM));
      sendMessage(copy);
    }
  }

 private:
  std::vector<kl::message> objects_;
};

struct Setup {
  klbench::TempRoot root;
  klbench::Children children;
  pid_t loader = -1;
  std::unique_ptr<CountingLooper> looper;
  Objects objects;
  unsigned int nextId = 1;

  ~Setup() {
    looper.reset();
    children.killAll();
  }
};

Setup* setup = nullptr;

bool startAll(Setup& s) {
  if (!s.root.ok()) return false;
  s.loader = klbench::startLoader(s.children, s.root.path());
  if (s.loader < 0) return false;
  for (int i = 0; i < kMaxSubscribers; ++i) {
    if (s.children.fork([i]() { return runSubscriber(kFirstSubscriberId + i); }) < 0) return false;
  }
  s.looper.reset(new CountingLooper());
  s.looper->addHandler(kHandlerId, &s.objects);
  return true;
}

// Dispatches what arrives until `done` holds; false after 10 s.
template <typename Done>
bool pumpUntil(Done done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    kl::message m = setup->looper->getMessage(10);
    if (!kl::isError(m, nullptr, nullptr)) setup->looper->dispatchMessage(m);
  }
  return true;
}

void tellSubscribers(int count, unsigned int cmd) {
  for (int i = 0; i < count; ++i) {
    kl::message m;
    m.insert(kl::SYS_TO, std::vector<unsigned int>{kFirstSubscriberId + i, kHandlerId});
    setup->objects.sendCmd(m, cmd);
  }
  setup->looper->writeFlush(true);
}

// The objects the first `count` subscribers received so far; each answer comes after
// every notification sent to that subscriber before the question. -1 on a failure.
long long deliveredTo(int count) {
  long long total = 0;
  for (int i = 0; i < count; ++i) {
    kl::message m;
    m.insert(kl::SYS_TO, std::vector<unsigned int>{kFirstSubscriberId + i, kHandlerId});
    const kl::message reply = setup->objects.exchangeCmd(m, kCmdCount, kExchangeTicks);
    if (kl::isError(reply, nullptr, nullptr)) return -1;
    total += reply.get_u32(kCountField, 0);
  }
  return total;
}

void publish(int changes, bool batched) {
  for (int i = 0; i < changes; ++i) {
    setup->objects.change(setup->nextId, batched);
    setup->nextId = setup->nextId % kObjectCount + 1;
  }
  if (batched) setup->objects.sendChanges();
}

struct Result {
  double deliveredPerSecond = 0;
  double bytesPerObject = 0;
};
std::map<std::pair<int, int>, Result> results;  // (batched, subscribers)

void BM_Notify(benchmark::State& state) {
  const bool batched = state.range(0) != 0;
  const int subscribers = static_cast<int>(state.range(1));
  if (setup == nullptr || !setup->looper) {
    state.SkipWithError("the service processes did not start");
    return;
  }
  tellSubscribers(subscribers, kCmdStartSubscription);
  if (!pumpUntil([&] { return setup->objects.subscriptions().size() == size_t(subscribers); })) {
    state.SkipWithError("the subscriptions did not arrive");
    return;
  }
  long long before = deliveredTo(subscribers);
  const auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    publish(kChangesPerIteration, batched);
    const long long now = deliveredTo(subscribers);
    if (now < 0 || now - before != static_cast<long long>(kChangesPerIteration) * subscribers) {
      state.SkipWithError("notifications were lost");
      break;
    }
    before = now;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  // One more round, untimed, for the bytes the publisher writes.
  setup->looper->counting = true;
  setup->looper->bytes = 0;
  publish(kChangesPerIteration, batched);
  setup->looper->counting = false;
  const double bytesPerObject =
      static_cast<double>(setup->looper->bytes) / static_cast<double>(kChangesPerIteration);
  deliveredTo(subscribers);

  tellSubscribers(subscribers, kCmdEndSubscription);
  pumpUntil([] { return setup->objects.subscriptions().empty(); });

  const double delivered =
      static_cast<double>(state.iterations()) * kChangesPerIteration * subscribers;
  state.counters["delivered"] = benchmark::Counter(delivered, benchmark::Counter::kIsRate);
  state.counters["changes"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kChangesPerIteration, benchmark::Counter::kIsRate);
  state.counters["bytes_per_object"] = bytesPerObject;
  state.SetLabel(batched ? "batched" : "one message each");
  if (seconds > 0) results[{batched, subscribers}] = {delivered / seconds, bytesPerObject};
}
BENCHMARK(BM_Notify)
    ->ArgNames({"batched", "subscribers"})
    ->ArgsProduct({{1, 0}, {1, 10, kMaxSubscribers}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void printSummary() {
  printf("\nObjects delivered per second (all subscribers) and publisher bytes per object\n");
  printf("%-11s %14s %14s %9s %9s %15s\n", "subscribers", "batched", "one each", "ratio",
         "B/obj b.", "B/obj one each");
  for (const int n : {1, 10, kMaxSubscribers}) {
    const auto b = results.find({1, n});
    const auto o = results.find({0, n});
    if (b == results.end() || o == results.end()) continue;
    printf("%-11d %14.0f %14.0f %9.2f %9.1f %15.1f\n", n, b->second.deliveredPerSecond,
           o->second.deliveredPerSecond,
           b->second.deliveredPerSecond / o->second.deliveredPerSecond, b->second.bytesPerObject,
           o->second.bytesPerObject);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Setup s;
  setup = &s;
  if (!startAll(s)) fprintf(stderr, "notify_bench: the service processes did not start\n");
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();
  setup = nullptr;
  return 0;
}
