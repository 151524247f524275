// The export of group state, against the engine's writer alone in this run:
// - BM_ExportGroupIntfUpdate/500000: a GroupIntf setter in an agent of 500,000 interfaces (5,000
//   groups x 100) exported by GroupQuarnWriterSm, until the record is in the shared table: the
//   setter's notification walk, the reactor's guard and record, and Quarn::Status::groupIntfIs.
//   The agent is built in the order in which the benchmark visits it, as the baseline's table is.
//   Its baseline is BM_QuarnWriterUpdate/500000 (quarn_bench_writer.cpp): the same record written
//   by the engine's writer, notification queue included.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "BenchSupport.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Bidir/Status.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;

void BM_ExportGroupIntfUpdate(benchmark::State& state) {
  BenchSupport::PrivateRoot root;
  auto const& keys = BenchSupport::keys(static_cast<std::size_t>(state.range(0)));
  // As in an agent, the writer runs from the start and each entity is exported as it is made.
  auto status = Bidir::statusFactory("vrf1");
  status->initializedIs(true);
  auto tables = Bidir::Quarn::statusFactory("quarn");
  tables->mount(Quarn::QuarnType::writer);
  auto writer = Bidir::Quarn::groupQuarnWriterSmFactory(status, tables);
  std::vector<Kiv::Ptr<Bidir::GroupIntf>> intfs;
  intfs.reserve(keys.size());
  for (auto const& key : keys) {
    auto member = status->groupIs(key.groupAddr())->groupIntfIs(key.intfId());
    member->joinStateIs(Bidir::GroupIntf::joined);
    member->iAmDfIs(true);
    intfs.push_back(member);
  }
  if (tables->groupIntfCount() != keys.size()) state.SkipWithError("export incomplete");

  std::size_t i = 0;
  std::uint64_t n = 0;
  for (auto _ : state) {
    intfs[i]->lastJoinReceivedIs(static_cast<double>(++n));
    if (++i == intfs.size()) i = 0;
  }
  std::size_t const last = (i + intfs.size() - 1) % intfs.size();
  if (n != 0 && tables->groupIntf(Bidir::GroupIntfKey(keys[last].groupAddr(), keys[last].intfId()))
                        .lastJoinReceived != static_cast<double>(n)) {
    state.SkipWithError("the last change is not in the table");
  }
}

}  // namespace

BENCHMARK(BM_ExportGroupIntfUpdate)->Arg(500000);
