// The table root: its table operations and their notifications, corruption turning writes into
// "no man's land" failures, and a writer written locally, then mounted, read by a reader table
// root in another process.

#include "Bidir/Quarn/Status.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Quarn/Files.h"
#include "Quarn/QuarnMapFixture.h"
#include "support/ActivityWait.h"
#include "support/Children.h"
#include "support/QuarnRoot.h"

namespace {

namespace BQ = Routing::Pim::Bidir::Quarn;
using Routing::Pim::Bidir::GroupIntfKey;
using QuarnTest::failure;

Lanx::IpGenAddr addr(std::uint32_t host) {
  return Lanx::IpGenAddr::ipv4Addr(0xef010100u + host);
}
BQ::Group group(std::uint32_t host, double creationTime = 1.0, bool inactive = false) {
  BQ::Group g;
  g.key = addr(host);
  g.creationTime = creationTime;
  g.inactive = inactive;
  return g;
}
GroupIntfKey intfKey(std::uint32_t host, char const* intf) {
  return GroupIntfKey(addr(host), Lanx::IntfId(intf));
}
BQ::GroupIntf groupIntf(std::uint32_t host, char const* intf, bool forward = true) {
  BQ::GroupIntf g;
  g.key = intfKey(host, intf);
  g.forward = forward;
  g.joinState = BQ::GroupIntf::JoinState::joined;
  return g;
}

// Hears the keyed notifications of a table root, counted per key.
struct Listener : BQ::Status::Notifiee {
  std::map<Lanx::IpGenAddr, int> groups;
  std::map<GroupIntfKey, int> groupIntfs;
  void onGroup(Lanx::IpGenAddr const& key) override { ++groups[key]; }
  void onGroupIntf(GroupIntfKey const& key) override { ++groupIntfs[key]; }
  int heard() const {
    int n = 0;
    for (auto const& [k, c] : groups) n += c;
    for (auto const& [k, c] : groupIntfs) n += c;
    return n;
  }
};

Kiv::Ptr<Listener> listen(Kiv::Ptr<BQ::Status> const& status) {
  auto l = Kiv::newPtr<Listener>();
  l->notifierIs(status);
  return l;
}

struct QuarnStatusTest : ::testing::Test {
  TestSupport::QuarnRoot root;
};

TEST_F(QuarnStatusTest, TableOperationsNotifyOnlyWhatChanged) {
  auto status = BQ::statusFactory("quarn");
  auto listener = listen(status);

  // newGroup writes silently; groupIs writes and notifies, also when the record is unchanged.
  status->newGroup(group(1));
  EXPECT_EQ(status->group(addr(1)), group(1));
  EXPECT_EQ(listener->heard(), 0);
  status->groupIs(group(1));
  status->groupIs(group(1));
  EXPECT_EQ(listener->groups[addr(1)], 2);

  // A direct write is published by groupCommit, which notifies its key.
  BQ::Status::GroupWrapper* direct = status->groupControl().directWrite(addr(2));
  direct->creationTime = 7.0;
  status->groupCommit(direct);
  EXPECT_EQ(status->group(addr(2)), group(2, 7.0));
  EXPECT_EQ(listener->groups[addr(2)], 1);

  // Removing an absent key answers a default record and notifies nobody.
  EXPECT_EQ(status->groupDel(addr(9)), BQ::Group());
  EXPECT_EQ(listener->groups.count(addr(9)), 0u);
  EXPECT_EQ(status->groupDel(addr(1)), group(1));
  EXPECT_EQ(listener->groups[addr(1)], 3);

  // Iteration from a key starts at that key, or after it when it is absent.
  for (std::uint32_t i = 10; i < 20; ++i) status->groupIs(group(i));
  std::vector<Lanx::IpGenAddr> order;
  for (auto it = status->groupIterator(); it; ++it) order.push_back(it.key());
  ASSERT_EQ(order.size(), 11u);
  status->groupDel(order[4]);
  EXPECT_EQ(status->groupIterator(order[4]).key(), order[5]);

  // groupDelAll notifies every key once.
  listener->groups.clear();
  status->groupDelAll();
  EXPECT_EQ(status->groupCount(), 0u);
  EXPECT_EQ(listener->groups.size(), 10u);
  for (auto const& [key, count] : listener->groups) EXPECT_EQ(count, 1) << key;
}

// The write that meets corruption fails and notifies nobody; the table is then re-formatted with
// the records it could trust, so the next writes succeed and notify.
TEST_F(QuarnStatusTest, CorruptTableFailsTheWriteThenRecovers) {
  auto status = BQ::statusFactory("quarn");
  status->mount(Quarn::QuarnType::writer);
  status->groupIs(group(1));
  auto listener = listen(status);
  QuarnTest::corruptBucket(root.table("group"), addr(2).hash());

  EXPECT_EQ(failure<Jorv::RuntimeException>([&] { status->groupIs(group(2)); }),
            "QuarnMap::safeWrite() in no man's land");
  EXPECT_EQ(listener->heard(), 0);
  EXPECT_TRUE(status->groupControl().validate());
  EXPECT_EQ(status->group(addr(1)), group(1));
  EXPECT_EQ(status->group(addr(2)), BQ::Group());
  status->groupIs(group(2));
  EXPECT_EQ(status->group(addr(2)), group(2));
  EXPECT_EQ(listener->heard(), 1);
}

// ---- a reader table root in another process

// Phase A (written before the reader exists): local records, then mounted and extended; phase B
// (while the reader listens): one change per key. A marker group ends each phase.
Lanx::IpGenAddr const markerA = addr(200);
Lanx::IpGenAddr const markerB = addr(201);

// The reader's verdict, in <root>/verdict: "ok" or what went wrong.
int readerChild(std::string const& rootDir) {
  ::setenv("QUARN_ROOT", rootDir.c_str(), 1);
  auto& activity = Kiv::Activity::current();
  auto status = BQ::statusFactory("quarn");
  auto listener = listen(status);
  status->groupControl().remountIntervalIs(0.05);
  status->groupIntfControl().remountIntervalIs(0.05);
  // A shadow keeps a private copy, so it reports removals even when the writer reused the slot
  // before this reader got there (a direct reader would see only the new key).
  status->mount(Quarn::QuarnType::shadow);
  std::string verdict;
  auto expect = [&](bool ok, std::string const& what) {
    if (!ok && verdict.empty()) verdict = what;
  };
  auto once = [&](auto const& counts, auto const& keys, std::string const& phase) {
    expect(counts.size() == keys.size(), phase + ": heard other keys");
    for (auto const& key : keys) {
      auto it = counts.find(key);
      expect(it != counts.end() && it->second == 1, phase + ": not heard exactly once");
    }
  };

  bool ok = TestSupport::runUntil(activity, [&] {
    return listener->groups.count(markerA) && status->groupIntfCount() == 3;
  });
  expect(ok, "phase A not seen");
  once(listener->groups, std::vector{addr(1), addr(2), addr(3), addr(4), markerA}, "A groups");
  once(listener->groupIntfs,
       std::vector{intfKey(1, "Ethernet1"), intfKey(1, "Ethernet2"), intfKey(4, "Vlan10")},
       "A groupIntfs");
  expect(status->group(addr(1)) == group(1, 2.0), "A: group 1 not updated");
  listener->groups.clear();
  listener->groupIntfs.clear();
  Quarn::Util::fileWriteAtomic(rootDir + "/ready", "ready");

  ok = TestSupport::runUntil(activity, [&] {
    return listener->groups.count(markerB) && listener->groupIntfs.size() == 2;
  });
  expect(ok, "phase B not seen: " + status->groupControl().mountStatus());
  once(listener->groups, std::vector{addr(2), addr(3), markerB}, "B groups");
  once(listener->groupIntfs, std::vector{intfKey(1, "Ethernet1"), intfKey(5, "Vlan20")},
       "B groupIntfs");
  expect(status->group(addr(2)) == group(2, 1.0, true), "B: group 2 not updated");
  expect(status->group(addr(3)) == BQ::Group() && status->groupCount() == 5, "B: group 3 left");
  expect(status->groupIntf(intfKey(1, "Ethernet1")) == BQ::GroupIntf(), "B: interface left");
  Quarn::Util::fileWriteAtomic(rootDir + "/verdict", verdict.empty() ? "ok" : verdict);
  activity.run();
  return 0;
}

[[maybe_unused]] bool const readerHook =
    TestSupport::childRole("QUARN_STATUS_READER", readerChild);

TEST_F(QuarnStatusTest, LocalThenMountedWriterIsReadByAnotherProcess) {
  auto& activity = Kiv::Activity::current();
  auto status = BQ::statusFactory("quarn");
  for (std::uint32_t i = 1; i <= 3; ++i) status->groupIs(group(i));
  status->groupIntfIs(groupIntf(1, "Ethernet1"));
  status->groupIntfIs(groupIntf(1, "Ethernet2"));
  status->mount(Quarn::QuarnType::writer);
  status->groupIs(group(4));
  status->groupIs(group(1, 2.0));
  status->groupIntfIs(groupIntf(4, "Vlan10"));
  status->groupIs(group(200));

  TestSupport::Children children{"QUARN_STATUS_READER"};
  children.spawn(root.path());
  ASSERT_TRUE(TestSupport::runUntil(
      activity, [&] { return !Quarn::Util::fileRead(root.path() + "/ready").empty(); }, 30));

  status->groupIs(group(2, 1.0, true));
  status->groupDel(addr(3));
  status->groupIntfDel(intfKey(1, "Ethernet1"));
  status->groupIntfIs(groupIntf(5, "Vlan20"));
  status->groupIs(group(201));
  std::string verdict;
  ASSERT_TRUE(TestSupport::runUntil(
      activity, [&] { return !(verdict = Quarn::Util::fileRead(root.path() + "/verdict")).empty(); },
      30));
  EXPECT_EQ(verdict, "ok");
}

}  // namespace
