// Status, Group and GroupIntf: every change reports its own attribute, attribute names, change-only
// setters and wrapping counters, membership, parent references and re-entrant lifecycles.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Bidir/Status.h"
#include "Kiv/Exception.h"
#include "support/ChangeReports.h"

namespace {

using Lanx::IntfId;
using Lanx::IpGenAddr;
using Routing::Pim::Rpf;
using namespace Routing::Pim::Bidir;

using namespace TestSupport;

struct StatusWatcher : Watcher<Status::Notifiee> {
  using Watcher::Watcher;
  void onGroup(IpGenAddr const& a) override { log_("group " + a.toString()); }
  void onRpaRpfStatus() override { log_("rpaRpfStatus"); }
  void onRpHashStatus() override { log_("rpHashStatus"); }
  void onInitialized() override { log_("initialized"); }
};

struct GroupWatcher : Watcher<Group::Notifiee> {
  using Watcher::Watcher;
  void onCreationTime() override { log_("creationTime"); }
  void onPrevRpf() override { log_("prevRpf"); }
  void onPrevRpaId() override { log_("prevRpaId"); }
  void onUpJoinState() override { log_("upJoinState"); }
  void onGroupIntf(IntfId i) override { log_("groupIntf " + i.name()); }
  void onNeighborGenIdChanged() override { log_("neighborGenIdChanged"); }
  void onRpfChanged() override { log_("rpfChanged"); }
  void onInactiveCount() override { log_("inactiveCount"); }
  void onInactive() override { log_("inactive"); }
  void onInitialized() override { log_("initialized"); }
};

struct GroupIntfWatcher : Watcher<GroupIntf::Notifiee> {
  using Watcher::Watcher;
  void onJoinState() override { log_("joinState"); }
  void onLastJoinReceived() override { log_("lastJoinReceived"); }
  void onForward() override { log_("forward"); }
  void onLocalReceiverInclude() override { log_("localReceiverInclude"); }
  void onIAmDf() override { log_("iAmDf"); }
};

IpGenAddr const g1("239.1.1.1");
IpGenAddr const g2("ff0e::1");

TEST(Status, EachChangeReportsItsAttribute) {
  using A = Status::Attr;
  Kiv::Ptr<Routing::Pim::RpHashStatus const> rpHash = new Routing::Pim::RpHashStatus("rpHash");
  Kiv::Ptr<Df::Quarn::RpaRpfStatus const> rpaRpf = new Df::Quarn::RpaRpfStatus("rpaRpf");
  std::string const k1 = g1.toString(), k2 = g2.toString();
  expectEachChangeReportsItsAttribute<StatusWatcher>(
      statusFactory("red"),
      std::vector<Change<Status>>{
          {A::group, [](Status& s) { s.groupIs(g1); }, k1},
          {A::group, [](Status& s) { s.groupNotify(g1); }, k1, false},
          {A::group, [](Status& s) { s.newGroup(g1); }, k1, false},  // replaces the member
          {A::group, [](Status& s) { s.groupDel(g1); }, k1},
          // newGroup inserting into an empty slot is silent: the caller announces it.
          {A::group, [](Status& s) { s.newGroup(g2), s.groupDel(s.groupIter().begin()); }, k2,
           false},
          {A::group, [](Status& s) { s.newGroup(g2), s.groupDelAll(); }, k2, false},
          {A::rpaRpfStatus, [&](Status& s) { s.rpaRpfStatusIs(rpaRpf); }},
          {A::rpaRpfStatus, [](Status& s) { s.rpaRpfStatusIs(nullptr); }},
          {A::rpHashStatus, [&](Status& s) { s.rpHashStatusIs(rpHash); }},
          {A::initialized, [](Status& s) { s.initializedIs(true); }},
      });
}

TEST(Group, EachChangeReportsItsAttribute) {
  using A = Group::Attr;
  Rpf rpf;
  rpf.metric = 7;
  expectEachChangeReportsItsAttribute<GroupWatcher>(
      groupFactory(g1),
      std::vector<Change<Group>>{
          {A::creationTime, [](Group& g) { g.creationTimeIs(12.5); }},
          {A::prevRpf, [&](Group& g) { g.prevRpfIs(rpf); }},
          {A::prevRpaId, [](Group& g) { g.prevRpaIdIs(7); }},
          {A::upJoinState, [](Group& g) { g.upJoinStateIs(Group::upJoined); }},
          {A::groupIntf, [](Group& g) { g.groupIntfIs("Ethernet1"); }, "Ethernet1"},
          {A::groupIntf, [](Group& g) { g.groupIntfNotify("Vlan5"); }, "Vlan5", false},
          {A::groupIntf, [](Group& g) { g.newGroupIntf("Ethernet1"); }, "Ethernet1", false},
          {A::groupIntf, [](Group& g) { g.groupIntfDel("Ethernet1"); }, "Ethernet1"},
          {A::groupIntf,
           [](Group& g) { g.newGroupIntf("Vlan5"), g.groupIntfDel(g.groupIntfIter().begin()); },
           "Vlan5", false},
          {A::groupIntf, [](Group& g) { g.newGroupIntf("Vlan5"), g.groupIntfDelAll(); }, "Vlan5",
           false},
          {A::neighborGenIdChanged, [](Group& g) { g.neighborGenIdChangedIs(9); }},
          {A::neighborGenIdChanged, [](Group& g) { g.neighborGenIdChangedInc(1); }, "", false},
          {A::rpfChanged, [](Group& g) { g.rpfChangedIs(9); }},
          {A::rpfChanged, [](Group& g) { g.rpfChangedInc(1); }, "", false},
          {A::inactiveCount, [](Group& g) { g.inactiveCountIs(9); }},
          {A::inactiveCount, [](Group& g) { g.inactiveCountInc(1); }, "", false},
          {A::inactive, [](Group& g) { g.inactiveIs(true); }},
          {A::initialized, [](Group& g) { g.initializedIs(true); }},
      });
}

TEST(GroupIntf, EachChangeReportsItsAttribute) {
  using A = GroupIntf::Attr;
  expectEachChangeReportsItsAttribute<GroupIntfWatcher>(
      groupIntfFactory("Vlan100"),
      std::vector<Change<GroupIntf>>{
          {A::joinState, [](GroupIntf& i) { i.joinStateIs(GroupIntf::prunePending); }},
          {A::lastJoinReceived, [](GroupIntf& i) { i.lastJoinReceivedIs(3.25); }},
          {A::forward, [](GroupIntf& i) { i.forwardIs(true); }},
          {A::localReceiverInclude, [](GroupIntf& i) { i.localReceiverIncludeIs(true); }},
          {A::iAmDf, [](GroupIntf& i) { i.iAmDfIs(true); }},
      });
}

// Every identifier of every type: the framework's below 258, the type's own from 258 in
// declaration order, "unknown" for all others; each name finds its identifier.
TEST(Attributes, EveryIdentifierOfEveryTypeHasItsName) {
  std::vector<std::string> const framework = {"fwkKey",     "name",           "parent",
                                              "version",    "references",     "zeroReferences",
                                              "isNondestructing"};
  struct Type {
    Kiv::Ptr<Kiv::Entity const> entity;
    std::vector<std::string> names;
  };
  Type const types[] = {
      {statusFactory("v"), {"group", "rpaRpfStatus", "rpHashStatus", "initialized"}},
      {groupFactory(g1),
       {"groupAddr", "creationTime", "rpaRpf", "rpf", "prevRpf", "prevRpaId", "rp", "rpaIndex",
        "upJoinState", "groupIntf", "neighborGenIdChanged", "rpfChanged", "inactiveCount",
        "inactive", "initialized", "routeKey", "bidirStatus", "joinDesired"}},
      {groupIntfFactory("Ethernet1"),
       {"intfId", "parentGroup", "joinState", "lastJoinReceived", "forward",
        "localReceiverInclude", "iAmDf", "oList", "pimInclude", "joins"}},
  };
  for (Type const& t : types) {
    Kiv::AttributeTable const& table = t.entity->attributeTable();
    SCOPED_TRACE(std::string(table.typeName));
    std::vector<Kiv::AttributeId> ids;
    for (Kiv::AttributeId id = 0; id < 300; ++id) ids.push_back(id);
    for (Kiv::AttributeId id : {0x10000u, 0xffffffffu}) ids.push_back(id);
    for (Kiv::AttributeId id : ids) {
      std::size_t const own = id - Kiv::kFirstTypeAttributeId;
      std::string const expected = id < framework.size() ? framework[id]
                                   : id >= Kiv::kFirstTypeAttributeId && own < t.names.size()
                                       ? t.names[own]
                                       : "unknown";
      ASSERT_EQ(t.entity->attributeString(id), expected) << id;
    }
    for (std::size_t i = 0; i < t.names.size(); ++i) {
      std::string const& name = t.names[i];
      ASSERT_NE(table.find(name), nullptr) << name;
      EXPECT_EQ(table.find(name)->id, Kiv::kFirstTypeAttributeId + i);
    }
  }
}

// A change of any one field makes a different Rpf, and prevRpfIs notifies it (once).
TEST(Rpf, EqualityAndPrevRpfSeeEveryField) {
  std::function<void(Rpf&)> const changes[] = {
      [](Rpf& r) { r.intfId = IntfId("Ethernet1"); },
      [](Rpf& r) { r.neighbor = IpGenAddr("10.0.0.1"); },
      [](Rpf& r) { r.addr = IpGenAddr("10.0.0.2"); },
      [](Rpf& r) { r.prefix = Lanx::IpGenPrefix("10.0.0.0/8"); },
      [](Rpf& r) { r.metric = 5; },
      [](Rpf& r) { r.metricPreference = 0; },  // the default is 1
  };
  Log log;
  auto group = groupFactory(g1);
  auto w = watch<GroupWatcher>(log, group);
  for (std::size_t i = 0; i < std::size(changes); ++i) {
    Rpf changed;
    changes[i](changed);
    EXPECT_TRUE(changed != Rpf() && !(changed == Rpf())) << i;
    group->prevRpfIs(changed);
    group->prevRpfIs(changed);
    group->prevRpfIs(Rpf());
    EXPECT_EQ(log.lines.size(), 2 * (i + 1)) << i;
  }
}

TEST(Group, CountersWrapAndOutOfRangeStatesAreRefused) {
  Log log;
  auto group = groupFactory(g1);
  auto w = watch<GroupWatcher>(log, group);
  group->inactiveCountIs(255);
  group->inactiveCountInc(1);
  EXPECT_EQ(group->inactiveCount(), 0);
  group->rpfChangedInc(0);
  group->neighborGenIdChangedInc(0);
  group->rpfChangedInc(3);
  group->rpfChangedInc(253);
  EXPECT_EQ(group->rpfChanged(), 0);
  EXPECT_EQ(log.lines,
            (std::vector<std::string>{"inactiveCount", "inactiveCount", "rpfChanged", "rpfChanged"}));
  EXPECT_THROW(group->upJoinStateIs(static_cast<Group::UpJoinState>(2)), Kiv::RangeException);
  EXPECT_EQ(group->upJoinState(), Group::upNotJoined);
  auto intf = groupIntfFactory("Vlan100");
  EXPECT_THROW(intf->joinStateIs(static_cast<GroupIntf::JoinState>(3)), Kiv::RangeException);
  EXPECT_EQ(intf->joinState(), GroupIntf::noInfo);
}

// Members know their parent until removed. While a Status (Group) removes its members on
// destruction, a member's watcher asking a sibling for its parent gets null, never a reference to
// the dying parent. Whichever member is detached first asks the other, which is still a member.
TEST(Status, ParentAccessorsReadNullOnceRemovedOrWhileTheParentIsDestroyed) {
  Log log;
  auto status = statusFactory("v");
  auto group1 = status->groupIs(g1), group2 = status->groupIs(g2);
  auto intf1 = group1->groupIntfIs("Ethernet1"), intf2 = group1->groupIntfIs("Ethernet2");
  EXPECT_EQ(status->groupIs(g1), group1);
  EXPECT_EQ(group1->bidirStatus(), status);
  EXPECT_EQ(intf1->parentGroup(), group1);
  // A removed member forgets its parent; a group's last interface leaving keeps the group.
  auto removed = group2->groupIntfIs("Ethernet9");
  group2->groupIntfDel("Ethernet9");
  EXPECT_EQ(removed->parentGroup(), nullptr);
  EXPECT_EQ(status->group(g2), group2);
  std::vector<Kiv::Ptr<GroupWatcher>> watchers{watch<GroupWatcher>(log, group1),
                                               watch<GroupWatcher>(log, group2)};
  auto intfWatch1 = watch<GroupIntfWatcher>(log, intf1);
  auto intfWatch2 = watch<GroupIntfWatcher>(log, intf2);
  std::vector<bool> nullParents;
  log.react = [&](std::string const&) {
    nullParents.push_back(!group1->bidirStatus() && !group2->bidirStatus());
  };
  status = nullptr;
  log.react = [&](std::string const&) {
    nullParents.push_back(!intf1->parentGroup() && !intf2->parentGroup());
  };
  watchers.clear();
  group1 = nullptr;
  EXPECT_EQ(nullParents, (std::vector<bool>{true, true, true, true}));
}

}  // namespace
