// The agent process: start, restart and wiring (see Agent.h for how its jobs are split).
//
// Start: if the tables hold records of an earlier life, the restart review takes the state back
// from them in slices (the writer, already watching, writes nothing until it ends); otherwise
// the state is built from scratch and the writer, created last, exports all of it. Either way
// resume() then rebuilds the driver's bookkeeping from the Status alone.
//
// Configuration: the agent reads its VRF's Config and ClearConfig from the configuration process
// over the attribute log (re-attaching by itself after a restart). A group that goes away is
// first left idle (every interface pruned, no local receiver) and kept for the configured group
// expiry interval before its entry is removed. A clear request deletes the groups it names
// (Clears.cpp).

#include "Agent.h"

#include <signal.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Jorv/Exception.h"
#include "Quarn/Exceptions.h"

namespace BidirAgent {

SliceClock::SliceClock(Kiv::Activity& activity)
    : timer_(
          [this] {
            double const start = Kiv::Activity::now();
            tick();
            slices_.push_back(Kiv::Activity::now() - start);
          },
          activity) {}

void SliceClock::onTimeMin(double t) const {
  if (t == never) {
    timer_.cancel();
  } else {
    timer_.armAt(t);
  }
}

void Agent::ConfigCollWatcher::onVrfConfig(L3::VrfName name) {
  if (name != L3::VrfName(kVrf)) return;
  agent->configWatcher_->notifierIs(agent->configs_->vrfConfig(name));
  agent->expiryChanged();
}

void Agent::ClearCollWatcher::onVrfClearConfig(L3::VrfName name) {
  if (name != L3::VrfName(kVrf)) return;
  // A new member holds no request (count 0): its first request arrives as a count change.
  agent->clearWatcher_->notifierIs(agent->clears_->vrfClearConfig(name));
}

Agent::Agent(Options const& options, std::string root, int reportFd, int commandFd)
    : options_(options),
      root_(std::move(root)),
      reportFd_(reportFd),
      commandFd_(commandFd),
      commands_(activity_, commandFd, EPOLLIN, [this](std::uint32_t) { onCommand(); }),
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
  if (!receive(commandFd_, c)) DemoSupport::supervisorGone();
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

// Both tables as writer, created (when new) at the capacities of the options: small ones make
// them grow while the agent runs.
void Agent::mountTables() {
  KivQuarn::MountInfo info = quarn_->writerMountInfo();
  info.collectionInfoIs("group", {options_.groupCapacity});
  info.collectionInfoIs("groupIntf", {options_.intfCapacity});
  quarn_->groupIntfControl().mount(Quarn::QuarnType::writer, info);
  quarn_->groupControl().mount(Quarn::QuarnType::writer, info);
}

// Table writes that failed inside the writer's handlers (each traced there at error level with
// the table and the key; the notification walk went on). The Status is right and the tables lag
// behind it until a full resync succeeds. A full table (a full file system) is waited out: the
// churn goes on, and resyncs are retried with a growing wait until one gets the space. Any other
// failure raises out of resync() and ends the run.
void Agent::tablesCheck() {
  if (!writer_ || writer_->tableFailures() == 0) return;
  double const t = now();
  if (failingSince_ == 0) {
    failingSince_ = t;
    nextResync_ = t;
    resyncWait_ = kResyncFirstWait;
    resyncAttempts_ = 0;
  }
  if (t < nextResync_) return;
  std::uint64_t const failures = writer_->tableFailures();
  ++resyncAttempts_;
  try {
    writer_->resync();
  } catch (Quarn::TableFullException const& e) {
    if (resyncAttempts_ == 1) {  // said once per incident
      Report r = report(Report::tablesFailed);
      r.tableFailures = failures;
      std::snprintf(r.text, sizeof r.text, "%s", e.what());
      send(reportFd_, r);
    }
    nextResync_ = now() + resyncWait_;
    resyncWait_ = std::min(kResyncMaxWait, 2 * resyncWait_);
    return;
  }
  Report r = report(Report::tablesResynced);
  r.tableFailures = failures;
  r.resyncAttempts = resyncAttempts_;
  r.waited = now() - failingSince_;
  send(reportFd_, r);
  failingSince_ = 0;
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
  tellDoing(reportFd_, Role::agent, "attaching to the configuration and the RP/DF tables");
  clearLogRead();
  configCollWatcher_->notifierIs(configs_);
  clearCollWatcher_->notifierIs(clears_);
  configLink_ = Bidir::configurationAttach(activity_, configSocket(root_), configs_, clears_);
  attachForeignTables();
  mountTables();
  exported_->notifierIs(quarn_);
  restarted_ = quarn_->groupCount() + quarn_->groupIntfCount() > 0;
  bool const restarted = restarted_;
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
  if (!restarted) tellDoing(reportFd_, Role::agent, "waiting for the reader to attach");
  while (!restarted && !go_ && !stopReceived_) turn(0.05);
  tellDoing(reportFd_, Role::agent, kAgentChurning);
  churn();
  tellDoing(reportFd_, Role::agent, "applying the last DF moves and configuration");
  finish(stop_);
  tellDoing(reportFd_, Role::agent, "stopped, serving its tables");
  for (;;) activity_.runOnce(-1);  // serve the readers until the supervisor goes
}

// The tables outlived the previous agent: the writer watches from the start (and writes nothing
// while the Status is not initialized); the restart review brings the state back in slices.
void Agent::restore() {
  std::uint32_t const recordsBefore = quarn_->groupIntfCount();
  writer_ = Bidir::Quarn::groupQuarnWriterSmFactory(status_, quarn_);
  double const start = now();
  tellDoing(reportFd_, Role::agent, "reconciling: taking its state back from the tables");
  restart_ = Bidir::Quarn::groupQuarnRestartSmFactory(status_, quarn_,
                                                      KivQuarn::KivQuarnType::writer, clock_);
  for (double nextReport = start; !status_->initialized();) {
    activity_.runOnce(0.05);
    if (now() >= nextReport) {
      Report const r = report(Report::progress);
      send(reportFd_, r);
      nextReport = now() + 0.25;
    }
  }
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

// A first start: every group but the late ones with all its interfaces, then the writer exports
// the whole state.
void Agent::build() {
  tellDoing(reportFd_, Role::agent, "building its groups and exporting them");
  for (std::uint32_t g = 0; g < options_.groups - options_.lateGroups; ++g) createGroup(g);
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
      idle = idle && intf->joinState() == Bidir::GroupIntf::noInfo && !intf->localReceiverInclude();
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
  checkDriverState();
}

// The driver-state invariants of Agent.h, checked in a debug build: a violation means the
// churn would act on a group it does not hold (or never again on one it does).
void Agent::checkDriverState() const {
#ifndef NDEBUG
  std::vector<char> seen(options_.groups, 0);
  auto place = [&](std::uint32_t g, char const* where, bool held) {
    if (g >= options_.groups || seen[g]++ != 0) {
      throw Jorv::RuntimeException("driver state: group " + std::to_string(g) +
                                   " placed twice or out of range, in " + where);
    }
    if (bool(status_->group(addrs_[g])) != held) {
      throw Jorv::RuntimeException("driver state: group " + std::to_string(g) + " is in " + where +
                                   (held ? " but has no entry" : " but has an entry"));
    }
  };
  for (std::uint32_t g : present_) place(g, "present", true);
  for (Idle const& e : idle_) place(e.g, "idle", true);
  for (std::uint32_t g : absent_) place(g, "absent", false);
  for (std::uint32_t g = 0; g < options_.groups; ++g) {
    if (seen[g] == 0) {
      throw Jorv::RuntimeException("driver state: group " + std::to_string(g) +
                                   " is neither present, idle nor absent");
    }
  }
  std::vector<char> listed(options_.groups, 0);
  for (std::uint32_t g : touched_) {
    if (g >= options_.groups || listed[g]++ != 0 || isTouched_[g] == 0) {
      throw Jorv::RuntimeException("driver state: touched group " + std::to_string(g) +
                                   " listed twice or not marked");
    }
  }
  for (std::uint32_t g = 0; g < options_.groups; ++g) {
    if (isTouched_[g] != 0 && listed[g] == 0) {
      throw Jorv::RuntimeException("driver state: group " + std::to_string(g) +
                                   " marked touched but not listed");
    }
  }
#endif
}

void Agent::createGroup(std::uint32_t g) {
  if (ready_) {  // by the churn: a group cleared before may come back
    Report r = report(Report::groupCreated);
    r.group = g;
    send(reportFd_, r);
  }
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

void Agent::turn(double timeout) {
  activity_.runOnce(timeout);
  applyDfMoves();
  actOnClears();
  tablesCheck();
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

// Stops the churn, waits until the last DF moves the RP/DF process made have been applied (and
// failed table writes repaired), and writes the digest of the final state.
void Agent::finish(Command const& stop) {
  double const deadline = now() + 15;
  auto configured = [&] {
    return expiry_ == stop.expiry && clearedCount_ == stop.clearCount && clearQueue_.empty();
  };
  auto applied = [&] {
    for (std::uint32_t r = 0; r < options_.rps; ++r) {
      if (rpf_[r] != stop.rpfOf[r]) return false;
    }
    return configured() && writer_->tableFailures() == 0;
  };
  while (!applied() && now() < deadline) {
    turn(0.01);
    upstream();
  }
  upstream();
  Report r = report(Report::finished);
  r.configApplied = configured();
  r.tableFailures = writer_->tableFailures();
  r.digest = writeDigest(*status_, root_ + "/agent.digest");
  std::copy(std::begin(rpf_), std::end(rpf_), r.rpfOf);
  send(reportFd_, r);
}

int runAgent(Options const& options, std::string const& root, int reportFd, int commandFd) {
  Agent agent(options, root, reportFd, commandFd);
  return agent.run();
}

}  // namespace BidirAgent
