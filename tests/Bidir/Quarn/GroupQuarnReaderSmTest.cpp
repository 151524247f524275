// The group reader: the notifications of a writer's step, delivered in any order, leave the local
// Status equal to the tables, with trace lines telling what happened in which order; a damaged
// table makes a key absent and is reported once.

#include "Bidir/Quarn/GroupQuarnReaderSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <variant>
#include <vector>

#include "Mirror.h"
#include "Quarn/Files.h"
#include "Quarn/QuarnMapFixture.h"
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
BQ::Group group(std::uint32_t host, double creationTime = 1.0) {
  BQ::Group g;
  g.key = addr(host);
  g.creationTime = creationTime;
  return g;
}
BQ::GroupIntf intf(std::uint32_t host, std::uint32_t n, double lastJoin = 1.0) {
  BQ::GroupIntf r;
  r.key = GroupIntfKey(addr(host), Lanx::IntfId("Ethernet" + std::to_string(n)));
  r.forward = true;
  r.lastJoinReceived = lastJoin;
  return r;
}

// Tables written without notifying (a writer's step not yet read), the reader and its Status.
struct Rig {
  Kiv::Ptr<BQ::Status> tables = BQ::statusFactory("quarn");
  Kiv::Ptr<Bidir::Status> local = Bidir::statusFactory("local");
  Kiv::Ptr<BQ::GroupQuarnReaderSm> sm = BQ::groupQuarnReaderSmFactory(local, tables);

  // Writes `r`, or removes its key when `remove`.
  template <class R>
  void put(R const& r, bool remove = false) {
    auto& table = [&]() -> auto& {
      if constexpr (std::is_same_v<R, BQ::Group>) return tables->groupControl();
      else return tables->groupIntfControl();
    }();
    remove ? void(table.safeRemove(r.key)) : void(table.safeWrite(r));
  }
  void notify(Key const& key) {
    if (auto const* g = std::get_if<Lanx::IpGenAddr>(&key)) return tables->groupNotify(*g);
    tables->groupIntfNotify(std::get<GroupIntfKey>(key));
  }
};

struct GroupQuarnReaderSmTest : ::testing::Test {
  TestSupport::QuarnRoot root;
};

TEST_F(GroupQuarnReaderSmTest, EveryOrderingOfAStepConverges) {
  // A group comes with two interfaces; it changes, with one interface changed, one gone and one
  // new; it goes with its interfaces. Each step's keys in every order, after the earlier steps.
  auto const k1 = intf(1, 1).key, k2 = intf(1, 2).key, k3 = intf(1, 3).key;
  std::vector<std::pair<std::function<void(Rig&)>, std::vector<Key>>> const steps = {
      {[](Rig& r) { r.put(intf(1, 1)), r.put(intf(1, 2)), r.put(group(1)); }, {addr(1), k1, k2}},
      {[](Rig& r) { r.put(group(1, 2)), r.put(intf(1, 1, 3)), r.put(intf(1, 2), true),
                    r.put(intf(1, 3)); },
       {addr(1), k1, k2, k3}},
      {[](Rig& r) { r.put(intf(1, 1), true), r.put(intf(1, 3), true), r.put(group(1), true); },
       {k1, k3, addr(1)}},
  };
  for (std::size_t s = 0; s < steps.size(); ++s) {
    std::vector<Key> order = steps[s].second;
    std::sort(order.begin(), order.end());
    do {
      Rig rig;
      for (std::size_t before = 0; before <= s; ++before) {
        steps[before].first(rig);
        for (Key const& k : before < s ? steps[before].second : order) rig.notify(k);
      }
      ASSERT_EQ(MirrorTest::mismatch(*rig.local, *rig.tables), "") << "step " << s;
    } while (std::next_permutation(order.begin(), order.end()));
  }

  // An interface heard before its group creates the group from its record first; one whose group
  // record is absent creates nothing; nothing is remembered of an interface not heard (Ethernet2)
  // until it is.
  Rig rig;
  QuarnTest::TraceCapture trace{"PimBidir::QuarnReader", 4};
  steps[0].first(rig);
  rig.put(intf(2, 1));
  for (Key const& k : {Key(k1), Key(addr(1)), Key(intf(2, 1).key)}) rig.notify(k);
  EXPECT_EQ(rig.local->group(addr(1))->groupIntfCount(), 1u);
  EXPECT_EQ(rig.local->groupCount(), 1u);
  std::string const p = "GroupQuarnReaderSm::handleQuarnGroup";
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               p + "Intf(), no group: 239.1.1.1 for intf Ethernet1",
                               p + "(), creating/updating group 239.1.1.1",
                               p + "Intf(), updating group: 239.1.1.1, intf Ethernet1",
                               p + "(), creating/updating group 239.1.1.1",
                               p + "Intf(), no group: 239.1.1.2 for intf Ethernet1",
                               p + "(), deleting group 239.1.1.2",
                               p + "Intf(), ignoring, no group: 239.1.1.2 for intf Ethernet1",
                           }));
  rig.notify(k2);
  EXPECT_EQ(MirrorTest::mismatch(*rig.local, *rig.tables), "");
}

TEST_F(GroupQuarnReaderSmTest, DamagedTableMakesTheKeyAbsentReportedOnce) {
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
  // Records already there when the reader attaches reach it as keyed notifications: the group
  // table first, or the interfaces of groups not yet seen would be ignored.
  auto& activity = Kiv::Activity::current();
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
