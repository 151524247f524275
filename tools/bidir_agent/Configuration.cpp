// The configuration process: what the operator's side of the router would be. It owns the
// ConfigColl and ClearConfigColl of the agent's VRF and serves them over the attribute log on a
// Unix-domain socket in the private root; the agent attaches to it.
//
// Once the churn runs, every `configEvery` seconds it makes one round: the VRF's group expiry
// interval moves to the next value of a short cycle, and a few clear requests follow, each naming
// one group: the request's key is set first (clearGroup, the group's address), then the request
// counter groupsCount moves on by one (8 bits, wrapping), which is what asks for the clear. The
// supervisor asks for one more round while the agent is down.

#include <signal.h>
#include <sys/epoll.h>

#include <random>

#include "Bidir/AttrLog.h"
#include "Common.h"
#include "Kiv/Timer.h"

namespace BidirAgent {

namespace {

// Group expiry intervals in the agent's unit (kExpiryUnitSeconds): 0.5 to 2.1 s.
constexpr std::uint16_t kExpiryCycle[] = {50, 120, 80, 210};
constexpr int kClearsPerRound = 2;

}  // namespace

int runConfig(Options const& options, std::string const& root, int reportFd, int commandFd) {
  ::signal(SIGINT, SIG_IGN);
  Kiv::Activity& activity = Kiv::Activity::current();
  Kiv::Ptr<Bidir::ConfigColl> configs = Bidir::configCollFactory(kConfigCollName);
  Kiv::Ptr<Bidir::ClearConfigColl> clears = Bidir::clearConfigCollFactory(kClearConfigCollName);
  Kiv::Ptr<Bidir::Config> config = configs->vrfConfigIs(kVrf);
  Kiv::Ptr<Bidir::ClearConfig> clear = clears->vrfClearConfigIs(kVrf);
  auto const server = Bidir::configurationServe(activity, configSocket(root), configs, clears);

  Report finished;
  finished.role = Role::config;
  Report ready = finished;
  ready.kind = Report::ready;
  ready.time = now();
  send(reportFd, ready);

  std::mt19937 rng(std::random_device{}());
  auto makeRound = [&] {
    ++finished.configRounds;
    config->groupExpiryIntervalIs(kExpiryCycle[finished.configRounds % std::size(kExpiryCycle)]);
    ++finished.configChanges;
    for (int k = 0; k < kClearsPerRound; ++k) {
      clear->groupKeyIs(Bidir::ClearConfig::GroupKey(Bidir::MrouteClearFlags::clearGroup_,
                                                     groupAddr(rng() % options.groups)));
      clear->groupsCountIs(std::uint8_t(clear->groupsCount() + 1));
      ++finished.clearRequests;
    }
  };
  Kiv::Timer round(
      [&] {
        makeRound();
        round.armIn(options.configEvery);
      },
      activity);
  bool changing = true;
  Kiv::FdWatch commands(activity, commandFd, EPOLLIN, [&](std::uint32_t) {
    Command c;
    if (!receive(commandFd, c)) DemoSupport::supervisorGone();
    if (c.op == Command::go) round.armIn(options.configEvery);
    if (c.op == Command::round && changing) makeRound();
    if (c.op == Command::stop && changing) {
      changing = false;
      round.cancel();
      finished.kind = Report::finished;
      finished.time = now();
      finished.expiry = config->groupExpiryInterval();
      finished.clearCount = clear->groupsCount();
      send(reportFd, finished);
    }
  });
  for (;;) activity.runOnce(-1);
}

}  // namespace BidirAgent
