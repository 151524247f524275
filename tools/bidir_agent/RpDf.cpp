// The RP/DF process: what the PIM agent and the DF election publish for the Bidir agent. The
// RP hash table maps each group (its host prefix) to one of `rps` RPs; the RPA-RPF table gives,
// per RP, the interface toward it and the RPF result. Every `dfMoveEvery` seconds one election
// moves: an RP's RPF interface changes to another interface.

#include <signal.h>
#include <sys/epoll.h>

#include <random>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Common.h"
#include "Kiv/Timer.h"
#include "Pim/RpHashStatus.h"

namespace BidirAgent {

namespace {

using Bidir::Df::Quarn::RpaRpf;
using Bidir::Df::Quarn::RpaRpfStatus;
using Routing::Pim::RpHash;
using Routing::Pim::RpHashStatus;

RpaRpf rpaRpfRecord(std::uint32_t r, std::uint16_t rpf) {
  RpaRpf rec(rpAddr(r));
  rec.rpfInterface = intfId(rpf - 1u);
  rec.rpf.intfId = rec.rpfInterface;
  rec.rpf.neighbor = Lanx::IpGenAddr::ipv4Addr(0x0a640000u + (r << 8) + rpf);
  rec.rpf.addr = rpAddr(r);
  rec.rpf.metric = 10 + rpf;
  rec.rpaIndex = static_cast<std::uint16_t>(r + 1);
  return rec;
}

}  // namespace

int runRpDf(Options const& options, int reportFd, int commandFd) {
  ::signal(SIGINT, SIG_IGN);
  Kiv::Activity& activity = Kiv::Activity::current();
  auto rpHash = Kiv::newPtr<RpHashStatus>("rpHash");
  auto rpaRpf = Kiv::newPtr<RpaRpfStatus>("rpaRpf");
  rpHash->rpHashControl().init(Quarn::QuarnType::writer, false, options.groups);
  rpaRpf->rpaRpfControl().init(Quarn::QuarnType::writer, false, 16);
  for (std::uint32_t g = 0; g < options.groups; ++g) {
    rpHash->rpHashIs(RpHash{Lanx::IpGenPrefix(groupAddr(g)), rpAddr(g % options.rps)});
  }
  // RP r starts out reached through interface r + 1 (1-based, as in Report::rpfOf).
  std::uint16_t rpfOf[16] = {};
  for (std::uint32_t r = 0; r < options.rps; ++r) {
    rpfOf[r] = std::uint16_t(r + 1);
    rpaRpf->rpaRpfIs(rpaRpfRecord(r, rpfOf[r]));
  }
  Report ready;
  ready.kind = Report::ready;
  ready.role = Role::rpdf;
  ready.time = now();
  send(reportFd, ready);

  std::mt19937 rng(std::random_device{}());
  std::uint64_t moves = 0;
  bool moving = true;
  Kiv::Timer move(
      [&] {
        std::uint32_t const r = rng() % options.rps;
        auto next = std::uint16_t(1 + rng() % options.intfs);
        if (next == rpfOf[r]) next = std::uint16_t(next % options.intfs + 1);
        rpfOf[r] = next;
        rpaRpf->rpaRpfIs(rpaRpfRecord(r, next));
        ++moves;
        move.armIn(options.dfMoveEvery);
      },
      activity);
  move.armIn(options.dfMoveEvery);
  Kiv::FdWatch commands(activity, commandFd, EPOLLIN, [&](std::uint32_t) {
    Command c;
    if (!receive(commandFd, c)) DemoSupport::supervisorGone();
    if (c.op == Command::stop && moving) {
      moving = false;
      move.cancel();
      Report r;
      r.kind = Report::finished;
      r.role = Role::rpdf;
      r.time = now();
      r.dfMoves = moves;
      std::copy(std::begin(rpfOf), std::end(rpfOf), r.rpfOf);
      send(reportFd, r);
    }
  });
  for (;;) activity.runOnce(-1);
}

}  // namespace BidirAgent
