// The reader process: what a show command or a forwarding-plane programmer would be. It keeps
// its own Status equal to the agent's tables through the reader state machine, and evaluates
// the RFC 5015 computations (joinDesired, oList, ...) on it, reading the RP/DF tables itself.
//
// The tables are mounted in mode "keyshadow": the reader keeps the keys it has seen, so a group
// removed while this process was behind (stopped, descheduled) is reported removed even when the
// writer has given its slot to another group meanwhile. The group table is mounted first: the
// interface records reported on attach then find their groups.
//
// Lag: a probe registered on the table root after the state machine hears each interface key
// right after the state machine applied it, and reads the entity's lastJoinReceived, the time
// the agent took the join. Each join is sampled once (stamps arrive in order, so a stamp not
// newer than the newest seen is a re-report), and only joins made after this process attached.
//
// The same probe tells the supervisor of every group that enters or leaves this Status (its
// record was written or removed), so that the groups the agent cleared can be seen to vanish
// here.

#include <signal.h>
#include <sys/epoll.h>

#include <algorithm>
#include <string>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/GroupQuarnReaderSm.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Common.h"
#include "Pim/RpHashStatus.h"

namespace BidirAgent {

namespace {

using QuarnStatus = Bidir::Quarn::Status;
// The consumers' reading mode (key shadows); the two tables are mounted one after the other.
constexpr Quarn::QuarnType kMode = QuarnStatus::readingMode;

class LagProbe final : public QuarnStatus::NotifieeConst {
 public:
  LagProbe(Bidir::Status const& status, std::uint32_t groups, int reportFd)
      : status_(status), groups_(groups), reportFd_(reportFd) {}
  void onGroup(Lanx::IpGenAddr const& addr) override {
    ++updates;
    lastHeard = now();
    std::uint32_t const g = groupIndex(addr, groups_);
    bool const held = bool(status_.group(addr));
    if (held && (g >= groups_ || held_[g])) return;
    if (g < groups_) held_[g] = held;
    Report r;
    r.kind = held ? Report::groupAppeared : Report::groupVanished;
    r.role = Role::reader;
    r.time = lastHeard;
    r.group = g;
    send(reportFd_, r);
  }
  void onGroupIntf(Bidir::GroupIntfKey const& key) override {
    ++updates;
    double const t = now();
    lastHeard = t;
    Kiv::Ptr<Bidir::Group const> group = status_.group(key.groupAddr());
    Kiv::Ptr<Bidir::GroupIntf const> intf = group ? group->groupIntf(key.intfId()) : nullptr;
    if (!intf) return;
    double const stamp = intf->lastJoinReceived();
    if (stamp <= newest_) return;
    newest_ = stamp;
    if (attachedAt > 0 && stamp >= attachedAt) lag.add(t - stamp);
  }

  LagHistogram lag;
  double attachedAt = 0;
  double lastHeard = 0;
  std::uint64_t updates = 0;

 private:
  Bidir::Status const& status_;
  std::uint32_t groups_;
  std::vector<char> held_ = std::vector<char>(groups_, 0);  // by group: in the Status
  int reportFd_;
  double newest_ = 0;
};

}  // namespace

int runReader(Options const& options, std::string const& root, int reportFd, int commandFd) {
  ::signal(SIGINT, SIG_IGN);
  Kiv::Activity& activity = Kiv::Activity::current();
  auto rpHash = Kiv::newPtr<Routing::Pim::RpHashStatus>("rpHash");
  auto rpaRpf = Kiv::newPtr<Bidir::Df::Quarn::RpaRpfStatus>("rpaRpf");
  Kiv::Ptr<Bidir::Status> status = Bidir::statusFactory("default");
  Kiv::Ptr<QuarnStatus> quarn = Bidir::Quarn::statusFactory("default");
  status->rpHashStatusIs(rpHash);
  status->rpaRpfStatusIs(rpaRpf);
  rpHash->rpHashControl().remountIntervalIs(0.05);
  rpaRpf->rpaRpfControl().remountIntervalIs(0.05);
  rpHash->rpHashControl().init(Quarn::QuarnType::reader, false, 0);
  rpaRpf->rpaRpfControl().init(Quarn::QuarnType::reader, false, 0);

  // The state machine first, then the probe: notifiees are called in registration order.
  auto const readerSm = Bidir::Quarn::groupQuarnReaderSmFactory(status, quarn);
  auto probe = Kiv::newPtr<LagProbe>(*status, options.groups, reportFd);
  probe->notifierIs(quarn);

  Command command;
  bool verify = false;
  Kiv::FdWatch commands(activity, commandFd, EPOLLIN, [&](std::uint32_t) {
    if (!receive(commandFd, command)) DemoSupport::supervisorGone();
    verify = verify || command.op == Command::verify;
  });
  auto report = [&](Report::Kind kind) {
    Report r;
    r.kind = kind;
    r.role = Role::reader;
    r.time = now();
    r.groups = status->groupCount();
    for (auto const& g : status->groupIter()) r.intfs += g.groupIntfCount();
    r.changes = probe->updates;
    r.lagP50 = probe->lag.percentile(0.5);
    r.lagP99 = probe->lag.percentile(0.99);
    r.lagMax = probe->lag.max();
    r.lagSamples = probe->lag.total();
    return r;
  };
  auto waitFor = [&](auto const& done) {
    while (!done()) activity.runOnce(0.01);
  };

  auto& groups = quarn->groupControl();
  auto& groupIntfs = quarn->groupIntfControl();
  groups.remountIntervalIs(0.05);
  groupIntfs.remountIntervalIs(0.05);
  tellDoing(reportFd, Role::reader, "attaching to the group table");
  groups.init(kMode, false, 0);
  waitFor([&] { return groups.fullyAttached(); });
  tellDoing(reportFd, Role::reader, "attaching to the group-interface table");
  groupIntfs.init(kMode, false, 0);
  waitFor([&] { return groupIntfs.fullyAttached(); });
  probe->attachedAt = now();
  Report const ready = report(Report::ready);
  send(reportFd, ready);
  tellDoing(reportFd, Role::reader, kReaderFollowing);

  double nextReport = 0;
  while (!verify) {
    activity.runOnce(0.05);
    if (now() >= nextReport) {
      Report const r = report(Report::progress);
      send(reportFd, r);
      nextReport = now() + 0.25;
    }
  }
  // The agent has stopped: wait (bounded) until this Status is the agent's. A digest is taken
  // once the tables have been quiet for a moment.
  tellDoing(reportFd, Role::reader, "catching up with the stopped agent to compare");
  std::string const path = root + "/reader.digest";
  double const deadline = now() + 10;
  std::uint64_t digest = 0;
  do {
    activity.runOnce(0.02);
    if (now() - probe->lastHeard < 0.1) continue;
    digest = writeDigest(*status, path);
    probe->lastHeard = now();
  } while (digest != command.digest && now() < deadline);
  Report r = report(Report::finished);
  r.digest = digest;
  send(reportFd, r);
  tellDoing(reportFd, Role::reader, "compared, following the tables");
  for (;;) activity.runOnce(-1);
}

}  // namespace BidirAgent
