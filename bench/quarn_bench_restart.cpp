// Restart reconciliation against rebuilding the same state from memory, in this run:
// - BM_RestartReconcile/N: a restarted agent takes back 5,000 groups and N group interfaces
//   (N/5000 per group) from tables that survived its previous life: GroupQuarnRestartSm's review
//   driven slice by slice (doReview, reviewQuantum 0.1 s) until Status::initialized. Counters:
//   total_ms (one whole review), longest_slice_ms, slices.
// - BM_BaselineStatusBuild/N: the same Status built from in-memory vectors of the same records
//   (get or create, copy the record on, mark the groups initialized), no tables.
// - BM_RestartReconcileWatched/N and BM_BaselineStatusBuildWatched/N: the same two with the
//   table writer watching the Status from the start, as in a restarted agent: every entity the
//   review brings back also gets the writer's watcher. Both sides are slower in this process
//   than in a fresh one (the agent's): they allocate most, and the heap the earlier benchmarks
//   left behind makes each allocation dearer. The vectors hold
//   the records in the order the review takes them, the tables' slot order: building the entity
//   maps depends on that order more than on anything else (in bucket order, a random order, it
//   costs both sides about twice as much).

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Bidir/Quarn/GroupQuarnRestartSm.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Bidir/Quarn/GroupUpdate.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Activity.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace BQ = Routing::Pim::Bidir::Quarn;

constexpr std::uint32_t kGroups = 5000;

double threadCpuNow() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Tables left by a previous agent (a writer that wrote them and went), re-attached by the
// restarted agent's writer mount, and the same records copied out in the order the review takes
// them. Built once per process: writing them is not what is measured.
struct SurvivingTables {
  explicit SurvivingTables(std::size_t n) {
    ::setenv("QUARN_ROOT", root.path().c_str(), 1);
    {
      auto previous = BQ::statusFactory("quarn");
      previous->mount(Quarn::QuarnType::writer);
      for (std::size_t i = 0; i < n; ++i) {
        Lanx::IpGenAddr const group = Lanx::IpGenAddr::ipv4Addr(0xef000000u + i % kGroups);
        auto const vlan = Lanx::IntfId("Vlan" + std::to_string(1 + i / kGroups));
        previous->newGroupIntf(BenchSupport::recordFor({group, vlan}, i));
      }
      for (std::uint32_t g = 0; g < kGroups; ++g) {
        BQ::Group rec;
        rec.key = Lanx::IpGenAddr::ipv4Addr(0xef000000u + g);
        rec.creationTime = g;
        rec.upJoinState = BQ::Group::UpJoinState::upJoined;
        previous->newGroup(rec);
      }
    }
    tables = BQ::statusFactory("quarn");
    tables->mount(Quarn::QuarnType::writer);
    for (auto it = tables->groupSlotIterator(); it; ++it) groups.push_back(*it);
    for (auto it = tables->groupIntfSlotIterator(); it; ++it) groupIntfs.push_back(*it);
  }
  ~SurvivingTables() {
    tables = nullptr;
    ::unsetenv("QUARN_ROOT");
  }
  // The baseline's work: the same Status from the records in memory, no tables.
  Kiv::Ptr<Bidir::Status> statusFromRecords(Kiv::Ptr<Bidir::Status> status = nullptr) const {
    if (!status) status = Bidir::statusFactory("agent");
    for (auto const& rec : groups) BQ::doUpdateGroup(status->groupIs(rec.key), rec);
    for (auto const& rec : groupIntfs) {
      if (auto group = status->group(rec.key.groupAddr())) {
        BQ::doUpdateGroupIntf(group->groupIntfIs(rec.key.intfId()), rec);
      }
    }
    for (auto const& rec : groups) {
      if (auto group = status->group(rec.key)) group->initializedIs(true);
    }
    status->initializedIs(true);
    return status;
  }
  static SurvivingTables& of(std::size_t n) {
    static std::unique_ptr<SurvivingTables> tables;
    if (!tables || tables->groupIntfs.size() != n) {
      tables.reset();
      tables = std::make_unique<SurvivingTables>(n);
    }
    return *tables;
  }

  BenchSupport::TempRoot root;
  Kiv::Ptr<BQ::Status> tables;
  std::vector<BQ::Group> groups;
  std::vector<BQ::GroupIntf> groupIntfs;
};

void restartReconcile(benchmark::State& state, bool watched) {
  SurvivingTables& surviving = SurvivingTables::of(static_cast<std::size_t>(state.range(0)));
  double longest = 0, longestCpu = 0, total = 0;
  std::size_t slices = 0;
  for (auto _ : state) {
    auto status = Bidir::statusFactory("agent");
    auto writer = watched ? BQ::groupQuarnWriterSmFactory(status, surviving.tables) : nullptr;
    auto sm = BQ::groupQuarnRestartSmFactory(status, surviving.tables,
                                             KivQuarn::KivQuarnType::writer, nullptr);
    double const begin = Kiv::Activity::now();
    while (!status->initialized()) {
      double const start = Kiv::Activity::now();
      double const startCpu = threadCpuNow();
      sm->doReview();
      longest = std::max(longest, Kiv::Activity::now() - start);
      longestCpu = std::max(longestCpu, threadCpuNow() - startCpu);
      ++slices;
    }
    total += Kiv::Activity::now() - begin;
    state.PauseTiming();
    if (status->groupCount() != kGroups) state.SkipWithError("groups missing");
    sm = nullptr;
    writer = nullptr;
    status = nullptr;
    state.ResumeTiming();
  }
  auto const iterations = static_cast<double>(state.iterations());
  state.counters["total_ms"] = total * 1e3 / iterations;
  state.counters["longest_slice_ms"] = longest * 1e3;
  state.counters["longest_slice_cpu_ms"] = longestCpu * 1e3;
  state.counters["slices"] = static_cast<double>(slices) / iterations;
}

void baselineStatusBuild(benchmark::State& state, bool watched) {
  SurvivingTables const& r = SurvivingTables::of(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto status = Bidir::statusFactory("agent");
    auto writer = watched ? BQ::groupQuarnWriterSmFactory(status, r.tables) : nullptr;
    r.statusFromRecords(status);
    state.PauseTiming();
    writer = nullptr;
    status = nullptr;
    state.ResumeTiming();
  }
}

void BM_RestartReconcile(benchmark::State& state) { restartReconcile(state, false); }
void BM_BaselineStatusBuild(benchmark::State& state) { baselineStatusBuild(state, false); }
void BM_RestartReconcileWatched(benchmark::State& state) { restartReconcile(state, true); }
void BM_BaselineStatusBuildWatched(benchmark::State& state) { baselineStatusBuild(state, true); }

// The first Status a process builds grows its heap, a page fault per fresh page; later ones reuse
// the freed memory. Without a warm-up, whichever benchmark runs first in the interleaved order
// pays about twice the others, and that is the heap, not the work.
void restartArgs(benchmark::internal::Benchmark* b) {
  b->Arg(500000)->Unit(benchmark::kMillisecond)->UseRealTime()->MinWarmUpTime(0.5);
}

}  // namespace

BENCHMARK(BM_RestartReconcile)->Apply(restartArgs);
BENCHMARK(BM_BaselineStatusBuild)->Apply(restartArgs);
BENCHMARK(BM_RestartReconcileWatched)->Apply(restartArgs);
BENCHMARK(BM_BaselineStatusBuildWatched)->Apply(restartArgs);
