// Message benchmarks: a typical request (the system header plus ten nested objects of six
// fields each) built, encoded and decoded by kl and, with the same content, by protobuf.
// Also copy-on-write copies, u32 field access, and the memory a decoded request holds
// (counted by this program's operator new: bytes as malloc_usable_size reports them).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "kl/kl.h"
#include "request.pb.h"
#include "typical_request.h"

namespace {

// Live allocations and their bytes, updated by the operators below while `counting` is
// set: only the memory benchmarks count, so that the timed ones measure the allocator alone
// and not the bookkeeping.
bool counting = false;
long liveAllocations = 0;
long liveBytes = 0;

// Counts allocations while it lives. Everything allocated under it must be freed under it.
struct CountingScope {
  CountingScope() { counting = true; }
  ~CountingScope() { counting = false; }
};

}  // namespace

void* operator new(size_t n) {
  void* p = malloc(n == 0 ? 1 : n);
  if (p == nullptr) throw std::bad_alloc();
  if (counting) {
    ++liveAllocations;
    liveBytes += malloc_usable_size(p);
  }
  return p;
}
namespace {

void release(void* p) {
  if (p == nullptr) return;
  if (counting) {
    --liveAllocations;
    liveBytes -= malloc_usable_size(p);
  }
  free(p);
}

}  // namespace

void operator delete(void* p) noexcept { release(p); }
void operator delete(void* p, size_t) noexcept { release(p); }

namespace {

using klbench::buildKlRequest;
using klbench::kObjects;

void buildPbRequest(klbench::Request* r) {
  r->add_to(5);
  r->add_to(3);
  r->add_from(1);
  r->add_from(17);
  r->set_type(1);
  r->set_reqid(4711);
  r->set_cmd(kl::CMD_SETOBJ);
  r->set_policy(0x1f);
  r->set_replyexp(true);
  r->set_user("admin");
  r->mutable_objs()->Reserve(kObjects);
  for (int i = 0; i < kObjects; ++i) {
    klbench::Object* o = r->add_objs();
    o->set_id(100 + i);
    o->set_descr("uplink port " + std::to_string(i));
    o->set_mtu(1500);
    o->set_rx_bytes(123456789012ull + i);
    o->set_disabled(i % 3 == 0);
    o->set_name("ether" + std::to_string(i));
  }
}

void BM_KlBuild(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(buildKlRequest());
}
BENCHMARK(BM_KlBuild);

void BM_PbBuild(benchmark::State& state) {
  for (auto _ : state) {
    klbench::Request r;
    buildPbRequest(&r);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_PbBuild);

void BM_KlFlatten(benchmark::State& state) {
  const kl::message m = buildKlRequest();
  std::vector<unsigned char> out;
  for (auto _ : state) {
    m.flatten(out);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["bytes"] = out.size();
}
BENCHMARK(BM_KlFlatten);

void BM_PbSerialize(benchmark::State& state) {
  klbench::Request r;
  buildPbRequest(&r);
  std::string out;
  for (auto _ : state) {
    r.SerializeToString(&out);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["bytes"] = out.size();
}
BENCHMARK(BM_PbSerialize);

// Decoding the request leaves the nested objects in flattened form until they are used.
void BM_KlUnflatten(benchmark::State& state) {
  std::vector<unsigned char> bytes;
  buildKlRequest().flatten(bytes);
  for (auto _ : state) {
    kl::message m;
    benchmark::DoNotOptimize(m.unflatten(bytes.data(), bytes.size(), kl::message::flatten_full));
  }
}
BENCHMARK(BM_KlUnflatten);

// The request and every nested object decoded: the same work as protobuf's parse.
void BM_KlUnflattenDeep(benchmark::State& state) {
  std::vector<unsigned char> bytes;
  buildKlRequest().flatten(bytes);
  for (auto _ : state) {
    kl::message m;
    m.unflatten(bytes.data(), bytes.size(), kl::message::flatten_full);
    for (const kl::message::flat_message& f :
         *static_cast<const kl::message&>(m).get_message_array_ref(kl::STD_OBJS)) {
      kl::message obj(f);
      benchmark::DoNotOptimize(obj);
    }
  }
}
BENCHMARK(BM_KlUnflattenDeep);

void BM_PbParse(benchmark::State& state) {
  klbench::Request r;
  buildPbRequest(&r);
  const std::string bytes = r.SerializeAsString();
  for (auto _ : state) {
    klbench::Request parsed;
    benchmark::DoNotOptimize(parsed.ParseFromString(bytes));
  }
}
BENCHMARK(BM_PbParse);

// Protobuf at its best: parsing into a message kept across requests reuses its objects.
void BM_PbParseReused(benchmark::State& state) {
  klbench::Request r;
  buildPbRequest(&r);
  const std::string bytes = r.SerializeAsString();
  klbench::Request parsed;
  for (auto _ : state) benchmark::DoNotOptimize(parsed.ParseFromString(bytes));
}
BENCHMARK(BM_PbParseReused);

// The memory a decoded request holds, reported as counters (the timing is incidental):
// kl's request with its nested objects left flat, kl's request with each object decoded
// as well (the same information protobuf's parse makes available), and protobuf's.
// kl keeps a few freed message blocks of each size for reuse, and a message built from
// them allocates nothing. Holding this many messages of both kinds (built small, decoded
// large) takes them all, so that every block of the decoded request is allocated, and
// counted, afresh.
std::vector<kl::message> emptyRepCache(const std::vector<unsigned char>& request) {
  std::vector<kl::message> held(16);
  for (kl::message& m : held) m.insert_string(1, "a field");
  for (int i = 0; i < 16; ++i) held.emplace_back(request);
  return held;
}

void BM_KlDecodedMemory(benchmark::State& state) {
  std::vector<unsigned char> bytes;
  buildKlRequest().flatten(bytes);
  long allocations = 0, held = 0, deepAllocations = 0, deepHeld = 0;
  const CountingScope scope;
  for (auto _ : state) {
    const std::vector<kl::message> drained = emptyRepCache(bytes);
    const long a0 = liveAllocations, b0 = liveBytes;
    kl::message m(bytes);
    allocations = liveAllocations - a0;
    held = liveBytes - b0;
    std::vector<kl::message> objects;
    objects.reserve(kObjects);
    for (const kl::message::flat_message& f :
         *static_cast<const kl::message&>(m).get_message_array_ref(kl::STD_OBJS)) {
      objects.emplace_back(f);
    }
    deepAllocations = liveAllocations - a0;
    deepHeld = liveBytes - b0;
    benchmark::DoNotOptimize(objects.data());
  }
  state.counters["allocs"] = allocations;
  state.counters["bytes"] = held;
  state.counters["deep_allocs"] = deepAllocations;
  state.counters["deep_bytes"] = deepHeld;
}
BENCHMARK(BM_KlDecodedMemory);

void BM_PbParsedMemory(benchmark::State& state) {
  klbench::Request r;
  buildPbRequest(&r);
  const std::string bytes = r.SerializeAsString();
  long allocations = 0, held = 0;
  const CountingScope scope;
  for (auto _ : state) {
    const long a0 = liveAllocations, b0 = liveBytes;
    klbench::Request* parsed = new klbench::Request;  // counted: kl's Rep is counted too
    parsed->ParseFromString(bytes);
    allocations = liveAllocations - a0;
    held = liveBytes - b0;
    delete parsed;
  }
  state.counters["allocs"] = allocations;
  state.counters["bytes"] = held;
}
BENCHMARK(BM_PbParsedMemory);

void BM_KlCopy(benchmark::State& state) {
  const kl::message m = buildKlRequest();
  for (auto _ : state) {
    kl::message copy(m);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_KlCopy);

void BM_KlCopyThenWrite(benchmark::State& state) {
  const kl::message m = buildKlRequest();
  for (auto _ : state) {
    kl::message copy(m);
    copy.insert(kl::SYS_REQID, 1);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_KlCopyThenWrite);

// The peer's nearest operation: a deep copy (protobuf has no shared representation).
void BM_PbCopy(benchmark::State& state) {
  klbench::Request r;
  buildPbRequest(&r);
  for (auto _ : state) {
    klbench::Request copy(r);
    copy.set_reqid(1);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_PbCopy);

void BM_KlU32Get(benchmark::State& state) {
  const kl::message m = buildKlRequest();
  for (auto _ : state) benchmark::DoNotOptimize(m.get(kl::SYS_CMD, 0));
}
BENCHMARK(BM_KlU32Get);

void BM_KlU32Insert(benchmark::State& state) {
  kl::message m = buildKlRequest();
  unsigned int v = 0;
  for (auto _ : state) m.insert(kl::SYS_REQID, ++v);
  benchmark::DoNotOptimize(m);
}
BENCHMARK(BM_KlU32Insert);

}  // namespace

BENCHMARK_MAIN();
