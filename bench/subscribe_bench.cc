// Subscriptions at scale: the cost of CMD_SUBSCRIBE and of one change's fan-out as a
// handler's subscribers grow from 1 to 50,000. Each subscriber is a distinct process path,
// as when every client of a service subscribes once.
//   - BM_Subscribe/N: N subscriptions into an empty handler; time per subscription.
//   - BM_FanOut/N: sendNotify of one changed object to N subscribers; the frames and bytes
//     the service hands to its connection per change (the loader then fans them out).
// The handler's connection is replaced by a counter of what sendMessage is given, so only
// the handler's own work is timed.
#include <benchmark/benchmark.h>

#include <vector>

#include "kl/kl.h"

namespace {

class CountingHandler : public kl::Handler {
 public:
  void sendMessage(kl::message& m) override {
    ++frames;
    bytes += m.max_length();
  }
  size_t frames = 0;
  size_t bytes = 0;
};

kl::message subscribeRequest(unsigned int subscriber) {
  kl::message m;
  m.insert(kl::SYS_FROM, std::vector<unsigned int>{0x10000 + subscriber, 7});
  m.insert(kl::SYS_NOTIFYCMD, kl::CMD_NOTIFY);
  return m;
}

void BM_Subscribe(benchmark::State& state) {
  const unsigned int count = static_cast<unsigned int>(state.range(0));
  std::vector<kl::message> requests;
  for (unsigned int i = 0; i < count; ++i) requests.push_back(subscribeRequest(i));
  for (auto _ : state) {
    CountingHandler handler;
    for (const kl::message& m : requests) handler.cmdSubscribe(m);
    benchmark::DoNotOptimize(handler.subscriptions().size());
  }
  state.SetItemsProcessed(state.iterations() * count);
}

void BM_FanOut(benchmark::State& state) {
  const unsigned int count = static_cast<unsigned int>(state.range(0));
  CountingHandler handler;
  for (unsigned int i = 0; i < count; ++i) handler.cmdSubscribe(subscribeRequest(i));
  kl::message object;
  object.insert(kl::STD_ID, 3u);
  object.insert_string(kl::STD_DESCR, "uplink");
  kl::message n;
  n.insert(kl::SYS_CMD, kl::CMD_NOTIFY);
  n.insert_message_array(kl::STD_OBJS, {kl::message::flat_message(object)});
  for (auto _ : state) {
    kl::message copy = n;
    handler.sendNotify(copy);
  }
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["frames/change"] =
      static_cast<double>(handler.frames) / static_cast<double>(state.iterations());
  state.counters["bytes/change"] =
      static_cast<double>(handler.bytes) / static_cast<double>(state.iterations());
}

}  // namespace

BENCHMARK(BM_Subscribe)->Arg(1)->Arg(1000)->Arg(10000)->Arg(50000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FanOut)->Arg(1)->Arg(1000)->Arg(10000)->Arg(50000)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
