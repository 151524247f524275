#pragma once
// The agent process of the simulation: holds the Bidir group state of one VRF, drives RFC
// 5015-shaped churn through the entities' setters and exports every change through the writer
// state machine. One class, its jobs in three files:
//   Agent.cpp   start (build, or take the state back from the tables after a restart), the
//               driver's bookkeeping, wiring to the other processes, configuration, the end;
//   Churn.cpp   the churn: protocol events, timers, groups going and coming, DF moves;
//   Clears.cpp  clear requests and the on-disk record that makes them survive a SIGKILL.
//
// Every handler runs on the process's one activity. Notifiees only record what they heard; the
// driver's loops act on it (turn()), so that a failure (a record that cannot be kept, a table
// that cannot be resynchronised) is thrown from the driver and ends the run instead of being
// swallowed by a notification walk. A table write that fails inside the writer's handler is
// counted by the writer; the driver's loop sees the count and resynchronises (tablesCheck).

#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Bidir/AttrLog.h"
#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Quarn/GroupQuarnRestartSm.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Common.h"
#include "Kiv/Clock.h"
#include "Kiv/Timer.h"
#include "Pim/RpHashStatus.h"

namespace BidirAgent {

// The activity's clock, timing each tick: a tick of the restart review is one slice.
class SliceClock final : public Kiv::Clock {
 public:
  explicit SliceClock(Kiv::Activity& activity);
  double now() const override { return Kiv::Activity::now(); }
  std::vector<double> const& slices() const { return slices_; }

 private:
  void onTimeMin(double t) const override;
  mutable Kiv::Timer timer_;
  std::vector<double> slices_;
};

class Agent {
 public:
  Agent(Options const& options, std::string root, int reportFd, int commandFd);
  ~Agent();
  // The process's main: returns only by an exception (the supervisor ends the process).
  int run();

 private:
  using QuarnStatus = Bidir::Quarn::Status;
  using RpaRpfStatus = Bidir::Df::Quarn::RpaRpfStatus;

  // Counts what reaches the tables: every record written or removed, in both tables.
  struct ExportCounter final : QuarnStatus::NotifieeConst {
    std::uint64_t changes = 0;
    void onGroup(Lanx::IpGenAddr const&) override { ++changes; }
    void onGroupIntf(Bidir::GroupIntfKey const&) override { ++changes; }
  };
  // Hears the DF election's table; the driver's loop applies the move.
  struct DfWatcher final : RpaRpfStatus::NotifieeConst {
    Agent* agent = nullptr;
    void onRpaRpf(Lanx::IpGenAddr const&) override { agent->dfMoved_ = true; }
  };
  // The VRF's configuration and clear requests as the attribute log applies them. A member that
  // appears (or comes again with a resynchronisation) is watched from then on.
  struct ConfigWatcher final : Bidir::Config::NotifieeConst {
    Agent* agent = nullptr;
    void onGroupExpiryInterval() override { agent->expiryChanged(); }
  };
  struct ConfigCollWatcher final : Bidir::ConfigColl::NotifieeConst {
    Agent* agent = nullptr;
    void onVrfConfig(L3::VrfName name) override;
  };
  struct ClearWatcher final : Bidir::ClearConfig::NotifieeConst {
    Agent* agent = nullptr;
    void onGroupsCount() override { agent->clearRequested(); }
  };
  struct ClearCollWatcher final : Bidir::ClearConfigColl::NotifieeConst {
    Agent* agent = nullptr;
    void onVrfClearConfig(L3::VrfName name) override;
  };
  struct ClearRequest {
    std::uint8_t count;
    Bidir::ClearConfig::GroupKey key;
    bool resumed;  // begun by the previous life, perhaps not finished
  };
  struct Idle {
    double since;
    std::uint32_t g;
  };
  struct Pending {
    double due;
    std::uint32_t g, j;
  };
  static constexpr double kPrunePendingSeconds = 0.5;  // J/P override interval, shortened
  // Resync attempts while table writes fail: the first at once, then after 50 ms, doubling to
  // half a second.
  static constexpr double kResyncFirstWait = 0.05, kResyncMaxWait = 0.5;

  // Agent.cpp
  void attachForeignTables();
  void mountTables();
  void tablesCheck();
  void restore();
  void build();
  void resume();
  void checkDriverState() const;
  void createGroup(std::uint32_t g);
  void initIntf(Bidir::GroupIntf& intf, std::uint32_t g, std::uint32_t j);
  void touched(std::uint32_t g);
  void upstream();
  void expiryChanged();
  // One turn of the driver's loops: the activity for at most `timeout` seconds, then what the
  // notifiees recorded.
  void turn(double timeout);
  double expirySeconds() const { return expiry_ * kExpiryUnitSeconds; }
  void finish(Command const& stop);
  void onCommand();
  Report report(Report::Kind kind) const;
  std::uint16_t publishedRpf(std::uint32_t r) const;
  // Churn.cpp
  void churn();
  void event();
  void expire(double t);
  void sweepJoins(double t);
  void groupChurn(double t);
  void arrive(double t);
  void idle(std::uint32_t g, double t);
  void expireGroups(double t);
  void deleteGroup(std::uint32_t g);
  void applyDfMoves();
  void dfApply(std::uint32_t r, std::uint16_t rpf);
  // Clears.cpp
  void clearRequested();
  void actOnClears();
  std::uint32_t clearGroups(Bidir::ClearConfig::GroupKey const& key);
  std::string clearLogPath() const { return root_ + "/agent.clear"; }
  void clearLogRead();
  void clearLogWrite(ClearRequest const& request, bool done) const;

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
  Kiv::Ptr<Routing::Pim::RpHashStatus> rpHash_ = Kiv::newPtr<Routing::Pim::RpHashStatus>("rpHash");
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

  // Driver state: what the churn knows of each group, rebuilt from the Status by resume() (after
  // a restart the Status is all that survived). Invariants, checked after resume() in a debug
  // build (checkDriverState):
  //   - every group index g < options_.groups is in exactly one of present_ (its entry exists
  //     and churns), idle_ (its entry exists, every interface pruned, waiting out the group
  //     expiry interval) and absent_ (no entry in the Status). So the Status holds g's entry
  //     exactly when g is in present_ or idle_. resume() sorts every index into one of them;
  //     after that only idle() (present_ -> idle_), deleteGroup() (present_ or idle_ ->
  //     absent_) and groupChurn() and arrive() (absent_ -> present_, creating the
  //     entry) move an index;
  //   - isTouched_[g] != 0 exactly when g is in touched_, which therefore holds each index at
  //     most once: the groups whose interfaces changed since upstream() last decided their
  //     upstream state. touched() adds, upstream() empties both.
  std::uint16_t rpf_[16] = {};  // per RP: 1 + the interface toward it as applied, 0 for none
  std::vector<std::uint32_t> present_, absent_;
  std::deque<Idle> idle_;  // oldest first
  std::vector<std::uint32_t> touched_;
  std::vector<char> isTouched_;
  std::deque<Pending> prunes_;  // prune-pending timers, due times ascending
  std::uint32_t sweepCursor_ = 0;
  double holdBase_ = 0;  // when the churn began: only joins heard since then are timed
  bool nextGroupGoes_ = true;
  double nextGroupChurn_ = 0;
  // The late groups (first life only): how many have arrived, one every arriveEvery_ seconds
  // from arrivalsBegin_.
  std::uint32_t arrived_ = 0;
  double arrivalsBegin_ = 0, arriveEvery_ = 0;
  bool restarted_ = false;
  std::uint64_t dfMoves_ = 0;
  bool dfMoved_ = false;  // the RPA-RPF table changed since applyDfMoves() last looked

  // Configuration. Clear requests heard and not yet acted on wait in clearQueue_ until the
  // driver is ready (after the restart review the Status is the previous life's) and its loop
  // next turns: the notification that brings one only queues it.
  std::uint16_t expiry_ = Bidir::Config::groupExpiryIntervalDefaultValue;
  std::deque<ClearRequest> clearQueue_;
  bool ready_ = false;
  std::uint8_t clearedCount_ = 0;  // groupsCount of the last request acted on
  std::uint64_t configChanges_ = 0, clearsActed_ = 0, groupsCleared_ = 0, superseded_ = 0;

  // Table failures: since when the writer counts failed writes (0: none), resync attempts made
  // for them, when the next is due and the wait after it.
  double failingSince_ = 0, nextResync_ = 0, resyncWait_ = kResyncFirstWait;
  std::uint32_t resyncAttempts_ = 0;

  bool go_ = false;
  bool stopReceived_ = false;
  Command stop_;
};

}  // namespace BidirAgent
