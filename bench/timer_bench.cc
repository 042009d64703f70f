// Timer benchmarks: arming and cancelling 1,000,000 timers, and arming and firing 100,000,
// by the kl runner and by libuv in the same binary. Each kl timer is a record the runner
// allocates; each libuv timer is a handle the caller owns (allocated here before timing).
#include <benchmark/benchmark.h>
#include <uv.h>

#include <vector>

#include "kl/runner/thin_runner.h"

namespace {

constexpr int kArmCancel = 1000000;
constexpr int kArmFire = 100000;

void noop(void*) {}
void uvNoop(uv_timer_t*) {}

// Spread expiries over the first minute so that the heap has real work.
unsigned int timeoutOf(int i) { return static_cast<unsigned int>(i) * 7919u % 6000u; }

void BM_KlArmCancel(benchmark::State& state) {
  kl::ThinRunner runner;
  std::vector<kl::TimerPtr> timers(kArmCancel);
  for (auto _ : state) {
    for (int i = 0; i < kArmCancel; ++i) timers[i] = runner.addTimer(nullptr, noop, timeoutOf(i));
    for (int i = 0; i < kArmCancel; ++i) runner.removeTimer(timers[i]);
  }
  state.SetItemsProcessed(state.iterations() * kArmCancel);
}
BENCHMARK(BM_KlArmCancel)->Unit(benchmark::kMillisecond);

void BM_UvArmCancel(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_timer_t> timers(kArmCancel);
  for (uv_timer_t& t : timers) uv_timer_init(&loop, &t);
  for (auto _ : state) {
    for (int i = 0; i < kArmCancel; ++i) uv_timer_start(&timers[i], uvNoop, timeoutOf(i) * 10, 0);
    for (int i = 0; i < kArmCancel; ++i) uv_timer_stop(&timers[i]);
  }
  state.SetItemsProcessed(state.iterations() * kArmCancel);
  uv_loop_close(&loop);
}
BENCHMARK(BM_UvArmCancel)->Unit(benchmark::kMillisecond);

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

}  // namespace

BENCHMARK_MAIN();
