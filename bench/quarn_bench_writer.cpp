// Table writer against std::unordered_map on the group-interface record: update, remove +
// re-insert, and lookup in a 500,000-entry table (file-backed, under a private root in /dev/shm),
// and a restarted writer's attach (full validation included) against rebuilding the map from a
// vector, which is what a process without shared memory does on restart.
// A counting global operator new reports heap allocations per iteration ("allocs/iter").

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Quarn/QuarnWriter.h"

// GCC cannot see that the replaced operator new below allocates with malloc.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {

std::atomic<std::uint64_t> allocations{0};

}  // namespace

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

using Routing::Pim::Bidir::GroupIntfKey;
using Record = Routing::Pim::Bidir::Quarn::GroupIntf;
using Wrapper = KivQuarn::KivQuarnMapValueWrapper<Record, GroupIntfKey>;
using Writer = Quarn::QuarnWriter<GroupIntfKey, Wrapper>;

using BenchSupport::keys;
using BenchSupport::recordFor;
using BenchSupport::TempRoot;

struct KeyHash {
  std::size_t operator()(GroupIntfKey const& key) const noexcept { return key.hash(); }
};
using Baseline = std::unordered_map<GroupIntfKey, Wrapper, KeyHash>;

// A shared writer filled with every key.
struct FilledWriter {
  explicit FilledWriter(std::size_t n)
      : writer(Jorv::Platform::getDebugHandler("QuarnBench"), "groupIntf",
               static_cast<std::uint32_t>(n), false, "GroupIntf", nullptr, root.path()) {
    writer.attach();
    for (auto const& key : keys(n)) writer.write(recordFor(key, 0));
  }
  TempRoot root;
  Writer writer;
};

struct FilledBaseline {
  explicit FilledBaseline(std::size_t n) {
    map.reserve(n);
    for (auto const& key : keys(n)) map.insert_or_assign(key, recordFor(key, 0));
  }
  Baseline map;
};

// Runs `op(key, n)` over the shuffled keys and reports allocations per iteration.
template <class Op>
void run(benchmark::State& state, Op&& op) {
  auto const& ks = keys(static_cast<std::size_t>(state.range(0)));
  std::size_t i = 0;
  std::uint64_t n = 0;
  std::uint64_t const before = allocations.load(std::memory_order_relaxed);
  for (auto _ : state) {
    op(ks[i], ++n);
    if (++i == ks.size()) i = 0;
  }
  state.counters["allocs/iter"] =
      benchmark::Counter(static_cast<double>(allocations.load(std::memory_order_relaxed) - before),
                         benchmark::Counter::kAvgIterations);
}

void BM_QuarnWriterUpdate(benchmark::State& state) {
  FilledWriter t(static_cast<std::size_t>(state.range(0)));
  run(state, [&](GroupIntfKey const& key, std::uint64_t n) {
    benchmark::DoNotOptimize(t.writer.write(recordFor(key, n)));
  });
}

void BM_BaselineMapUpdate(benchmark::State& state) {
  FilledBaseline t(static_cast<std::size_t>(state.range(0)));
  run(state, [&](GroupIntfKey const& key, std::uint64_t n) {
    benchmark::DoNotOptimize(t.map.insert_or_assign(key, recordFor(key, n)));
  });
}

void BM_QuarnWriterInsertRemove(benchmark::State& state) {
  FilledWriter t(static_cast<std::size_t>(state.range(0)));
  Wrapper out;
  run(state, [&](GroupIntfKey const& key, std::uint64_t n) {
    benchmark::DoNotOptimize(t.writer.remove(key, out));
    benchmark::DoNotOptimize(t.writer.write(recordFor(key, n)));
  });
}

void BM_BaselineMapInsertRemove(benchmark::State& state) {
  FilledBaseline t(static_cast<std::size_t>(state.range(0)));
  run(state, [&](GroupIntfKey const& key, std::uint64_t n) {
    benchmark::DoNotOptimize(t.map.erase(key));
    benchmark::DoNotOptimize(t.map.insert_or_assign(key, recordFor(key, n)));
  });
}

void BM_QuarnWriterLookup(benchmark::State& state) {
  FilledWriter t(static_cast<std::size_t>(state.range(0)));
  bool found = false;
  run(state, [&](GroupIntfKey const& key, std::uint64_t) {
    benchmark::DoNotOptimize(t.writer.lookup(key, found));
  });
}

void BM_BaselineMapLookup(benchmark::State& state) {
  FilledBaseline t(static_cast<std::size_t>(state.range(0)));
  run(state, [&](GroupIntfKey const& key, std::uint64_t) {
    auto it = t.map.find(key);
    benchmark::DoNotOptimize(it);
  });
}

// A writer restarting on the files of a previous writer: map, validate every chain, the free list
// and the notification table, keep the entries. Tearing the writer down is not timed.
void BM_QuarnWriterAttach(benchmark::State& state) {
  auto const n = static_cast<std::size_t>(state.range(0));
  TempRoot root;
  auto make = [&] {
    return std::make_unique<Writer>(Jorv::Platform::getDebugHandler("QuarnBench"), "groupIntf",
                                    static_cast<std::uint32_t>(n), false, "GroupIntf", nullptr,
                                    root.path());
  };
  {
    auto const first = make();
    first->attach();
    for (auto const& key : keys(n)) first->write(recordFor(key, 0));
  }
  for (auto _ : state) {
    auto w = make();
    w->attach();
    state.PauseTiming();
    if (w->size() != n) state.SkipWithError("attach lost the entries");
    w.reset();
    state.ResumeTiming();
  }
}

void BM_BaselineMapRebuild(benchmark::State& state) {
  auto const n = static_cast<std::size_t>(state.range(0));
  std::vector<Wrapper> records;
  records.reserve(n);
  for (auto const& key : keys(n)) records.push_back(recordFor(key, 0));
  for (auto _ : state) {
    auto map = std::make_unique<Baseline>();
    map->reserve(n);
    for (auto const& r : records) map->emplace(r.key, r);
    state.PauseTiming();
    if (map->size() != n) state.SkipWithError("map lost records");
    map.reset();
    state.ResumeTiming();
  }
}

}  // namespace

// 500,000 records is the group-interface table's configured size; 5,000,000 shows how each cost
// grows with ten times the table (bench only: about 0.5 GB of files and 0.4 GB of map).
BENCHMARK(BM_QuarnWriterAttach)->Arg(500000)->Arg(5000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BaselineMapRebuild)->Arg(500000)->Arg(5000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QuarnWriterUpdate)->Arg(500000)->Arg(5000000);
BENCHMARK(BM_BaselineMapUpdate)->Arg(500000)->Arg(5000000);
BENCHMARK(BM_QuarnWriterInsertRemove)->Arg(500000);
BENCHMARK(BM_BaselineMapInsertRemove)->Arg(500000);
BENCHMARK(BM_QuarnWriterLookup)->Arg(500000)->Arg(5000000);
BENCHMARK(BM_BaselineMapLookup)->Arg(500000)->Arg(5000000);

BENCHMARK_MAIN();
