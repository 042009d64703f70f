// Store benchmarks: set, get and overwrite of 100,000 small messages (about 100 and 200
// bytes flattened) by kl::Store with batched flush, and the same by LMDB with one sync at
// the end, in the same binary; and Allocator allocate/free churn.
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kl/kl.h"

namespace {

constexpr unsigned kRecords = 100000;

class BenchRunner : public kl::Runner {};

// A message of about `size` flattened bytes.
kl::message object(unsigned id, size_t size) {
  kl::message m;
  m.insert(kl::STD_ID, id);
  m.insert(kl::STD_OBJ_COUNT, id * 3);
  m.insert_bool(kl::STD_DISABLED, id % 2 == 0);
  m.insert_string(kl::STD_DESCR, std::string(size - 28, 'a' + id % 26));
  return m;
}

std::string tempDir() {
  char pattern[] = "/tmp/kl-bench-XXXXXX";
  return mkdtemp(pattern);
}

void removeDir(const std::string& dir) {
  const std::string command = "rm -rf '" + dir + "'";
  if (system(command.c_str()) != 0) abort();
}

// Sets kRecords messages of `size` bytes into a fresh store; one fsync pair at the end.
void BM_StoreSet(benchmark::State& state) {
  BenchRunner runner;  // with a runner, fsync is batched by the flush timer
  const size_t size = state.range(0);
  std::vector<kl::message> messages;
  for (unsigned id = 0; id < kRecords; ++id) messages.push_back(object(id, size));
  for (auto _ : state) {
    state.PauseTiming();
    const std::string dir = tempDir();
    {
      kl::Store store(dir + "/s", 10);
      state.ResumeTiming();
      for (unsigned id = 0; id < kRecords; ++id) store.set(id, messages[id]);
      store.doFlush();
      state.PauseTiming();
    }
    removeDir(dir);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
  runner.shutdown();
}

void BM_StoreGet(benchmark::State& state) {
  BenchRunner runner;
  const std::string dir = tempDir();
  {
    kl::Store store(dir + "/s", 10);
    for (unsigned id = 0; id < kRecords; ++id) store.set(id, object(id, state.range(0)));
    store.doFlush();
    unsigned id = 0;
    for (auto _ : state) {
      kl::message m = store.get(id);
      benchmark::DoNotOptimize(m);
      if (++id == kRecords) id = 0;
    }
  }
  removeDir(dir);
  state.SetItemsProcessed(state.iterations());
  runner.shutdown();
}

void BM_StoreOverwrite(benchmark::State& state) {
  BenchRunner runner;
  const std::string dir = tempDir();
  {
    kl::Store store(dir + "/s", 10);
    const kl::message m = object(1, state.range(0));
    for (unsigned id = 0; id < kRecords; ++id) store.set(id, m);
    unsigned id = 0;
    for (auto _ : state) {
      store.set(id, m);
      if (++id == kRecords) id = 0;
    }
    store.doFlush();
  }
  removeDir(dir);
  state.SetItemsProcessed(state.iterations());
  runner.shutdown();
}

// LMDB with MDB_NOSYNC: commits write without syncing; mdb_env_sync at the end.
struct Lmdb {
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
  std::string dir = tempDir();
  Lmdb() {
    mdb_env_create(&env);
    mdb_env_set_mapsize(env, size_t{1} << 30);
    if (mdb_env_open(env, dir.c_str(), MDB_NOSYNC, 0600) != 0) abort();
    MDB_txn* txn;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
    mdb_txn_commit(txn);
  }
  ~Lmdb() {
    mdb_env_close(env);
    removeDir(dir);
  }
  // One transaction per put, as a service storing one object at a time would.
  void put(unsigned id, const std::vector<unsigned char>& bytes) {
    MDB_txn* txn;
    mdb_txn_begin(env, nullptr, 0, &txn);
    MDB_val key{sizeof id, &id};
    MDB_val value{bytes.size(), const_cast<unsigned char*>(bytes.data())};
    mdb_put(txn, dbi, &key, &value, 0);
    mdb_txn_commit(txn);
  }
  kl::message get(unsigned id) {
    MDB_txn* txn;
    mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
    MDB_val key{sizeof id, &id};
    MDB_val value;
    kl::message m;
    if (mdb_get(txn, dbi, &key, &value) == 0) {
      m.unflatten(static_cast<const unsigned char*>(value.mv_data), value.mv_size,
                  kl::message::flatten_full);
    }
    mdb_txn_abort(txn);
    return m;
  }
};

void BM_LmdbSet(benchmark::State& state) {
  std::vector<std::vector<unsigned char> > flat(kRecords);
  for (unsigned id = 0; id < kRecords; ++id) object(id, state.range(0)).flatten(flat[id]);
  for (auto _ : state) {
    state.PauseTiming();
    {
      Lmdb db;
      state.ResumeTiming();
      for (unsigned id = 0; id < kRecords; ++id) db.put(id, flat[id]);
      mdb_env_sync(db.env, 1);
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRecords);
}

void BM_LmdbGet(benchmark::State& state) {
  Lmdb db;
  std::vector<unsigned char> flat;
  for (unsigned id = 0; id < kRecords; ++id) {
    object(id, state.range(0)).flatten(flat);
    db.put(id, flat);
  }
  mdb_env_sync(db.env, 1);
  unsigned id = 0;
  for (auto _ : state) {
    kl::message m = db.get(id);
    benchmark::DoNotOptimize(m);
    if (++id == kRecords) id = 0;
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_LmdbOverwrite(benchmark::State& state) {
  Lmdb db;
  std::vector<unsigned char> flat;
  object(1, state.range(0)).flatten(flat);
  for (unsigned id = 0; id < kRecords; ++id) db.put(id, flat);
  unsigned id = 0;
  for (auto _ : state) {
    db.put(id, flat);
    if (++id == kRecords) id = 0;
  }
  mdb_env_sync(db.env, 1);
  state.SetItemsProcessed(state.iterations());
}

// Note: the message flattening is inside kl's set and outside LMDB's put.
BENCHMARK(BM_StoreSet)->Arg(100)->Arg(200)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_LmdbSet)->Arg(100)->Arg(200)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_StoreGet)->Arg(100)->Arg(200);
BENCHMARK(BM_LmdbGet)->Arg(100)->Arg(200);
BENCHMARK(BM_StoreOverwrite)->Arg(100)->Arg(200);
BENCHMARK(BM_LmdbOverwrite)->Arg(100)->Arg(200);

void BM_AllocatorChurn(benchmark::State& state) {
  kl::Allocator ids(1, 1000000);
  std::vector<unsigned> held;
  for (int i = 0; i < 1000; ++i) held.push_back(ids.allocate());
  size_t next = 0;
  for (auto _ : state) {
    ids.free(held[next]);
    held[next] = ids.allocate();
    if (++next == held.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AllocatorChurn);

}  // namespace

BENCHMARK_MAIN();
