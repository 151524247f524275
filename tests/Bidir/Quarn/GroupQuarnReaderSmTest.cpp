// The group reader: notifications of a step of table changes, delivered in any order, leave the
// local Status equal to the tables; the trace lines tell what happened in which order; a damaged
// table makes a key absent and is reported once.

#include "Bidir/Quarn/GroupQuarnReaderSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <variant>
#include <vector>

#include "Mirror.h"
#include "Quarn/QuarnMapFixture.h"
#include "Quarn/Util.h"
#include "support/ActivityWait.h"
#include "support/QuarnRoot.h"

namespace {

namespace Bidir = Routing::Pim::Bidir;
namespace BQ = Routing::Pim::Bidir::Quarn;
using Bidir::GroupIntfKey;
using Key = std::variant<Lanx::IpGenAddr, GroupIntfKey>;

Lanx::IpGenAddr addr(std::uint32_t host) {
  return Lanx::IpGenAddr::ipv4Addr(0xef010100u + host);
}
Lanx::IntfId eth(std::uint32_t n) {
  return Lanx::IntfId("Ethernet" + std::to_string(n));
}
BQ::Group group(std::uint32_t host, double creationTime = 1.0) {
  BQ::Group g;
  g.key = addr(host);
  g.creationTime = creationTime;
  return g;
}
BQ::GroupIntf intf(std::uint32_t host, std::uint32_t n, double lastJoin = 1.0) {
  BQ::GroupIntf r;
  r.key = GroupIntfKey(addr(host), eth(n));
  r.forward = true;
  r.joinState = BQ::GroupIntf::JoinState::joined;
  r.lastJoinReceived = lastJoin;
  return r;
}

// Tables written silently (as a writer's step before its notifications are read), a local Status
// and the reader between them.
struct Rig {
  Kiv::Ptr<BQ::Status> tables = BQ::statusFactory("quarn");
  Kiv::Ptr<Bidir::Status> local = Bidir::statusFactory("local");
  Kiv::Ptr<BQ::GroupQuarnReaderSm> sm = BQ::groupQuarnReaderSmFactory(local, tables);

  void put(BQ::Group const& r) { tables->groupControl().safeWrite(r); }
  void put(BQ::GroupIntf const& r) { tables->groupIntfControl().safeWrite(r); }
  void drop(Lanx::IpGenAddr const& k) { tables->groupControl().safeRemove(k); }
  void drop(GroupIntfKey const& k) { tables->groupIntfControl().safeRemove(k); }
  void notify(Key const& key) {
    if (auto const* g = std::get_if<Lanx::IpGenAddr>(&key)) {
      tables->groupNotify(*g);
    } else {
      tables->groupIntfNotify(std::get<GroupIntfKey>(key));
    }
  }
};

struct GroupQuarnReaderSmTest : ::testing::Test {
  TestSupport::QuarnRoot root;
};

TEST_F(GroupQuarnReaderSmTest, EveryOrderingOfAStepConverges) {
  // Each step: the changes a writer makes in one go, and the keys it notifies.
  struct Step {
    std::function<void(Rig&)> change;
    std::vector<Key> keys;
  };
  auto const k1 = intf(1, 1).key;
  auto const k2 = intf(1, 2).key;
  auto const k3 = intf(1, 3).key;
  std::vector<Step> const steps = {
      {[](Rig& r) {
         r.put(intf(1, 1));
         r.put(intf(1, 2));
         r.put(group(1));
       },
       {addr(1), k1, k2}},
      {[&](Rig& r) {
         r.put(group(1, 2.0));
         r.put(intf(1, 1, 3.0));
         r.drop(k2);
         r.put(intf(1, 3));
       },
       {addr(1), k1, k2, k3}},
      {[&](Rig& r) {
         r.drop(k1);
         r.drop(k3);
         r.drop(addr(1));
       },
       {k1, k3, addr(1)}},
  };
  // For every step, every ordering of its keys, after the earlier steps were read in order.
  for (std::size_t s = 0; s < steps.size(); ++s) {
    std::vector<Key> order = steps[s].keys;
    std::sort(order.begin(), order.end());
    do {
      Rig rig;
      for (std::size_t before = 0; before <= s; ++before) {
        steps[before].change(rig);
        for (Key const& k : before < s ? steps[before].keys : order) rig.notify(k);
      }
      ASSERT_EQ(MirrorTest::mismatch(*rig.local, *rig.tables), "") << "step " << s;
    } while (std::next_permutation(order.begin(), order.end()));
  }

  // An interface heard before its group creates the group from its record first; an interface
  // whose group record is absent creates nothing, not even on a repeated notification.
  Rig rig;
  QuarnTest::TraceCapture trace{"PimBidir::QuarnReader", 4};
  steps[0].change(rig);
  rig.put(intf(2, 1));
  for (Key const& k : {Key(k1), Key(addr(1)), Key(intf(2, 1).key), Key(intf(2, 1).key)}) {
    rig.notify(k);
  }
  EXPECT_EQ(rig.local->group(addr(1))->groupIntfCount(), 1u);  // Ethernet2 was not heard yet
  EXPECT_EQ(rig.local->groupCount(), 1u);
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               "GroupQuarnReaderSm::handleQuarnGroupIntf(), no group: 239.1.1.1 "
                               "for intf Ethernet1",
                               "GroupQuarnReaderSm::handleQuarnGroup(), creating/updating group "
                               "239.1.1.1",
                               "GroupQuarnReaderSm::handleQuarnGroupIntf(), updating group: "
                               "239.1.1.1, intf Ethernet1",
                               "GroupQuarnReaderSm::handleQuarnGroup(), creating/updating group "
                               "239.1.1.1",
                               "GroupQuarnReaderSm::handleQuarnGroupIntf(), no group: 239.1.1.2 "
                               "for intf Ethernet1",
                               "GroupQuarnReaderSm::handleQuarnGroup(), deleting group 239.1.1.2",
                               "GroupQuarnReaderSm::handleQuarnGroupIntf(), ignoring, no group: "
                               "239.1.1.2 for intf Ethernet1",
                               "GroupQuarnReaderSm::handleQuarnGroupIntf(), no group: 239.1.1.2 "
                               "for intf Ethernet1",
                               "GroupQuarnReaderSm::handleQuarnGroup(), deleting group 239.1.1.2",
                               "GroupQuarnReaderSm::handleQuarnGroupIntf(), ignoring, no group: "
                               "239.1.1.2 for intf Ethernet1",
                           }));
  // A later notification brings in what was not heard; a zombie or unregistered reactor hears
  // nothing.
  rig.tables->groupIntfNotify(k2);
  EXPECT_EQ(MirrorTest::mismatch(*rig.local, *rig.tables), "");
  rig.sm->kivDoZombieReactors(true);
  rig.put(group(1, 9.0));
  rig.tables->groupNotify(addr(1));
  rig.sm->kivDoZombieReactors(false);
  rig.sm->hasNotificationActiveIs(false);
  rig.tables->groupNotify(addr(1));
  EXPECT_EQ(rig.local->group(addr(1))->creationTime(), 1.0);
  rig.sm->hasNotificationActiveIs(true);
  rig.tables->groupNotify(addr(1));
  EXPECT_EQ(rig.local->group(addr(1))->creationTime(), 9.0);
}

TEST_F(GroupQuarnReaderSmTest, RandomStepsInRandomOrderConverge) {
  Rig rig;
  std::mt19937 rng(7);
  auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(rng() % n); };
  for (int step = 0; step < 2000; ++step) {
    std::uint32_t const g = 1 + pick(6);
    std::vector<Key> keys;
    bool const present = rig.tables->group(addr(g)) != BQ::Group();
    if (!present || pick(8) == 0) {  // create with interfaces, or delete with them
      for (std::uint32_t i = 1; i <= 4; ++i) {
        if (present) {
          if (rig.tables->groupIntf(intf(g, i).key) == BQ::GroupIntf()) continue;
          rig.drop(intf(g, i).key);
        } else if (pick(2) == 0) {
          rig.put(intf(g, i, step));
        } else {
          continue;
        }
        keys.push_back(intf(g, i).key);
      }
      present ? rig.drop(addr(g)) : rig.put(group(g, step));
      keys.push_back(addr(g));
    } else {  // change the group and some interfaces
      for (std::uint32_t i = 1; i <= 4; ++i) {
        if (pick(3) == 0) continue;
        pick(3) == 0 ? rig.drop(intf(g, i).key) : rig.put(intf(g, i, step));
        keys.push_back(intf(g, i).key);
      }
      if (pick(2) == 0) {
        rig.put(group(g, step));
        keys.push_back(addr(g));
      }
    }
    std::shuffle(keys.begin(), keys.end(), rng);
    for (Key const& k : keys) rig.notify(k);
    ASSERT_EQ(MirrorTest::mismatch(*rig.local, *rig.tables), "") << "step " << step;
  }
}

TEST_F(GroupQuarnReaderSmTest, DamagedTableMakesTheKeyAbsentReportedOnce) {
  auto& activity = Kiv::Activity::current();
  auto writer = BQ::statusFactory("quarn");
  writer->mount(Quarn::QuarnType::writer);
  writer->groupIs(group(1));
  writer->groupIntfIs(intf(1, 1));
  writer->groupIs(group(2));
  auto tables = BQ::statusFactory("quarn");
  tables->groupControl().remountIntervalIs(0.05);
  tables->groupIntfControl().remountIntervalIs(0.05);
  auto local = Bidir::statusFactory("local");
  auto sm = BQ::groupQuarnReaderSmFactory(local, tables);
  // Records already there when the reader attaches reach it as keyed notifications; the group
  // table first, or its interfaces would be ignored (nothing is remembered).
  tables->groupControl().mount(Quarn::QuarnType::reader, tables->writerMountInfo());
  ASSERT_TRUE(TestSupport::runUntil(activity, [&] { return local->groupCount() == 2; }));
  tables->groupIntfControl().mount(Quarn::QuarnType::reader, tables->writerMountInfo());
  ASSERT_TRUE(TestSupport::runUntil(
      activity, [&] { return local->group(addr(1))->groupIntfCount() == 1; }));

  QuarnTest::TraceCapture trace{"Quarn-*", 1};
  QuarnTest::corruptBucket(root.table("group"), addr(1).hash());
  sm->handleQuarnGroup(addr(1));
  EXPECT_FALSE(local->group(addr(1)));
  EXPECT_EQ(local->groupCount(), 1u);
  EXPECT_EQ(trace.count("corruptionDetected"), 1u);
  EXPECT_FALSE(Quarn::Util::fileRead(root.table("group") + "/corruption-detected").empty());
}

}  // namespace
