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
//
// Configuration: the agent reads its VRF's Config and ClearConfig from the configuration process
// over the attribute log (re-attaching by itself after a restart). A group that goes away is
// first left idle (every interface pruned, no local receiver) and kept for the configured group
// expiry interval before its entry is removed. A clear request deletes the groups it names.

#include <signal.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Bidir/AttrLog.h"
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
constexpr double kGroupAbsentSeconds = 1;  // also: after any group went, before a creation
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
  // The VRF's configuration and clear requests as the attribute log applies them. A member that
  // appears (or comes again with a resynchronisation) is watched from then on.
  struct ConfigWatcher final : Bidir::Config::NotifieeConst {
    Agent* agent = nullptr;
    void onGroupExpiryInterval() override { agent->expiryChanged(); }
  };
  struct ConfigCollWatcher final : Bidir::ConfigColl::NotifieeConst {
    Agent* agent = nullptr;
    void onVrfConfig(L3::VrfName name) override {
      if (name != L3::VrfName(kVrf)) return;
      agent->configWatcher_->notifierIs(agent->configs_->vrfConfig(name));
      agent->expiryChanged();
    }
  };
  struct ClearWatcher final : Bidir::ClearConfig::NotifieeConst {
    Agent* agent = nullptr;
    void onGroupsCount() override { agent->clearRequested(); }
  };
  struct ClearCollWatcher final : Bidir::ClearConfigColl::NotifieeConst {
    Agent* agent = nullptr;
    void onVrfClearConfig(L3::VrfName name) override {
      if (name != L3::VrfName(kVrf)) return;
      // A new member holds no request (count 0): its first request arrives as a count change.
      agent->clearWatcher_->notifierIs(agent->clears_->vrfClearConfig(name));
    }
  };
  struct ClearRequest {
    std::uint8_t count;
    Bidir::ClearConfig::GroupKey key;
    bool resumed;  // begun by the previous life, perhaps not finished
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
  void idle(std::uint32_t g, double t);
  void expireGroups(double t);
  void deleteGroup(std::uint32_t g, double t);
  void expiryChanged();
  double expirySeconds() const { return expiry_ * kExpiryUnitSeconds; }
  void clearRequested();
  void actOnClears();
  std::uint32_t clearGroups(Bidir::ClearConfig::GroupKey const& key);
  std::string clearLogPath() const { return root_ + "/agent.clear"; }
  void clearLogRead();
  void clearLogWrite(ClearRequest const& request, bool done) const;
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
  Kiv::Ptr<Bidir::ConfigColl> configs_ = Bidir::configCollFactory(kConfigCollName);
  Kiv::Ptr<Bidir::ClearConfigColl> clears_ = Bidir::clearConfigCollFactory(kClearConfigCollName);
  Kiv::Ptr<ConfigWatcher> configWatcher_ = Kiv::newPtr<ConfigWatcher>();
  Kiv::Ptr<ConfigCollWatcher> configCollWatcher_ = Kiv::newPtr<ConfigCollWatcher>();
  Kiv::Ptr<ClearWatcher> clearWatcher_ = Kiv::newPtr<ClearWatcher>();
  Kiv::Ptr<ClearCollWatcher> clearCollWatcher_ = Kiv::newPtr<ClearCollWatcher>();
  std::unique_ptr<Kiv::NboAttrLog::Client> configLink_;

  // Driver state, rebuilt from the Status after a restart.
  std::uint16_t rpf_[16] = {};  // per RP: 1 + the interface toward it as applied, 0 for none
  std::vector<std::uint32_t> present_, absent_;
  std::vector<double> goneAt_;
  double lastGoneAt_ = 0;
  // Idle groups waiting out the group expiry interval, oldest first (not in present_).
  struct Idle {
    double since;
    std::uint32_t g;
  };
  std::deque<Idle> idle_;
  std::uint16_t expiry_ = Bidir::Config::groupExpiryIntervalDefaultValue;
  // Clear requests heard and not yet acted on; acted on once the driver is ready (after the
  // restart review, the Status is the previous life's).
  std::deque<ClearRequest> clearQueue_;
  bool ready_ = false;
  std::uint8_t clearedCount_ = 0;  // groupsCount of the last request acted on
  std::uint64_t configChanges_ = 0, clearsActed_ = 0, groupsCleared_ = 0, superseded_ = 0;
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
  configWatcher_->agent = this;
  configCollWatcher_->agent = this;
  clearWatcher_->agent = this;
  clearCollWatcher_->agent = this;
}

Agent::~Agent() {
  configLink_ = nullptr;
  configWatcher_->notifierIs(nullptr);
  configCollWatcher_->notifierIs(nullptr);
  clearWatcher_->notifierIs(nullptr);
  clearCollWatcher_->notifierIs(nullptr);
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
  r.configChanges = configChanges_;
  r.clearRequests = clearsActed_;
  r.groupsCleared = groupsCleared_;
  r.clearsSuperseded = superseded_;
  r.expiry = expiry_;
  r.clearCount = clearedCount_;
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
  // The configuration channel from the start: what arrives during the restart review waits in
  // clearQueue_ until the driver is ready.
  clearLogRead();
  configCollWatcher_->notifierIs(configs_);
  clearCollWatcher_->notifierIs(clears_);
  configLink_ = Bidir::configurationAttach(activity_, configSocket(root_), configs_, clears_);
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
  ready_ = true;
  actOnClears();
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
  idle_.clear();
  dfWatcher_->notifierIs(rpaRpf_);
  for (std::uint32_t r = 0; r < options_.rps; ++r) rpf_[r] = publishedRpf(r);
  double const t = now();
  for (std::uint32_t g = 0; g < options_.groups; ++g) {
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    if (!group) {
      absent_.push_back(g);
      continue;
    }
    bool idle = true;
    for (std::uint32_t j = 0; j < options_.intfs; ++j) {
      Kiv::Ptr<Bidir::GroupIntf> intf = group->groupIntf(intfIds_[j]);
      if (!intf) {
        initIntf(*group->groupIntfIs(intfIds_[j]), g, j);
        idle = false;
        continue;
      }
      idle = idle && intf->joinState() == Bidir::GroupIntf::noInfo &&
             !intf->localReceiverInclude();
      intf->iAmDfIs(isDf(g, j));
      forwardFollows(*intf);
      if (intf->joinState() == Bidir::GroupIntf::prunePending) {
        prunes_.push_back({t + kPrunePendingSeconds, g, j});
      }
    }
    // A group left idle by the previous life waits out the expiry interval again, from now.
    if (idle) {
      idle_.push_back({t, g});
    } else {
      present_.push_back(g);
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
    expireGroups(t);
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

// Groups go away (every interface pruned, the entry removed once the group expiry interval has
// passed) and come back later. A creation waits kGroupAbsentSeconds after the last removal of any
// group (churn, expiry or clear), so that a reader never meets a freed slot reused too soon.
void Agent::groupChurn(double t) {
  if (t < nextGroupChurn_) return;
  nextGroupChurn_ = t + kGroupChurnEvery;
  nextGroupGoes_ = !nextGroupGoes_;
  if (!nextGroupGoes_ && present_.size() > 1) {
    idle(present_[rng_() % present_.size()], t);
  } else if (!absent_.empty() && goneAt_[absent_.front()] + kGroupAbsentSeconds <= t &&
             lastGoneAt_ + kGroupAbsentSeconds <= t) {
    std::uint32_t const g = absent_.front();
    absent_.erase(absent_.begin());
    createGroup(g);
    present_.push_back(g);
  }
}

// The group loses its last join and receiver: nothing to forward, it waits to expire.
void Agent::idle(std::uint32_t g, double t) {
  auto const it = std::find(present_.begin(), present_.end(), g);
  if (it == present_.end()) return;
  *it = present_.back();
  present_.pop_back();
  Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
  for (auto& intf : group->groupIntfIter()) {
    intf.joinStateIs(Bidir::GroupIntf::noInfo);
    intf.localReceiverIncludeIs(false);
    forwardFollows(intf);
  }
  touched(g);
  idle_.push_back({t, g});
}

// Idle groups kept for the group expiry interval are removed; the interval in force now applies
// to every waiting group (a shorter one lets them go at once).
void Agent::expireGroups(double t) {
  while (!idle_.empty() && idle_.front().since + expirySeconds() <= t) {
    deleteGroup(idle_.front().g, t);
  }
}

// Removes the group's entry (the writer removes its records) wherever the driver holds it.
void Agent::deleteGroup(std::uint32_t g, double t) {
  if (auto const it = std::find(present_.begin(), present_.end(), g); it != present_.end()) {
    *it = present_.back();
    present_.pop_back();
  } else {
    auto const i =
        std::find_if(idle_.begin(), idle_.end(), [g](Idle const& e) { return e.g == g; });
    if (i == idle_.end()) return;
    idle_.erase(i);
  }
  status_->groupDel(addrs_[g]);
  absent_.push_back(g);
  goneAt_[g] = t;
  lastGoneAt_ = t;
}

void Agent::expiryChanged() {
  Kiv::Ptr<Bidir::Config const> config = configWatcher_->notifier();
  std::uint16_t const v =
      config ? config->groupExpiryInterval() : Bidir::Config::groupExpiryIntervalDefaultValue;
  if (v == expiry_) return;
  expiry_ = v;
  ++configChanges_;
  Report r = report(Report::configured);
  send(reportFd_, r);
}

// Clear requests. A request is a change of the ClearConfig's request counter groupsCount, its
// groupKey saying what to clear; the agent reacts to the counter, never to a value it already
// knows. The attribute log carries state, not messages: on every (re)connection the configuration
// process sends its whole ClearConfigColl again, so a restarted agent meets the latest request
// again, whether or not its previous life acted on it. The counter is the request's identity:
// the agent acts on a count other than the last one it acted on.
//
// That last count must outlive a SIGKILL, so the agent keeps it in a small record in the run's
// root (clearLogWrite): "started" with the count and key before it deletes anything, "done" once
// it has. A restarted agent reads the record before it attaches: after "done" the replay of that
// request (same count) is passed over; after "started" the previous life may have been cut off
// halfway, so that request is carried out again first (deleting a group that is already gone does
// nothing) and reported as resumed. Any other count is a request made while the agent was down or
// reconciling, acted on once the review has given back its state. The key of a request
// overwritten before the agent read it is lost (the entity holds one key); the counter tells how
// many were, and they are counted as superseded.
void Agent::clearRequested() {
  Kiv::Ptr<Bidir::ClearConfig const> clear = clearWatcher_->notifier();
  if (!clear) return;
  clearQueue_.push_back({clear->groupsCount(), clear->groupKey(), false});
  if (ready_) actOnClears();
}

void Agent::actOnClears() {
  while (!clearQueue_.empty()) {
    ClearRequest const request = clearQueue_.front();
    clearQueue_.pop_front();
    if (request.count == clearedCount_) continue;
    clearLogWrite(request, false);
    Report r = report(Report::clearActed);
    r.clearsSuperseded = std::uint8_t(request.count - clearedCount_ - 1);
    r.clearResumed = request.resumed;
    r.clearCount = request.count;
    r.groups = clearGroups(request.key);
    superseded_ += r.clearsSuperseded;
    ++clearsActed_;
    groupsCleared_ += r.groups;
    send(reportFd_, r);
    clearedCount_ = request.count;
    clearLogWrite(request, true);
  }
}

// Deletes what the key's flags name: every group (clearAll) or the group gAddr (clearGroup).
std::uint32_t Agent::clearGroups(Bidir::ClearConfig::GroupKey const& key) {
  std::vector<std::uint32_t> named;
  if (key.flags().clearAll()) {
    named = present_;
    for (Idle const& e : idle_) named.push_back(e.g);
  } else if (key.flags().clearGroup()) {
    std::uint32_t const g = groupIndex(key.gAddr(), options_.groups);
    if (g < options_.groups && status_->group(addrs_[g])) named.push_back(g);
  }
  for (std::uint32_t g : named) {
    Report r = report(Report::groupCleared);
    r.group = g;  // stamped before the records go: the reader can only see it vanish later
    deleteGroup(g, r.time);
    send(reportFd_, r);
  }
  return std::uint32_t(named.size());
}

// The record of the last request: "<count> started|done" and the key in its text form. Absent
// (a first start) or unreadable, the agent has acted on nothing: count 0, the initial one.
void Agent::clearLogRead() {
  std::ifstream in(clearLogPath());
  unsigned count = 0;
  std::string state, key;
  if (!(in >> count >> state) || count > 255 || (state != "started" && state != "done")) return;
  std::getline(in >> std::ws, key);
  try {
    ClearRequest request{std::uint8_t(count), Kiv::strepToValue<Bidir::ClearConfig::GroupKey>(key),
                         true};
    clearedCount_ = std::uint8_t(state == "done" ? count : count - 1);
    if (state == "started") clearQueue_.push_back(request);
  } catch (Kiv::RangeException const&) {
  }
}

// Written aside and renamed, so a SIGKILL leaves the old record or the new one, never a part.
void Agent::clearLogWrite(ClearRequest const& request, bool done) const {
  std::string const path = clearLogPath();
  {
    std::ofstream out(path + ".new", std::ios::trunc);
    out << unsigned(request.count) << (done ? " done " : " started ") << request.key << '\n';
  }
  std::error_code ec;
  std::filesystem::rename(path + ".new", path, ec);
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
  for (std::uint32_t g = r; g < options_.groups; g += options_.rps) {  // present or idle
    Kiv::Ptr<Bidir::Group> group = status_->group(addrs_[g]);
    if (!group) continue;
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
  auto configured = [&] {
    return expiry_ == stop.expiry && clearedCount_ == stop.clearCount && clearQueue_.empty();
  };
  auto applied = [&] {
    for (std::uint32_t r = 0; r < options_.rps; ++r) {
      if (rpf_[r] != stop.rpfOf[r]) return false;
    }
    return configured();
  };
  while (!applied() && now() < deadline) {
    activity_.runOnce(0.01);
    upstream();
  }
  upstream();
  Report r = report(Report::finished);
  r.configApplied = configured();
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
