// One full pass of a fresh shadow copy over a shared group-interface table of 500,000 entries
// (yield time 0: the pass runs in one slice inside initialize). Time per pass; the target is at
// most 0.5 seconds.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "Bidir/Quarn/GroupIntf.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "Quarn/QuarnShadow.h"
#include "Quarn/QuarnWriter.h"
#include "Quarn/WriterKickSm.h"

namespace {

using Routing::Pim::Bidir::GroupIntfKey;
using Record = Routing::Pim::Bidir::Quarn::GroupIntf;
using Value = KivQuarn::KivQuarnMapValueWrapper<Record, GroupIntfKey>;

Jorv::DebugHandler& dh() {
  return Jorv::Platform::getDebugHandler("QuarnShadowBench");
}

struct CountingNotifier : Quarn::KeyNotifier<GroupIntfKey> {
  std::uint64_t calls = 0;
  void onKey(GroupIntfKey const&) override { ++calls; }
};

void BM_QuarnShadowFullPass(benchmark::State& state) {
  auto const count = std::uint32_t(state.range(0));
  char pattern[] = "/dev/shm/quarn-sbench-XXXXXX";
  std::string const dir = ::mkdtemp(pattern) != nullptr ? pattern : "";
  std::string const root = dir + "/groupIntf";
  std::filesystem::create_directories(root);
  Kiv::Activity activity;
  std::unique_ptr<Quarn::QuarnWriter<GroupIntfKey, Value>> writer;
  Quarn::WriterKickSm kick(
      root, [&] { return writer->conquer().sequence(); },
      [&](std::uint32_t) { writer->conquer().updateNumReaders(); }, activity);
  writer = std::make_unique<Quarn::QuarnWriter<GroupIntfKey, Value>>(
      dh(), "groupIntf", count, false, Record::typeName, &kick, dir);
  writer->attach();
  std::vector<Lanx::IntfId> intfs;
  for (int e = 1; e <= 100; ++e) intfs.emplace_back("Ethernet" + std::to_string(e));
  for (std::uint32_t i = 0; i < count; ++i) {
    Value v;
    v.key = GroupIntfKey(Lanx::IpGenAddr::ipv4Addr(0xe1000000u + i / 100), intfs[i % 100]);
    v.joinState = Record::JoinState::joined;
    v.forward = true;
    writer->write(v);
  }

  CountingNotifier notifier;
  for (auto _ : state) {
    auto shadow = std::make_unique<Quarn::QuarnShadow<GroupIntfKey, Value>>(
        dh(), root, Quarn::QuarnType::shadow, notifier, activity);
    shadow->yieldTimeIs(0);
    bool const ok = shadow->initialize() && shadow->members() == count;
    state.PauseTiming();  // leave the teardown out
    shadow.reset();
    activity.runOnce(0);  // let the writer's channel see the reader go
    state.ResumeTiming();
    if (!ok) {
      state.SkipWithError("shadow did not mirror the table");
      break;
    }
  }
  state.counters["notified"] = double(notifier.calls) / double(state.iterations());
  writer.reset();
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
}

}  // namespace

BENCHMARK(BM_QuarnShadowFullPass)->Arg(500000)->Unit(benchmark::kMillisecond);
