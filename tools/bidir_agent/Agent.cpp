// The agent process: holds the Bidir group state of one VRF, drives RFC 5015-shaped churn
// through the entities' setters and exports every change through the writer state machine.
//
// Start: if the tables hold records of an earlier life, the restart review takes the state back
// from them in slices (the writer, already watching, writes nothing until it ends); otherwise
// the state is built from scratch and the writer, created last, exports all of it.
//
// Churn, per group interface: joins (to the DF of the link: joinState joined, lastJoinReceived
// stamped, which is what the reader's lag is measured on), prunes (joined -> prunePending), the
// prune-pending timer expiring (-> noInfo), joins expiring after the hold time, local receivers
// coming and going (localReceiverInclude), `forward` following oList(); per group: the
// upstream state following joinDesired(), `inactive` flapping, groups going away and coming
// back; per RP: a DF election moving (an RPA-RPF record whose RPF interface changes), which
// moves iAmDf on two interfaces of every group of that RP.

#include <signal.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/GroupQuarnRestartSm.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Common.h"
#include "Kiv/Clock.h"
#include "Kiv/Timer.h"
#include "Pim/RpHashStatus.h"

namespace BidirAgent {

namespace {

using Routing::Pim::RpHashStatus;
using Bidir::Df::Quarn::RpaRpfStatus;
using QuarnStatus = Bidir::Quarn::Status;

constexpr double kPrunePendingSeconds = 0.5;  // J/P override interval, shortened
constexpr double kJoinHoldSeconds = 8;  // a join not refreshed for this long expires
// Groups go and come back alternately, one step every kGroupChurnEvery; a group that went stays
// away at least kGroupAbsentSeconds. A step that creates a group allocates table slots, so it
// comes well after the step that freed slots: a direct reader that is that far behind could
// find a removed group's slot holding another group and miss the removal until its next full
// pass.
constexpr double kGroupAbsentSeconds = 1;
constexpr double kGroupChurnEvery = 1;

// The activity's clock, timing each tick: a tick of the restart review is one slice.
class SliceClock final : public Kiv::Clock {
 public:
  explicit SliceClock(Kiv::Activity& activity)
      : timer_(
            [this] {
              double const start = Kiv::Activity::now();
              tick();
              slices_.push_back(Kiv::Activity::now() - start);
            },
            activity) {}
  double now() const override { return Kiv::Activity::now(); }
  std::vector<double> const& slices() const { return slices_; }

 private:
  void onTimeMin(double t) const override {
    if (t == never) {
      timer_.cancel();
    } else {
      timer_.armAt(t);
    }
  }
  mutable Kiv::Timer timer_;
  std::vector<double> slices_;
};

class Agent {
 public:
  Agent(Options const& options, std::string root, int reportFd, int commandFd);
  ~Agent();
  int run();

 private:
  // Counts what reaches the tables: every record written or removed, in both tables.
  struct ExportCounter final : QuarnStatus::NotifieeConst {
    std::uint64_t changes = 0;
    void onGroup(Lanx::IpGenAddr const&) override { ++changes; }
    void onGroupIntf(Bidir::GroupIntfKey const&) override { ++changes; }
  };
  // Hears the DF election's table.
  struct DfWatcher final : RpaRpfStatus::NotifieeConst {
    Agent* agent = nullptr;
    void onRpaRpf(Lanx::IpGenAddr const& rpa) override { agent->dfChanged(rpa); }
  };

  void attachForeignTables();
  void restore();
  void build();
  void resume();
  void churn();
  void event();
  void expire(double t);
  void sweepJoins(double t);
  void groupChurn(double t);
  void upstream();
  void createGroup(std::uint32_t g);
  void initIntf(Bidir::GroupIntf& intf, std::uint32_t g, std::uint32_t j);
  void dfChanged(Lanx::IpGenAddr const& rpa);
  void dfApply(std::uint32_t r, std::uint16_t rpf);
  std::uint16_t publishedRpf(std::uint32_t r) const;
  void touched(std::uint32_t g);
  void finish(Command const& stop);
  void onCommand();
  Report report(Report::Kind kind) const;

  std::uint32_t rpOf(std::uint32_t g) const { return g % options_.rps; }
  // iAmDf: this router is the DF on every link but the one toward the RPA.
  bool isDf(std::uint32_t g, std::uint32_t j) const { return rpf_[rpOf(g)] != j + 1; }
  void forwardFollows(Bidir::GroupIntf& intf) { intf.forwardIs(intf.oList()); }

  Options options_;
  std::string root_;
  int reportFd_;
  int commandFd_;
  Kiv::Activity& activity_ = Kiv::Activity::current();
  Kiv::FdWatch commands_;
  std::mt19937_64 rng_{std::random_device{}()};

  std::vector<Lanx::IpGenAddr> addrs_;
  std::vector<Lanx::IntfId> intfIds_;
  Kiv::Ptr<RpHashStatus> rpHash_ = Kiv::newPtr<RpHashStatus>("rpHash");
  Kiv::Ptr<RpaRpfStatus> rpaRpf_ = Kiv::newPtr<RpaRpfStatus>("rpaRpf");
  Kiv::Ptr<Bidir::Status> status_ = Bidir::statusFactory("default");
  Kiv::Ptr<QuarnStatus> quarn_ = Bidir::Quarn::statusFactory("default");
  Kiv::Ptr<SliceClock> clock_ = Kiv::newPtr<SliceClock>(Kiv::Activity::current());
  // Declared after what they watch: destroyed first (the writer leaves the records in place).
  Kiv::Ptr<Bidir::Quarn::GroupQuarnWriterSm> writer_;
  Kiv::Ptr<Bidir::Quarn::GroupQuarnRestartSm> restart_;
  Kiv::Ptr<ExportCounter> exported_ = Kiv::newPtr<ExportCounter>();
  Kiv::Ptr<DfWatcher> dfWatcher_ = Kiv::newPtr<DfWatcher>();

  // Driver state, rebuilt from the Status after a restart.
  std::uint16_t rpf_[16] = {};  // per RP: 1 + the interface toward it as applied, 0 for none
  std::vector<std::uint32_t> present_, absent_;
  std::vector<double> goneAt_;
  struct Pending {
    double due;
    std::uint32_t g, j;
  };
  std::deque<Pending> prunes_;
  std::vector<std::uint32_t> touched_;
  std::vector<char> isTouched_;
  std::uint32_t sweepCursor_ = 0;
  double holdBase_ = 0;  // when the churn began: only joins heard since then are timed
  bool nextGroupGoes_ = true;
  double nextGroupChurn_ = 0;
  std::uint64_t dfMoves_ = 0;
  bool go_ = false;
  bool stopReceived_ = false;
  Command stop_;
};

Agent::Agent(Options const& options, std::string root, int reportFd, int commandFd)
    : options_(options),
      root_(std::move(root)),
      reportFd_(reportFd),
      commandFd_(commandFd),
      commands_(activity_, commandFd, EPOLLIN, [this](std::uint32_t) { onCommand(); }),
      goneAt_(options.groups, 0),
      isTouched_(options.groups, 0) {
  for (std::uint32_t g = 0; g < options.groups; ++g) addrs_.push_back(groupAddr(g));
  for (std::uint32_t j = 0; j < options.intfs; ++j) intfIds_.push_back(intfId(j));
  dfWatcher_->agent = this;
}

Agent::~Agent() {
  dfWatcher_->notifierIs(nullptr);
  exported_->notifierIs(nullptr);
  restart_ = nullptr;
  writer_ = nullptr;
}

void Agent::onCommand() {
  Command c;
  if (!receive(commandFd_, c)) {
    std::_Exit(0);  // the supervisor is gone (it removes the files)
  }
  if (c.op == Command::go) go_ = true;
  if (c.op == Command::stop) {
    stopReceived_ = true;
    stop_ = c;
  }
}

Report Agent::report(Report::Kind kind) const {
  Report r;
  r.kind = kind;
  r.role = Role::agent;
  r.time = now();
  r.groups = status_->groupCount();
  for (auto const& g : status_->groupIter()) r.intfs += g.groupIntfCount();
  r.records = quarn_->groupCount() + std::uint64_t(quarn_->groupIntfCount());
  r.changes = exported_->changes;
  r.dfMoves = dfMoves_;
  return r;
}

// The RP hash and RPA-RPF tables, read as the computations need them; the RP/DF process has
// published them before the agent starts.
void Agent::attachForeignTables() {
  rpHash_->rpHashControl().remountIntervalIs(0.05);
  rpaRpf_->rpaRpfControl().remountIntervalIs(0.05);
  rpHash_->rpHashControl().init(Quarn::QuarnType::reader, false, 0);
  rpaRpf_->rpaRpfControl().init(Quarn::QuarnType::reader, false, 0);
  double const deadline = now() + 10;
  while (!(rpHash_->rpHashControl().fullyAttached() && rpaRpf_->rpaRpfControl().fullyAttached() &&
           rpaRpf_->rpaRpfControl().members() >= options_.rps)) {
    if (now() > deadline) throw Jorv::RuntimeException("the RP/DF tables did not appear");
    activity_.runOnce(0.01);
  }
  status_->rpHashStatusIs(rpHash_);
  status_->rpaRpfStatusIs(rpaRpf_);
  for (std::uint32_t r = 0; r < options_.rps; ++r) rpf_[r] = publishedRpf(r);
}

std::uint16_t Agent::publishedRpf(std::uint32_t r) const {
  Lanx::IntfId const intf = rpaRpf_->rpaRpf(rpAddr(r)).rpfInterface;
  auto const it = std::find(intfIds_.begin(), intfIds_.end(), intf);
  return it == intfIds_.end() ? 0 : std::uint16_t(it - intfIds_.begin() + 1);
}

int Agent::run() {
  ::signal(SIGINT, SIG_IGN);  // Ctrl-C reaches the process group: the supervisor handles it
  attachForeignTables();
  quarn_->mount(Quarn::QuarnType::writer);
  exported_->notifierIs(quarn_);
  bool const restarted = quarn_->groupCount() + quarn_->groupIntfCount() > 0;
  if (restarted) {
    restore();
  } else {
    build();
  }
  resume();
  Report ready = report(Report::ready);
  send(reportFd_, ready);
  // A first start waits for the reader to attach, so that its first full pass over the tables
  // does not race the churn; a restarted agent goes on at once.
  while (!restarted && !go_ && !stopReceived_) activity_.runOnce(0.05);
  churn();
  finish(stop_);
  for (;;) activity_.runOnce(-1);  // serve the readers until the supervisor goes
}

// The tables outlived the previous agent: the writer watches from the start (and writes nothing
// while the Status is not initialized); the restart review brings the state back in slices.
void Agent::restore() {
  std::uint32_t const recordsBefore = quarn_->groupIntfCount();
  writer_ = Bidir::Quarn::groupQuarnWriterSmFactory(status_, quarn_);
  double const start = now();
  restart_ = Bidir::Quarn::groupQuarnRestartSmFactory(status_, quarn_,
                                                        KivQuarn::KivQuarnType::writer, clock_);
  while (!status_->initialized()) activity_.runOnce(0.05);
  Report r = report(Report::reconciled);
  r.reconcileSeconds = now() - start;
  auto const& slices = clock_->slices();
  r.slices = std::uint32_t(slices.size());
  for (double s : slices) {
    r.sliceMax = std::max(r.sliceMax, s);
    r.sliceMean += s / double(slices.size());
  }
  r.interfaceRecordsRemoved = recordsBefore - quarn_->groupIntfCount();
  send(reportFd_, r);
  restart_ = nullptr;
}

// A first start: every group with all its interfaces, then the writer exports the whole state.
void Agent::build() {
  for (std::uint32_t g = 0; g < options_.groups; ++g) createGroup(g);
  status_->initializedIs(true);
  writer_ = Bidir::Quarn::groupQuarnWriterSmFactory(status_, quarn_);
}

// Brings the driver's own bookkeeping in line with the Status (after a restart it is all that
// survived): which groups are present, groups whose creation was cut short, pending prunes, and
// the DF elections as they stand now.
void Agent::resume() {
  present_.clear();
  absent_.clear();
  dfWatcher_->notifierIs(rpaRpf_);
  for (std::uint32_t r = 0; r < options_.rps; ++r) rpf_[r] = publishedRpf(r);
  double const t = now();
  for (std::uint32_t g = 0; g < options_.groups; ++g) {
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    if (!group) {
      absent_.push_back(g);
      continue;
    }
    present_.push_back(g);
    for (std::uint32_t j = 0; j < options_.intfs; ++j) {
      Kiv::Ptr<Bidir::GroupIntf> intf = group->groupIntf(intfIds_[j]);
      if (!intf) {
        initIntf(*group->groupIntfIs(intfIds_[j]), g, j);
        continue;
      }
      intf->iAmDfIs(isDf(g, j));
      forwardFollows(*intf);
      if (intf->joinState() == Bidir::GroupIntf::prunePending) {
        prunes_.push_back({t + kPrunePendingSeconds, g, j});
      }
    }
    touched(g);
  }
  upstream();
}

void Agent::createGroup(std::uint32_t g) {
  Kiv::Ptr<Bidir::Group> group = status_->groupIs(addrs_[g]);
  group->creationTimeIs(now());
  for (std::uint32_t j = 0; j < options_.intfs; ++j) {
    initIntf(*group->groupIntfIs(intfIds_[j]), g, j);
  }
  group->upJoinStateIs(group->joinDesired() ? Bidir::Group::upJoined : Bidir::Group::upNotJoined);
}

void Agent::initIntf(Bidir::GroupIntf& intf, std::uint32_t g, std::uint32_t j) {
  intf.iAmDfIs(isDf(g, j));
  intf.localReceiverIncludeIs(rng_() % 8 == 0);
  if (rng_() % 2 == 0) {
    intf.joinStateIs(Bidir::GroupIntf::joined);
    intf.lastJoinReceivedIs(now());
  }
  forwardFollows(intf);
}

void Agent::touched(std::uint32_t g) {
  if (!isTouched_[g]) {
    isTouched_[g] = 1;
    touched_.push_back(g);
  }
}

// JoinDesired(G) decides the upstream state of every group whose interfaces changed.
void Agent::upstream() {
  for (std::uint32_t g : touched_) {
    isTouched_[g] = 0;
    if (Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g])) {
      group->upJoinStateIs(group->joinDesired() ? Bidir::Group::upJoined
                                                : Bidir::Group::upNotJoined);
    }
  }
  touched_.clear();
}

// Paced on the exported changes: each round issues events until the changes due by now have
// reached the tables, then lets the activity run (readers' wake-up channel, the DF table).
void Agent::churn() {
  double const start = now();
  holdBase_ = start;
  std::uint64_t const base = exported_->changes;
  double nextReport = start;
  nextGroupChurn_ = start + kGroupChurnEvery;
  while (!stopReceived_) {
    double const t = now();
    auto const due = std::uint64_t((t - start) * options_.rate);
    std::uint64_t const target = std::min(due, exported_->changes - base + 256);
    for (int guard = 0; exported_->changes - base < target && guard < 4096; ++guard) event();
    expire(t);
    sweepJoins(t);
    groupChurn(t);
    upstream();
    activity_.runOnce(exported_->changes - base >= due ? 0.0002 : 0);
    if (t >= nextReport) {
      Report r = report(Report::progress);
      send(reportFd_, r);
      nextReport = t + 0.25;
    }
  }
}

void Agent::event() {
  if (present_.empty()) return;
  std::uint32_t const g = present_[rng_() % present_.size()];
  std::uint32_t const j = std::uint32_t(rng_() % options_.intfs);
  Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
  Kiv::Ptr<Bidir::GroupIntf> intf = group->groupIntf(intfIds_[j]);
  if (!intf) return;
  unsigned const kind = unsigned(rng_() % 100);
  if (kind < 55) {
    // A join reaches only the DF of the link.
    if (!intf->iAmDf()) return;
    intf->joinStateIs(Bidir::GroupIntf::joined);
    intf->lastJoinReceivedIs(now());
  } else if (kind < 77) {
    if (intf->joinState() != Bidir::GroupIntf::joined) return;
    intf->joinStateIs(Bidir::GroupIntf::prunePending);
    prunes_.push_back({now() + kPrunePendingSeconds, g, j});
  } else if (kind < 97) {
    intf->localReceiverIncludeIs(!intf->localReceiverInclude());
  } else {
    group->inactiveIs(!group->inactive());
    return;
  }
  forwardFollows(*intf);
  touched(g);
}

// The prune-pending timers that ran out: the prune takes effect.
void Agent::expire(double t) {
  while (!prunes_.empty() && prunes_.front().due <= t) {
    Pending const p = prunes_.front();
    prunes_.pop_front();
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[p.g]);
    Kiv::Ptr<Bidir::GroupIntf> intf = group ? group->groupIntf(intfIds_[p.j]) : nullptr;
    if (!intf || intf->joinState() != Bidir::GroupIntf::prunePending) continue;
    intf->joinStateIs(Bidir::GroupIntf::noInfo);
    forwardFollows(*intf);
    touched(p.g);
  }
}

// Joins not refreshed within the hold time expire; a few groups are swept each round, so every
// group is visited about once a second. Only joins heard since the churn began are timed: the
// joins the build (or the previous life) left would otherwise all expire in one burst, which the
// pacing would pay for with the churn itself.
void Agent::sweepJoins(double t) {
  auto const perRound = std::max<std::uint32_t>(1, options_.groups / 2000);
  for (std::uint32_t n = 0; n < perRound; ++n) {
    std::uint32_t const g = sweepCursor_++ % options_.groups;
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    if (!group) continue;
    for (auto& intf : group->groupIntfIter()) {
      if (intf.joinState() == Bidir::GroupIntf::joined &&
          intf.lastJoinReceived() >= holdBase_ && intf.lastJoinReceived() + kJoinHoldSeconds < t) {
        intf.joinStateIs(Bidir::GroupIntf::noInfo);
        forwardFollows(intf);
        touched(g);
      }
    }
  }
}

// Groups go away (every interface pruned, the entry removed) and come back later.
void Agent::groupChurn(double t) {
  if (t < nextGroupChurn_) return;
  nextGroupChurn_ = t + kGroupChurnEvery;
  nextGroupGoes_ = !nextGroupGoes_;
  if (!nextGroupGoes_ && present_.size() > 1) {
    std::size_t const i = rng_() % present_.size();
    std::uint32_t const g = present_[i];
    present_[i] = present_.back();
    present_.pop_back();
    status_->groupDel(addrs_[g]);
    absent_.push_back(g);
    goneAt_[g] = t;
  } else if (!absent_.empty() && goneAt_[absent_.front()] + kGroupAbsentSeconds <= t) {
    std::uint32_t const g = absent_.front();
    absent_.erase(absent_.begin());
    createGroup(g);
    present_.push_back(g);
  }
}

// A DF election moved: the interface toward the RPA changed. This router stops being the DF
// on the new RPF interface and becomes the DF on the old one, for every group of that RP.
void Agent::dfChanged(Lanx::IpGenAddr const& rpa) {
  for (std::uint32_t r = 0; r < options_.rps; ++r) {
    if (rpAddr(r) == rpa) dfApply(r, publishedRpf(r));
  }
}

void Agent::dfApply(std::uint32_t r, std::uint16_t rpf) {
  std::uint16_t const old = rpf_[r];
  if (old == rpf) return;
  rpf_[r] = rpf;
  ++dfMoves_;
  for (std::uint32_t g : present_) {
    if (rpOf(g) != r) continue;
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    for (std::uint16_t k : {old, rpf}) {
      if (k == 0) continue;
      if (Kiv::Ptr<Bidir::GroupIntf> intf = group->groupIntf(intfIds_[k - 1u])) {
        intf->iAmDfIs(isDf(g, k - 1u));
        forwardFollows(*intf);
      }
    }
    touched(g);
  }
}

// Stops the churn, waits until the last DF moves the RP/DF process made have been applied, and
// writes the digest of the final state.
void Agent::finish(Command const& stop) {
  double const deadline = now() + 15;
  auto applied = [&] {
    for (std::uint32_t r = 0; r < options_.rps; ++r) {
      if (rpf_[r] != stop.rpfOf[r]) return false;
    }
    return true;
  };
  while (!applied() && now() < deadline) {
    activity_.runOnce(0.01);
    upstream();
  }
  upstream();
  Report r = report(Report::finished);
  r.digest = writeDigest(*status_, root_ + "/agent.digest");
  std::copy(std::begin(rpf_), std::end(rpf_), r.rpfOf);
  send(reportFd_, r);
}

}  // namespace

int runAgent(Options const& options, std::string const& root, int reportFd, int commandFd) {
  Agent agent(options, root, reportFd, commandFd);
  return agent.run();
}

}  // namespace BidirAgent
