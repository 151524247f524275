// The restart review: slices of a clock (a manual clock here, the activity's clock across real
// processes), stale interface records by role, the trace lines, a writer that waits for the end
// of the review, and an agent killed at random moments of churn whose successor takes back
// exactly what the tables hold.

#include "Bidir/Quarn/GroupQuarnRestartSm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <cctype>
#include <string_view>
#include <string>
#include <vector>

#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Mirror.h"
#include "Quarn/Files.h"
#include "Quarn/TestRecord.h"
#include "support/ActivityWait.h"
#include "support/Children.h"
#include "support/QuarnRoot.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace BQ = Routing::Pim::Bidir::Quarn;
using Bidir::GroupIntfKey;
using KivQuarn::KivQuarnType;

Lanx::IpGenAddr addr(std::uint32_t host) {
  return Lanx::IpGenAddr::ipv4Addr(0xef010100u + host);
}
GroupIntfKey intfKey(std::uint32_t host, std::uint32_t n) {
  return GroupIntfKey(addr(host), Lanx::IntfId("Ethernet" + std::to_string(n)));
}

// Whether `text` is `before`, hexadecimal digits and `after`.
bool hexBetween(std::string_view text, std::string_view before, std::string_view after) {
  if (!text.starts_with(before) || !text.ends_with(after)) return false;
  auto const digits = text.substr(before.size(), text.size() - before.size() - after.size());
  return !digits.empty() && std::all_of(digits.begin(), digits.end(), [](unsigned char c) {
    return std::isxdigit(c) != 0;
  });
}

// A test double of the framework clock: time stands still, ticks are delivered by hand.
struct ManualClock : Kiv::Clock {
  double now() const override { return 100.0; }
  void onTimeMin(double) const override {}
  void fire() const { tick(); }
};

// Takes `status` back from `tables` on the activity's clock; false if it does not finish.
bool restarted(Kiv::Ptr<Bidir::Status> const& status, Kiv::Ptr<BQ::Status> const& tables,
               double quantum) {
  auto sm = BQ::groupQuarnRestartSmFactory(status, tables, KivQuarnType::writer,
                                           Kiv::newPtr<Kiv::ActivityClock>());
  sm->reviewQuantumIs(quantum);
  return TestSupport::runUntil(
      Kiv::Activity::current(), [&] { return status->initialized(); }, 60);
}

// One RFC 5015-shaped change of the agent's state, through the entities' setters.
void churn(Bidir::Status& status, std::mt19937& rng) {
  auto pick = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
  auto eth = [](unsigned n) { return Lanx::IntfId("Ethernet" + std::to_string(n)); };
  Lanx::IpGenAddr const a = addr(1 + pick(40));
  Kiv::Ptr<Bidir::Group> g = status.group(a);
  auto joins = [&](Bidir::GroupIntf& gi) {
    gi.joinStateIs(Bidir::GroupIntf::JoinState(pick(3)));
    gi.iAmDfIs(pick(4) != 0);
    gi.lastJoinReceivedIs(pick(1000));
  };
  if (!g) {
    g = status.groupIs(a);
    g->creationTimeIs(pick(1000));
    for (unsigned i = 1; i <= 8; ++i) {
      if (pick(2) == 0) joins(*g->groupIntfIs(eth(i)));
    }
  } else if (pick(6) == 0) {
    status.groupDel(a);
  } else if (pick(3) == 0) {
    g->upJoinStateIs(Bidir::Group::UpJoinState(pick(2)));
    g->inactiveIs(pick(2) == 0);
  } else if (Lanx::IntfId const intf = eth(1 + pick(8)); pick(4) == 0) {
    g->groupIntfDel(intf);
  } else {
    joins(*g->groupIntfIs(intf));
  }
}

// The agent: takes its state back while its writer waits, then changes its state (exported by
// the writer) until killed, saying in <root>/churning once the first changes are in the tables.
int agentChild(std::string const& arg) {
  std::string const rootDir = arg.substr(0, arg.find(' '));
  std::mt19937 rng(std::stoul(arg.substr(arg.find(' ') + 1)));
  ::setenv("QUARN_ROOT", rootDir.c_str(), 1);
  auto tables = BQ::statusFactory("quarn");
  tables->mount(Quarn::QuarnType::writer);
  auto status = Bidir::statusFactory("agent");
  auto writer = BQ::groupQuarnWriterSmFactory(status, tables);
  if (!restarted(status, tables, 0.1)) return 1;
  for (bool said = false;; said = true) {
    for (int i = 0; i < 50; ++i) churn(*status, rng);
    Kiv::Activity::current().runOnce(0);
    if (!said) Quarn::Util::fileWriteAtomic(rootDir + "/churning", "yes");
  }
}

[[maybe_unused]] bool const agentHook =
    TestSupport::childRole("GROUP_QUARN_RESTART_AGENT", agentChild);

struct GroupQuarnRestartSmTest : ::testing::Test {
  TestSupport::QuarnRoot root;
};

// `groups` group records with two interface records each, and (`stale`) three interface records of
// a group whose record is absent, written without notifying.
Kiv::Ptr<BQ::Status> tablesOf(std::uint32_t groups, bool stale) {
  auto tables = BQ::statusFactory("quarn");
  for (std::uint32_t g = 1; g <= groups + stale; ++g) {
    BQ::Group r;
    r.key = addr(g);
    r.creationTime = g;
    if (g <= groups) tables->newGroup(r);
    for (std::uint32_t i = 1; i <= (g <= groups ? 2 : 3); ++i) {
      BQ::GroupIntf ri;
      ri.key = intfKey(g, i);
      ri.lastJoinReceived = g * 10 + i;
      tables->newGroupIntf(ri);
    }
  }
  return tables;
}

TEST_F(GroupQuarnRestartSmTest, QuantumZeroHandlesOneRecordPerPhaseAndSlice) {
  constexpr std::uint32_t kGroups = 17;  // 0x11
  for (KivQuarnType role : {KivQuarnType::writer, KivQuarnType::reader}) {
    auto tables = tablesOf(kGroups, true);
    QuarnTest::TraceCapture trace{"PimBidir::GroupQuarnRestart"};
    auto status = Bidir::statusFactory("agent");
    auto clock = Kiv::newPtr<ManualClock>();
    auto sm = BQ::groupQuarnRestartSmFactory(status, tables, role, clock);
    sm->reviewQuantumIs(0.0);
    std::string const self = trace.lines().at(0).substr(0, trace.lines()[0].find("::") + 2);
    EXPECT_TRUE(hexBetween(self, "GroupQuarnRestart(0x", ")::")) << self;
    // Before handleInitialized, doReview writes only its entry line.
    EXPECT_EQ(trace.lines(), (std::vector{self + "doReview", self + "handleInitialized"}));

    std::size_t handled = 0;
    for (int slices = 1; clock->timeMin() != Kiv::Clock::never; ++slices) {
      GroupIntfKey const bookmark = sm->reviewBookmark();
      bool const intfPhase = sm->reviewedGroups() && !sm->reviewedGroupIntfs();
      trace.clear();
      clock->fire();
      std::size_t const groups = trace.count("(), Updated group ");
      auto const intfs = static_cast<std::size_t>(
          std::count_if(trace.lines().begin(), trace.lines().end(), [&](std::string const& line) {
            return hexBetween(std::string_view(line).substr(self.size()), "doReviewGroupIntfs0x",
                              ", Updating intf in quarn");
          }));
      std::size_t const inits = trace.count("(), Initializing group ");
      EXPECT_TRUE(groups <= 1 && intfs <= 1 && inits <= 1 && groups + intfs + inits >= 1);
      handled += groups + intfs + inits;
      // The slice resumed at the bookmarked record.
      if (intfPhase && bookmark.groupAddr() != addr(kGroups + 1)) {
        EXPECT_TRUE(status->group(bookmark.groupAddr())->groupIntf(bookmark.intfId()));
      } else if (!!bookmark && !intfPhase) {
        EXPECT_TRUE(trace.contains("group " + bookmark.groupAddr().toString()));
      }
      std::string const last = trace.lines().back().substr(self.size());
      if (clock->timeMin() != Kiv::Clock::never) {
        EXPECT_TRUE(hexBetween(last, "doReview(), Suspending review at 0x", "")) << last;
      } else {  // the counts in hexadecimal; phase-ending slices went on into the next phase
        EXPECT_EQ(last, "doReview(), Quarn groups: 11, Status groups: 11");
        EXPECT_GE(slices + 2, 4 * static_cast<int>(kGroups));
      }
    }
    EXPECT_EQ(handled, 4 * kGroups);
    EXPECT_TRUE(status->initialized());
    for (auto const& g : status->groupIter()) EXPECT_TRUE(g.initialized());
    EXPECT_EQ(MirrorTest::mismatch(*status, *tables), "");
    EXPECT_FALSE(status->group(addr(kGroups + 1)));  // stale: created nowhere, removed by writer
    EXPECT_EQ(tables->groupIntfCount(), 2 * kGroups + (role == KivQuarnType::writer ? 0 : 3));
  }
}

// Counts what reaches the tables (writes and removals).
struct TableChanges : BQ::Status::Notifiee {
  int count = 0;
  void onGroup(Lanx::IpGenAddr const&) override { ++count; }
  void onGroupIntf(GroupIntfKey const&) override { ++count; }
};

TEST_F(GroupQuarnRestartSmTest, WriterWritesNothingUntilTheReviewEnds) {
  auto tables = tablesOf(5, false);  // no stale record: its removal would count
  auto changes = Kiv::newPtr<TableChanges>();
  changes->notifierIs(tables);
  QuarnTest::TraceCapture trace{"PimBidir::QuarnWriter", 7};
  auto status = Bidir::statusFactory("agent");
  auto writer = BQ::groupQuarnWriterSmFactory(status, tables);
  auto clock = Kiv::newPtr<ManualClock>();
  auto sm = BQ::groupQuarnRestartSmFactory(status, tables, KivQuarnType::writer, clock);
  sm->reviewQuantumIs(0.0);
  while (clock->timeMin() != Kiv::Clock::never) {
    clock->fire();
    ASSERT_EQ(changes->count, 0);
  }
  EXPECT_TRUE(status->initialized());
  EXPECT_EQ(MirrorTest::mismatch(*status, *tables), "");
  EXPECT_GE(trace.count("), status uninitialized"), 5u);  // every group and interface held back
  EXPECT_GE(trace.count("), status unintialized"), 10u);
  status->group(addr(2))->inactiveIs(true);
  EXPECT_EQ(changes->count, 1);
  EXPECT_TRUE(tables->group(addr(2)).inactive);
}

// Whoever watches the Status (the writer above all) meets each group and interface the review
// creates with its record's state already on it, and hears none of its fields change after.
TEST_F(GroupQuarnRestartSmTest, WatchersMeetEachTakenBackEntityWhole) {
  auto tables = tablesOf(6, false);
  std::vector<std::string> faults;
  struct GroupWatch : Bidir::Group::Notifiee {
    BQ::Status* tables = nullptr;
    std::vector<std::string>* faults = nullptr;
    std::size_t arrivals = 0;
    void onCreationTime() override { faults->push_back("creationTime changed after arrival"); }
    void onGroupIntf(Lanx::IntfId id) override {
      ++arrivals;
      GroupIntfKey const key(notifier()->groupAddr(), id);
      auto const intf = notifier()->groupIntf(id);
      if (!intf || intf->lastJoinReceived() != double(tables->groupIntf(key).lastJoinReceived)) {
        faults->push_back("interface arrived without its record's state: " +
                          ::testing::PrintToString(key));
      }
    }
  };
  struct StatusWatch : Bidir::Status::Notifiee {
    BQ::Status* tables = nullptr;
    std::vector<std::string>* faults = nullptr;
    std::vector<Kiv::Ptr<GroupWatch>> groups;
    void onGroup(Lanx::IpGenAddr const& a) override {
      auto const group = notifier()->group(a);
      if (!group || group->creationTime() != double(tables->group(a).creationTime)) {
        faults->push_back("group arrived without its record's state: " + a.toString());
      }
      auto watch = Kiv::newPtr<GroupWatch>();
      watch->tables = tables;
      watch->faults = faults;
      watch->notifierIs(group);
      groups.push_back(watch);
    }
  };
  auto status = Bidir::statusFactory("agent");
  auto watch = Kiv::newPtr<StatusWatch>();
  watch->tables = tables.ptr();
  watch->faults = &faults;
  watch->notifierIs(status);
  ASSERT_TRUE(restarted(status, tables, 0.1));
  EXPECT_EQ(faults, std::vector<std::string>());
  ASSERT_EQ(watch->groups.size(), 6u);
  for (auto const& g : watch->groups) EXPECT_EQ(g->arrivals, 2u);
}

TEST_F(GroupQuarnRestartSmTest, AgentKilledDuringChurnIsTakenBackFromTheTables) {
  TestSupport::Children children{"GROUP_QUARN_RESTART_AGENT"};
  std::mt19937 rng(11);
  std::string const churning = root.path() + "/churning";
  for (int round = 0; round < 4; ++round) {
    ::unlink(churning.c_str());
    pid_t const pid = children.spawn(root.path() + " " + std::to_string(round));
    ASSERT_TRUE(TestSupport::runUntil(
        Kiv::Activity::current(), [&] { return !Quarn::Util::fileRead(churning).empty(); }, 60));
    ::usleep(rng() % 30000);  // a random moment of the churn
    children.kill(pid);

    auto tables = BQ::statusFactory("quarn");
    tables->mount(Quarn::QuarnType::writer);
    auto status = Bidir::statusFactory("agent");
    ASSERT_TRUE(restarted(status, tables, round % 2 == 0 ? 0.1 : 0.0)) << "round " << round;
    EXPECT_GT(tables->groupCount(), 0u) << "round " << round;
    EXPECT_EQ(MirrorTest::mismatch(*status, *tables), "") << "round " << round;
    for (auto it = tables->groupIntfIterator(); it; ++it) {
      EXPECT_TRUE(status->group(it.key().groupAddr())) << "stale record left: " << it.key();
    }
  }
}

}  // namespace
