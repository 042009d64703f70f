// Timer benchmarks: arming and cancelling 1,000,000 timers (cancelled in arming order, and
// in a random order that takes them from random heap positions), and arming and firing
// 100,000, by the kl runner, libuv and libevent in the same binary. Each kl timer is a
// record the runner allocates; each libuv and libevent timer is a handle the caller owns
// (allocated here before timing). Items are timers: ns per item is ns per timer armed and
// cancelled, or armed and fired.
#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <uv.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kl/runner/thin_runner.h"

namespace {

constexpr int kArmCancel = 1000000;
constexpr int kArmFire = 100000;

void noop(void*) {}
void uvNoop(uv_timer_t*) {}

// Spread expiries over the first minute so that the heap has real work.
unsigned int timeoutOf(int i) { return static_cast<unsigned int>(i) * 7919u % 6000u; }

// The order timers are cancelled in: as armed (range(0) == 0), or a fixed random order.
std::vector<int> cancelOrder(bool random) {
  std::vector<int> order(kArmCancel);
  for (int i = 0; i < kArmCancel; ++i) order[i] = i;
  if (random) std::shuffle(order.begin(), order.end(), std::mt19937(42));
  return order;
}

const char* orderLabel(const benchmark::State& state) {
  return state.range(0) ? "random order" : "arming order";
}

timeval tenMsTicks(unsigned int ticks) {
  timeval tv;
  tv.tv_sec = ticks / 100;
  tv.tv_usec = (ticks % 100) * 10000;
  return tv;
}

void BM_KlArmCancel(benchmark::State& state) {
  kl::ThinRunner runner;
  std::vector<kl::TimerPtr> timers(kArmCancel);
  const std::vector<int> order = cancelOrder(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < kArmCancel; ++i) timers[i] = runner.addTimer(nullptr, noop, timeoutOf(i));
    for (int i : order) runner.removeTimer(timers[i]);
  }
  state.SetItemsProcessed(state.iterations() * kArmCancel);
  state.SetLabel(orderLabel(state));
}
BENCHMARK(BM_KlArmCancel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_UvArmCancel(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> timers(kArmCancel);
  for (uv_timer_t& t : timers) uv_timer_init(&loop, &t);
  const std::vector<int> order = cancelOrder(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < kArmCancel; ++i) uv_timer_start(&timers[i], uvNoop, timeoutOf(i) * 10, 0);
    for (int i : order) uv_timer_stop(&timers[i]);
  }
  state.SetItemsProcessed(state.iterations() * kArmCancel);
  state.SetLabel(orderLabel(state));
  uv_loop_close(&loop);
}
BENCHMARK(BM_UvArmCancel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_EvArmCancel(benchmark::State& state) {
  event_base* base = event_base_new();
  std::vector<event*> timers(kArmCancel);
  for (event*& e : timers)
    e = evtimer_new(
        base, [](evutil_socket_t, short, void*) {}, nullptr);
  std::vector<timeval> timeouts(kArmCancel);
  for (int i = 0; i < kArmCancel; ++i) timeouts[i] = tenMsTicks(timeoutOf(i));
  const std::vector<int> order = cancelOrder(state.range(0));
  for (auto _ : state) {
    for (int i = 0; i < kArmCancel; ++i) evtimer_add(timers[i], &timeouts[i]);
    for (int i : order) evtimer_del(timers[i]);
  }
  state.SetItemsProcessed(state.iterations() * kArmCancel);
  state.SetLabel(orderLabel(state));
  for (event* e : timers) event_free(e);
  event_base_free(base);
}
BENCHMARK(BM_EvArmCancel)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_KlArmFire(benchmark::State& state) {
  kl::ThinRunner runner;
  int fired = 0;
  for (auto _ : state) {
    for (int i = 0; i < kArmFire; ++i) {
      runner.addTimer(
          &fired, [](void* n) { ++*static_cast<int*>(n); }, 0);
    }
    runner.runTimers();
  }
  if (fired != state.iterations() * kArmFire) state.SkipWithError("not every timer fired");
  state.SetItemsProcessed(state.iterations() * kArmFire);
}
BENCHMARK(BM_KlArmFire)->Unit(benchmark::kMillisecond);

void BM_UvArmFire(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> timers(kArmFire);
  static int fired;
  fired = 0;
  for (uv_timer_t& t : timers) uv_timer_init(&loop, &t);
  for (auto _ : state) {
    for (uv_timer_t& t : timers)
      uv_timer_start(
          &t, [](uv_timer_t*) { ++fired; }, 0, 0);
    uv_run(&loop, UV_RUN_NOWAIT);
  }
  if (fired != state.iterations() * kArmFire) state.SkipWithError("not every timer fired");
  state.SetItemsProcessed(state.iterations() * kArmFire);
  uv_loop_close(&loop);
}
BENCHMARK(BM_UvArmFire)->Unit(benchmark::kMillisecond);

void BM_EvArmFire(benchmark::State& state) {
  event_base* base = event_base_new();
  static int fired;
  fired = 0;
  std::vector<event*> timers(kArmFire);
  for (event*& e : timers) {
    e = evtimer_new(
        base, [](evutil_socket_t, short, void*) { ++fired; }, nullptr);
  }
  const timeval now = {0, 0};
  for (auto _ : state) {
    for (event* e : timers) evtimer_add(e, &now);
    event_base_loop(base, EVLOOP_NONBLOCK);
  }
  if (fired != state.iterations() * kArmFire) state.SkipWithError("not every timer fired");
  state.SetItemsProcessed(state.iterations() * kArmFire);
  for (event* e : timers) event_free(e);
  event_base_free(base);
}
BENCHMARK(BM_EvArmFire)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
