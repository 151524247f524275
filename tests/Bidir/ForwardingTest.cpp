// The RFC 5015 computations of groups and group interfaces, read against an RP hash table and
// an RPA-RPF table that another process publishes, as the PIM and DF election agents would:
// present and absent keys, an absent table, a detached group, damaged table memory, and
// JoinDesired(G) over random groups against a plain model of olist(G) minus
// RPF_interface(RPA(G)).

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Status.h"
#include "Pim/RpHashStatus.h"
#include "Quarn/Fenix.h"
#include "Quarn/Files.h"
#include "Quarn/QuarnMapFixture.h"
#include "support/ActivityWait.h"
#include "support/Children.h"
#include "support/QuarnRoot.h"

namespace {

using namespace Routing::Pim::Bidir;
using Df::Quarn::RpaRpf;
using Df::Quarn::RpaRpfStatus;
using Routing::Pim::RpHash;
using Routing::Pim::RpHashStatus;

constexpr std::uint32_t kGroups = 64;
char const* const kIntfs[] = {"Ethernet1", "Ethernet2", "Ethernet3",
                              "Ethernet4", "Ethernet5", "Ethernet6"};

Lanx::IpGenAddr groupAddr(std::uint32_t i) {
  return Lanx::IpGenAddr::ipv4Addr(0xef020000u + i);
}
Lanx::IpGenAddr rpAddr(std::uint32_t r) {
  return Lanx::IpGenAddr::ipv4Addr(0x0a000000u + r);
}
Lanx::IpGenAddr const v6Group("ff0e::1");
Lanx::IpGenAddr const v6Rp("2001:db8::1");

// Every eighth group has no RP hash record; RP 3 has no RPA-RPF record.
std::vector<RpHash> rpHashRecords() {
  std::vector<RpHash> out;
  for (std::uint32_t i = 0; i < kGroups; ++i) {
    if (i % 8 != 7) out.push_back({Lanx::IpGenPrefix(groupAddr(i)), rpAddr(i % 5)});
  }
  out.push_back({Lanx::IpGenPrefix(v6Group), v6Rp});
  return out;
}
std::vector<RpaRpf> rpaRpfRecords() {
  std::vector<RpaRpf> out;
  for (std::uint32_t r = 0; r < 5; ++r) {
    if (r == 3) continue;
    RpaRpf rec(rpAddr(r));
    rec.rpfInterface = Lanx::IntfId(kIntfs[r]);
    rec.rpf.intfId = rec.rpfInterface;
    rec.rpf.neighbor = Lanx::IpGenAddr::ipv4Addr(0x0a010002u + (r << 8));
    rec.rpf.addr = rpAddr(r);
    rec.rpf.metric = 10 * r;
    rec.rpaIndex = static_cast<std::uint16_t>(r + 1);
    out.push_back(rec);
  }
  return out;
}

// Publishes both tables as their agents would, then serves readers.
int publisherChild(std::string const& rootDir) {
  ::setenv("QUARN_ROOT", rootDir.c_str(), 1);
  auto rpHash = Kiv::newPtr<RpHashStatus>("rpHash");
  auto rpaRpf = Kiv::newPtr<RpaRpfStatus>("rpaRpf");
  rpHash->rpHashControl().init(Quarn::QuarnType::writer, false, 1000);
  rpaRpf->rpaRpfControl().init(Quarn::QuarnType::writer, false, 1000);
  for (auto const& r : rpHashRecords()) rpHash->rpHashIs(r);
  for (auto const& r : rpaRpfRecords()) rpaRpf->rpaRpfIs(r);
  // Nothing may escape the loop, not even the damage a reader reports (the writer recovers from
  // it): an exception ends the publisher with its reason, and the test sees it gone.
  try {
    Kiv::Activity::current().run();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "publisher: %s\n", e.what());
    return 1;
  }
  return 0;
}

[[maybe_unused]] bool const publisherHook =
    TestSupport::childRole("BIDIR_FOREIGN_TABLES", publisherChild);

// RFC 5015 olist(G) minus RPF_interface(RPA(G)) is not empty, from the records directly.
struct Model {
  std::map<Lanx::IpGenAddr, Lanx::IpGenAddr> rpOf;
  std::map<Lanx::IpGenAddr, Lanx::IntfId> rpfInterfaceOf;
  Model() {
    for (auto const& r : rpHashRecords()) rpOf[r.key.address()] = r.rp;
    for (auto const& r : rpaRpfRecords()) rpfInterfaceOf[r.key] = r.rpfInterface;
  }
  struct Intf {
    Lanx::IntfId id;
    bool iAmDf;
    GroupIntf::JoinState joinState;
    bool localReceiver;
    bool oList() const { return iAmDf && (joinState != GroupIntf::noInfo || localReceiver); }
  };
  bool joinDesired(Lanx::IpGenAddr const& group, std::vector<Intf> const& intfs) const {
    Lanx::IntfId rpfInterface;  // no RP or no RPA-RPF record: the default interface
    if (auto rp = rpOf.find(group); rp != rpOf.end()) {
      if (auto it = rpfInterfaceOf.find(rp->second); it != rpfInterfaceOf.end()) {
        rpfInterface = it->second;
      }
    }
    for (auto const& intf : intfs) {
      if (intf.id != rpfInterface && intf.oList()) return true;
    }
    return false;
  }
};

struct ForwardingTest : ::testing::Test {
  TestSupport::QuarnRoot root;
  Kiv::Activity& activity = Kiv::Activity::current();
  Kiv::Ptr<Status> status = statusFactory("vrf1");

  // Reading mounts of the two foreign tables, retrying fast while their writer is absent.
  Kiv::Ptr<RpHashStatus> rpHash = Kiv::newPtr<RpHashStatus>("rpHash");
  Kiv::Ptr<RpaRpfStatus> rpaRpf = Kiv::newPtr<RpaRpfStatus>("rpaRpf");
  void mountReaders() {
    rpHash->rpHashControl().remountIntervalIs(0.05);
    rpaRpf->rpaRpfControl().remountIntervalIs(0.05);
    rpHash->rpHashControl().init(Quarn::QuarnType::reader, false, 0);
    rpaRpf->rpaRpfControl().init(Quarn::QuarnType::reader, false, 0);
  }
};

TEST_F(ForwardingTest, ComputationsReadTheTablesOfAnotherProcess) {
  auto g0 = status->groupIs(groupAddr(0));
  auto intf = g0->groupIntfIs(Lanx::IntfId("Ethernet9"));
  intf->iAmDfIs(true);
  intf->localReceiverIncludeIs(true);

  // No tables referenced: the unset RP, the record of the unset address, and only the default
  // interface excluded.
  EXPECT_EQ(g0->rp(), Lanx::IpGenAddr());
  EXPECT_EQ(g0->rpaRpf(), RpaRpf(Lanx::IpGenAddr()));
  EXPECT_TRUE(g0->joinDesired());

  // Tables referenced but absent (no writer yet): every lookup answers the default record.
  mountReaders();
  status->rpHashStatusIs(rpHash);
  status->rpaRpfStatusIs(rpaRpf);
  EXPECT_EQ(g0->rp(), Lanx::IpGenAddr());
  EXPECT_EQ(g0->rpaRpf(), RpaRpf());

  TestSupport::Children children{"BIDIR_FOREIGN_TABLES"};
  pid_t const publisher = children.spawn(root.path());
  ASSERT_TRUE(TestSupport::runUntil(activity, [&] {
    return rpHash->rpHashControl().members() == kGroups - kGroups / 8 + 1 &&
           rpaRpf->rpaRpfControl().members() == 4;
  }));

  RpaRpf const expected = rpaRpfRecords().front();
  EXPECT_EQ(g0->rp(), rpAddr(0));
  EXPECT_EQ(g0->rpaRpf(), expected);
  EXPECT_EQ(g0->rpf(), expected.rpf);
  EXPECT_EQ(g0->rpaIndex(), 1);
  // The only interested interface is the RPF interface toward the RPA: no join upstream.
  intf->iAmDfIs(false);
  auto onRpf = g0->groupIntfIs(expected.rpfInterface);
  onRpf->iAmDfIs(true);
  onRpf->joinStateIs(GroupIntf::prunePending);
  EXPECT_FALSE(g0->joinDesired());
  intf->iAmDfIs(true);
  EXPECT_TRUE(g0->joinDesired());

  // No RP hash record for the group; no RPA-RPF record for its RP.
  EXPECT_EQ(status->groupIs(groupAddr(7))->rp(), Lanx::IpGenAddr());
  EXPECT_EQ(status->groupIs(groupAddr(7))->rpaRpf(), RpaRpf());
  EXPECT_EQ(status->groupIs(groupAddr(3))->rp(), rpAddr(3));
  EXPECT_EQ(status->groupIs(groupAddr(3))->rpaIndex(), 0);

  auto v6 = status->groupIs(v6Group);
  EXPECT_EQ(v6->rp(), v6Rp);
  EXPECT_EQ(v6->routeKey(), Routing::Pim::RouteKey(Lanx::IpGenAddr("::"), v6Group));
  EXPECT_EQ(status->groupIs(Lanx::IpGenAddr("239.1.1.1"))->routeKey(),
            Routing::Pim::RouteKey(Lanx::IpGenAddr("0.0.0.0"), Lanx::IpGenAddr("239.1.1.1")));

  // A group removed from its Status reads no table.
  status->groupDel(groupAddr(0));
  EXPECT_EQ(g0->rp(), Lanx::IpGenAddr());
  EXPECT_EQ(g0->rpaRpf(), RpaRpf(Lanx::IpGenAddr()));

  // JoinDesired over random groups against the model.
  Model const model;
  std::mt19937 rng(5015);
  for (int round = 0; round < 300; ++round) {
    Lanx::IpGenAddr const addr = groupAddr(rng() % kGroups);
    auto group = status->groupIs(addr);
    std::vector<Model::Intf> intfs;
    for (char const* name : kIntfs) {
      if (rng() % 2) continue;
      Model::Intf m{Lanx::IntfId(name), rng() % 3 != 0, GroupIntf::JoinStateInstance(rng() % 3),
                    rng() % 4 == 0};
      auto member = group->groupIntfIs(m.id);
      member->iAmDfIs(m.iAmDf);
      member->joinStateIs(m.joinState);
      member->localReceiverIncludeIs(m.localReceiver);
      ASSERT_EQ(member->oList(), m.oList());
      intfs.push_back(m);
    }
    ASSERT_EQ(group->joinDesired(), model.joinDesired(addr, intfs)) << addr << " round " << round;
    status->groupDel(addr);
  }

  // Damaged memory: the reader reports it to the table's writer and answers the default record;
  // the writer starts a new incarnation and goes on serving.
  auto g1 = status->groupIs(groupAddr(1));
  ASSERT_EQ(g1->rpaIndex(), 2);
  std::uint32_t const fenix = Quarn::FenixFile::read(root.table("rpaRpf"));
  QuarnTest::corruptBucket(root.table("rpaRpf"), rpAddr(1).hash());
  EXPECT_EQ(g1->rpaRpf(), RpaRpf());
  EXPECT_FALSE(Quarn::Util::fileRead(root.table("rpaRpf") + "/corruption-detected").empty());
  EXPECT_EQ(g1->rp(), rpAddr(1));
  EXPECT_TRUE(TestSupport::runUntil(
      activity, [&] { return Quarn::FenixFile::read(root.table("rpaRpf")) != fenix; }));
  int waitStatus = 0;
  EXPECT_FALSE(children.exited(publisher, &waitStatus))
      << "publisher ended, wait status " << waitStatus;
}

}  // namespace
