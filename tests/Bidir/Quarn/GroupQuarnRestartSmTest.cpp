// The restart review: slices of a clock (a manual clock here, the activity's clock across real
// processes), stale interface records by role, the trace lines, and an agent killed at random
// moments of churn whose successor takes back exactly what the tables hold.

#include "Bidir/Quarn/GroupQuarnRestartSm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "Mirror.h"
#include "Quarn/TestRecord.h"
#include "Quarn/Util.h"
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

// A test double of the framework clock: time stands still, ticks are delivered by hand.
struct ManualClock : Kiv::Clock {
  double now() const override { return 100.0; }
  void onTimeMin(double) const override {}
  void fire() const { tick(); }
};

struct GroupQuarnRestartSmTest : ::testing::Test {
  TestSupport::QuarnRoot root;
};

TEST_F(GroupQuarnRestartSmTest, QuantumZeroHandlesOneRecordPerPhaseAndSlice) {
  std::regex const prefix("GroupQuarnRestart\\(0x[0-9a-f]+\\)::(.*)");
  for (KivQuarnType role : {KivQuarnType::writer, KivQuarnType::reader}) {
    auto tables = BQ::statusFactory("quarn");
    constexpr std::uint32_t kGroups = 17;  // 0x11
    for (std::uint32_t g = 1; g <= kGroups; ++g) {
      BQ::Group r;
      r.key = addr(g);
      r.creationTime = g;
      r.inactive = g % 2 == 0;
      tables->newGroup(r);
      for (std::uint32_t i = 1; i <= 2; ++i) {
        BQ::GroupIntf ri;
        ri.key = intfKey(g, i);
        ri.lastJoinReceived = g * 10 + i;
        ri.iAmDf = true;
        tables->newGroupIntf(ri);
      }
    }
    BQ::GroupIntf stale;
    for (std::uint32_t i = 1; i <= 3; ++i) {
      stale.key = intfKey(99, i);
      tables->newGroupIntf(stale);
    }

    QuarnTest::TraceCapture trace{"PimBidir::GroupQuarnRestart"};
    auto status = Bidir::statusFactory("agent");
    auto clock = Kiv::newPtr<ManualClock>();
    auto sm = BQ::groupQuarnRestartSmFactory(status, tables, role, clock);
    sm->reviewQuantumIs(0.0);
    // Before handleInitialized, doReview writes only its entry line.
    ASSERT_EQ(trace.lines().size(), 2u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(trace.lines()[0], m, prefix));
    EXPECT_EQ(m[1], "doReview");
    EXPECT_TRUE(sm->initialized());

    int slices = 0, handled = 0;
    while (clock->timeMin() != Kiv::Clock::never) {
      GroupIntfKey const bookmark = sm->reviewBookmark();
      bool const intfPhase = sm->reviewedGroups() && !sm->reviewedGroupIntfs();
      trace.clear();
      clock->fire();
      ++slices;
      int groups = 0, intfs = 0, inits = 0;
      for (auto const& line : trace.lines()) {
        ASSERT_TRUE(std::regex_match(line, m, prefix)) << line;
        groups += m[1].str().starts_with("doReviewGroups(), Updated group ");
        intfs += std::regex_match(m[1].str(), std::regex("doReviewGroupIntfs0x[0-9a-f]+, Updating "
                                                         "intf in quarn"));
        inits += m[1].str().starts_with("doInitializeGroups(), Initializing group ");
      }
      EXPECT_LE(groups, 1);
      EXPECT_LE(intfs, 1);
      EXPECT_LE(inits, 1);
      EXPECT_GE(groups + intfs + inits, 1);
      handled += groups + intfs + inits;
      // A slice resumes at the bookmarked record.
      if (!bookmark.intfId().isDefault() && intfPhase && bookmark.groupAddr() != addr(99)) {
        EXPECT_TRUE(status->group(bookmark.groupAddr())->groupIntf(bookmark.intfId()));
      } else if (!!bookmark && !intfPhase) {
        EXPECT_TRUE(trace.contains("group " + bookmark.groupAddr().toString()));
      }
      if (clock->timeMin() != Kiv::Clock::never) {
        EXPECT_TRUE(std::regex_match(trace.lines().back(), m, prefix));
        EXPECT_TRUE(m[1].str().starts_with("doReview(), Suspending review at 0x")) << m[1];
      }
    }
    // Every record once; a slice that ends a phase at the end of its table goes on into the next.
    EXPECT_EQ(handled, 4 * kGroups);
    EXPECT_GE(slices, handled - 2);
    EXPECT_TRUE(std::regex_match(trace.lines().back(), m, prefix));
    EXPECT_EQ(m[1], "doReview(), Quarn groups: 11, Status groups: 11");  // hexadecimal
    EXPECT_TRUE(status->initialized());
    EXPECT_TRUE(sm->initializedGroups());
    for (auto const& g : status->groupIter()) EXPECT_TRUE(g.initialized());
    EXPECT_EQ(MirrorTest::mismatch(*status, *tables), "");
    EXPECT_FALSE(status->group(addr(99)));
    EXPECT_EQ(tables->groupIntfCount(), 2 * kGroups + (role == KivQuarnType::writer ? 0 : 3));
  }
}

TEST_F(GroupQuarnRestartSmTest, EmptyTablesFinishInTheFirstSlice) {
  QuarnTest::TraceCapture trace{"PimBidir::GroupQuarnRestart", 3};
  auto status = Bidir::statusFactory("agent");
  auto clock = Kiv::newPtr<ManualClock>();
  auto sm = BQ::groupQuarnRestartSmFactory(status, BQ::statusFactory("quarn"),
                                           KivQuarnType::writer, clock);
  EXPECT_TRUE(trace.lines().empty());
  clock->fire();
  EXPECT_TRUE(status->initialized());
  EXPECT_EQ(clock->timeMin(), Kiv::Clock::never);
  ASSERT_EQ(trace.lines().size(), 2u);
  EXPECT_TRUE(trace.lines()[1].ends_with(")::doReview(), Quarn groups: 0, Status groups: 0"));
}

}  // namespace
