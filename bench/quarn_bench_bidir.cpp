// The group state on the engine, each against its baseline in this run:
// - BM_GroupJoinDesired/N: Group::joinDesired() over N interfaces, none of them in olist(G), so
//   every interface is examined and each examination looks the group's RP and the RP's RPA-RPF
//   record up in reading mounts of the two tables (written by their writers in this process).
//   BM_BaselineJoinDesired/N: the same loop over the same group with both tables held in
//   std::unordered_map in-process.
// - BM_QuarnStatusGroupIntfIs/500000: a record written through Quarn::Status::groupIntfIs into
//   its shared 500,000-record table, one registered notifiee included; its baseline is
//   BM_QuarnWriterUpdate/500000, the engine's writer alone (quarn_bench_writer.cpp).

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <string>
#include <unordered_map>

#include "BenchSupport.h"
#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Activity.h"
#include "Pim/RpHashStatus.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
using Bidir::Df::Quarn::RpaRpf;
using Bidir::Df::Quarn::RpaRpfStatus;
using Routing::Pim::RpHash;
using Routing::Pim::RpHashStatus;

using BenchSupport::PrivateRoot;

bool runUntil(bool (*done)(void const*), void const* context) {
  auto& activity = Kiv::Activity::current();
  double const deadline = Kiv::Activity::now() + 30;
  while (!done(context)) {
    if (Kiv::Activity::now() > deadline) return false;
    activity.runOnce(0.05);
  }
  return true;
}

constexpr std::uint32_t kGroupRanges = 1000;
constexpr std::uint32_t kRps = 16;

Lanx::IpGenAddr groupAddr(std::uint32_t i) {
  return Lanx::IpGenAddr::ipv4Addr(0xef030000u + i);
}
RpHash rpHashRecord(std::uint32_t i) {
  return {Lanx::IpGenPrefix(groupAddr(i)), Lanx::IpGenAddr::ipv4Addr(0x0a000000u + i % kRps)};
}
RpaRpf rpaRpfRecord(std::uint32_t r) {
  RpaRpf rec(Lanx::IpGenAddr::ipv4Addr(0x0a000000u + r));
  rec.rpfInterface = Lanx::IntfId("Ethernet2/" + std::to_string(r + 1));
  rec.rpf.intfId = rec.rpfInterface;
  rec.rpaIndex = static_cast<std::uint16_t>(r + 1);
  return rec;
}

// A group of `n` interfaces, none in olist(G), in a Status whose two foreign tables are reading
// mounts of tables published in this process.
struct JoinDesiredSetup {
  explicit JoinDesiredSetup(std::int64_t n) {
    rpHashWriter->rpHashControl().init(Quarn::QuarnType::writer, false, kGroupRanges);
    rpaRpfWriter->rpaRpfControl().init(Quarn::QuarnType::writer, false, kRps);
    for (std::uint32_t i = 0; i < kGroupRanges; ++i) rpHashWriter->rpHashIs(rpHashRecord(i));
    for (std::uint32_t r = 0; r < kRps; ++r) rpaRpfWriter->rpaRpfIs(rpaRpfRecord(r));
    rpHash->rpHashControl().remountIntervalIs(0.05);
    rpaRpf->rpaRpfControl().remountIntervalIs(0.05);
    rpHash->rpHashControl().init(Quarn::QuarnType::reader, false, 0);
    rpaRpf->rpaRpfControl().init(Quarn::QuarnType::reader, false, 0);
    attached = runUntil(
        [](void const* c) {
          auto const* s = static_cast<JoinDesiredSetup const*>(c);
          return s->rpHash->rpHashControl().members() == kGroupRanges &&
                 s->rpaRpf->rpaRpfControl().members() == kRps;
        },
        this);
    status->rpHashStatusIs(rpHash);
    status->rpaRpfStatusIs(rpaRpf);
    group = status->groupIs(groupAddr(5));
    for (std::int64_t i = 0; i < n; ++i) {
      auto member = group->groupIntfIs(Lanx::IntfId("Ethernet1/" + std::to_string(i + 1)));
      member->joinStateIs(Bidir::GroupIntf::joined);  // iAmDf false: not in olist(G)
    }
    for (std::uint32_t i = 0; i < kGroupRanges; ++i) {
      rpHashMap.emplace(rpHashRecord(i).key, rpHashRecord(i));
    }
    for (std::uint32_t r = 0; r < kRps; ++r)
      rpaRpfMap.emplace(rpaRpfRecord(r).key, rpaRpfRecord(r));
  }

  template <class T>
  struct Hash {
    std::size_t operator()(T const& v) const noexcept { return v.hash(); }
  };

  PrivateRoot root;
  Kiv::Ptr<RpHashStatus> rpHashWriter = Kiv::newPtr<RpHashStatus>("rpHash");
  Kiv::Ptr<RpaRpfStatus> rpaRpfWriter = Kiv::newPtr<RpaRpfStatus>("rpaRpf");
  Kiv::Ptr<RpHashStatus> rpHash = Kiv::newPtr<RpHashStatus>("rpHash");
  Kiv::Ptr<RpaRpfStatus> rpaRpf = Kiv::newPtr<RpaRpfStatus>("rpaRpf");
  Kiv::Ptr<Bidir::Status> status = Bidir::statusFactory("vrf1");
  Kiv::Ptr<Bidir::Group> group;
  bool attached = false;
  std::unordered_map<Lanx::IpGenPrefix, RpHash, Hash<Lanx::IpGenPrefix>> rpHashMap;
  std::unordered_map<Lanx::IpGenAddr, RpaRpf, Hash<Lanx::IpGenAddr>> rpaRpfMap;
};

void BM_GroupJoinDesired(benchmark::State& state) {
  JoinDesiredSetup s(state.range(0));
  if (!s.attached) state.SkipWithError("readers did not attach");
  for (auto _ : state) benchmark::DoNotOptimize(s.group->joinDesired());
}

// The same walk and the same two lookups per interface, over in-process hash maps.
bool baselineJoinDesired(JoinDesiredSetup const& s) {
  Bidir::Group const& group = *s.group;
  for (Bidir::GroupIntf const& member : group.groupIntfIter()) {
    auto const rp = s.rpHashMap.find(Lanx::IpGenPrefix(group.groupAddr()));
    Lanx::IpGenAddr const rpAddr = rp == s.rpHashMap.end() ? Lanx::IpGenAddr() : rp->second.rp;
    auto const it = s.rpaRpfMap.find(rpAddr);
    RpaRpf const record = it == s.rpaRpfMap.end() ? RpaRpf() : it->second;
    if (member.intfId() == record.rpfInterface) continue;
    if (member.oList()) return true;
  }
  return false;
}

void BM_BaselineJoinDesired(benchmark::State& state) {
  JoinDesiredSetup s(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(baselineJoinDesired(s));
}

struct Listener : Bidir::Quarn::Status::Notifiee {
  void onGroupIntf(Bidir::GroupIntfKey const&) override { ++heard; }
  std::uint64_t heard = 0;
};

void BM_QuarnStatusGroupIntfIs(benchmark::State& state) {
  PrivateRoot root;
  auto status = Bidir::Quarn::statusFactory("quarn");
  status->mount(Quarn::QuarnType::writer);
  auto const& keys = BenchSupport::keys(static_cast<std::size_t>(state.range(0)));
  for (auto const& key : keys) status->newGroupIntf(BenchSupport::recordFor(key, 0));
  auto listener = Kiv::newPtr<Listener>();
  listener->notifierIs(status);
  std::size_t i = 0;
  std::uint64_t n = 0;
  for (auto _ : state) {
    status->groupIntfIs(BenchSupport::recordFor(keys[i], ++n));
    if (++i == keys.size()) i = 0;
  }
  if (listener->heard != n) state.SkipWithError("a notification was lost");
}

}  // namespace

BENCHMARK(BM_GroupJoinDesired)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(BM_BaselineJoinDesired)->Arg(1)->Arg(16)->Arg(256);
BENCHMARK(BM_QuarnStatusGroupIntfIs)->Arg(500000);
