// Status, Group and GroupIntf: change-only notification, counters, membership and parent
// references.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Bidir/Status.h"
#include "Kiv/Exception.h"

namespace {

using Lanx::IntfId;
using Lanx::IpGenAddr;
using namespace Routing::Pim::Bidir;

// Records every operation heard, as text, for all three entity types.
struct Log {
  std::vector<std::string> lines;
  std::vector<Kiv::AttributeId> exceptions;
  void operator()(std::string line) { lines.push_back(std::move(line)); }
};

class StatusWatcher : public Status::Notifiee {
 public:
  explicit StatusWatcher(Log& log) : log_(log) {}
  bool throwOnInitialized = false;
  void onGroup(IpGenAddr const& a) override { log_("group " + a.toString()); }
  void onRpaRpfStatus() override { log_("rpaRpfStatus"); }
  void onRpHashStatus() override { log_("rpHashStatus"); }
  void onInitialized() override {
    log_("initialized");
    if (throwOnInitialized) throw Kiv::RangeException("handler failed");
  }
  void onNotificationException(Kiv::AttributeId id) override { log_.exceptions.push_back(id); }

 private:
  Log& log_;
};

class GroupWatcher : public Group::Notifiee {
 public:
  explicit GroupWatcher(Log& log) : log_(log) {}
  bool throwOnInactiveCount = false;
  void onCreationTime() override { log_("creationTime"); }
  void onPrevRpf() override { log_("prevRpf"); }
  void onPrevRpaId() override { log_("prevRpaId"); }
  void onUpJoinState() override { log_("upJoinState"); }
  void onGroupIntf(IntfId i) override { log_("groupIntf " + i.name()); }
  void onNeighborGenIdChanged() override { log_("neighborGenIdChanged"); }
  void onRpfChanged() override { log_("rpfChanged"); }
  void onInactiveCount() override {
    log_("inactiveCount");
    if (throwOnInactiveCount) throw std::runtime_error("handler failed");
  }
  void onInactive() override { log_("inactive"); }
  void onInitialized() override { log_("initialized"); }
  void onNotificationException(Kiv::AttributeId id) override { log_.exceptions.push_back(id); }

 private:
  Log& log_;
};

class GroupIntfWatcher : public GroupIntf::Notifiee {
 public:
  explicit GroupIntfWatcher(Log& log) : log_(log) {}
  void onJoinState() override { log_("joinState"); }
  void onLastJoinReceived() override { log_("lastJoinReceived"); }
  void onForward() override { log_("forward"); }
  void onLocalReceiverInclude() override { log_("localReceiverInclude"); }
  void onIAmDf() override { log_("iAmDf"); }
  void onParent() override { log_("parent"); }

 private:
  Log& log_;
};

template <class W, class E>
Kiv::Ptr<W> watch(Log& log, Kiv::Ptr<E> const& entity) {
  Kiv::Ptr<W> w = new W(log);
  w->notifierIs(entity);
  return w;
}

IpGenAddr const g1("239.1.1.1");
IpGenAddr const g2("ff0e::1");

TEST(Status, GroupMembershipIsNotifiedOnceAndAbsentDeletesAreHarmless) {
  Log log;
  auto status = statusFactory("default");
  auto w = watch<StatusWatcher>(log, status);
  auto group = status->groupIs(g1);
  EXPECT_EQ(status->groupIs(g1), group);  // existing: same entity, no notification
  EXPECT_EQ(status->group(g1), group);
  EXPECT_EQ(group->bidirStatus(), status);
  EXPECT_EQ(group->memberAttributeId(), Status::Attr::group);
  EXPECT_EQ(status->groupCount(), 1u);
  status->groupDel(g2);  // absent
  status->groupNotify(g2);
  status->groupDel(g1);
  EXPECT_EQ(log.lines,
            (std::vector<std::string>{"group 239.1.1.1", "group ff0e::1", "group 239.1.1.1"}));
  EXPECT_EQ(group->bidirStatus(), nullptr);
  EXPECT_EQ(status->group(g1), nullptr);
}

TEST(Status, SettersNotifyOnlyOnChangeAndAThrowingWatcherIsToldTheAttribute) {
  Log log;
  auto status = statusFactory("red");
  EXPECT_EQ(status->name(), "red");
  auto throwing = watch<StatusWatcher>(log, status);
  auto quiet = watch<StatusWatcher>(log, status);
  throwing->throwOnInitialized = true;
  status->initializedIs(false);
  EXPECT_TRUE(log.lines.empty());
  status->initializedIs(true);
  EXPECT_EQ(log.lines, (std::vector<std::string>{"initialized", "initialized"}));
  EXPECT_EQ(log.exceptions, std::vector<Kiv::AttributeId>{261});
  EXPECT_TRUE(status->initialized());
  log.lines.clear();

  Kiv::Ptr<Routing::Pim::RpHashStatus const> rpHash = new Routing::Pim::RpHashStatus("rpHash");
  Kiv::Ptr<Df::Quarn::RpaRpfStatus const> rpaRpf = new Df::Quarn::RpaRpfStatus("rpaRpf");
  status->rpHashStatusIs(rpHash);
  status->rpHashStatusIs(rpHash);
  status->rpaRpfStatusIs(rpaRpf);
  status->rpaRpfStatusIs(nullptr);
  EXPECT_EQ(status->rpHashStatus(), rpHash);
  EXPECT_EQ(log.lines.size(), 6u);  // two watchers x three changes
}

TEST(Status, DestroyedStatusRemovesItsGroups) {
  Log log;
  auto status = statusFactory("blue");
  auto group = status->groupIs(g1);
  status->groupIs(g2);
  auto w = watch<GroupWatcher>(log, group);
  status = nullptr;
  EXPECT_EQ(group->bidirStatus(), nullptr);
  EXPECT_EQ(group->references(), 2u);  // ours and the watcher's: the Status let go
}

TEST(Group, ChangeOnlySetters) {
  Log log;
  auto group = groupFactory(g2);
  EXPECT_EQ(group->prevRpf().metricPreference, 1u);

  auto w = watch<GroupWatcher>(log, group);
  group->prevRpfIs(Routing::Pim::Rpf());  // equal to the default: silent
  group->creationTimeIs(0.0);
  group->upJoinStateIs(Group::upNotJoined);
  group->inactiveIs(false);
  EXPECT_TRUE(log.lines.empty());
  Routing::Pim::Rpf rpf;
  rpf.intfId = IntfId("Ethernet3/1");
  group->prevRpfIs(rpf);
  group->prevRpfIs(rpf);
  group->creationTimeIs(12.5);
  group->prevRpaIdIs(7);
  group->upJoinStateIs(Group::upJoined);
  group->inactiveIs(true);
  group->initializedIs(true);
  EXPECT_EQ(log.lines, (std::vector<std::string>{"prevRpf", "creationTime", "prevRpaId",
                                                 "upJoinState", "inactive", "initialized"}));
  EXPECT_THROW(group->upJoinStateIs(static_cast<Group::UpJoinState>(2)), Kiv::RangeException);
  EXPECT_EQ(group->upJoinState(), Group::upJoined);
}

TEST(Group, CountersWrapAndZeroIncrementsAreSilent) {
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
  group->neighborGenIdChangedIs(9);
  group->neighborGenIdChangedIs(9);
  EXPECT_EQ(group->rpfChanged(), 0);
  EXPECT_EQ(log.lines, (std::vector<std::string>{"inactiveCount", "inactiveCount", "rpfChanged",
                                                 "rpfChanged", "neighborGenIdChanged"}));
  // A throwing watcher is told the counter's identifier.
  w->throwOnInactiveCount = true;
  group->inactiveCountInc(1);
  EXPECT_EQ(log.exceptions, std::vector<Kiv::AttributeId>{270});
}

TEST(Group, InterfaceMembersAndTheirParentReference) {
  Log log;
  auto status = statusFactory("v");
  auto group = status->groupIs(g1);
  auto w = watch<GroupWatcher>(log, group);
  auto intf = group->groupIntfIs(IntfId("Ethernet1"));
  auto intfWatch = watch<GroupIntfWatcher>(log, intf);
  EXPECT_EQ(intf->parentGroup(), group);
  EXPECT_EQ(intf->memberAttributeId(), Group::Attr::groupIntf);
  EXPECT_EQ(group->groupIntfIs(IntfId("Ethernet1")), intf);
  group->groupIntfDel(IntfId("Vlan5"));  // absent
  group->groupIntfNotify(IntfId("Vlan5"));
  group->groupIntfDel(IntfId("Ethernet1"));  // the last one
  EXPECT_EQ(intf->parentGroup(), nullptr);
  EXPECT_EQ(status->group(g1), group);  // the group stays in its Status
  EXPECT_EQ(log.lines, (std::vector<std::string>{"groupIntf Ethernet1", "groupIntf Vlan5", "parent",
                                                 "groupIntf Ethernet1"}));
}

TEST(Group, DestroyedGroupRemovesItsInterfaces) {
  auto group = groupFactory(g1);
  auto a = group->groupIntfIs(IntfId("Ethernet1"));
  auto b = group->groupIntfIs(IntfId("Port-Channel10"));
  EXPECT_EQ(group->groupIntfCount(), 2u);
  group = nullptr;
  EXPECT_EQ(a->parentGroup(), nullptr);
  EXPECT_EQ(b->parentGroup(), nullptr);
}

TEST(GroupIntf, ChangeOnlySetters) {
  Log log;
  auto intf = groupIntfFactory(IntfId("Vlan100"));
  auto w = watch<GroupIntfWatcher>(log, intf);
  intf->iAmDfIs(true);
  intf->iAmDfIs(true);
  intf->joinStateIs(GroupIntf::prunePending);
  intf->joinStateIs(GroupIntf::prunePending);
  intf->lastJoinReceivedIs(3.25);
  intf->forwardIs(true);
  intf->localReceiverIncludeIs(true);
  intf->localReceiverIncludeIs(true);
  EXPECT_EQ(log.lines, (std::vector<std::string>{"iAmDf", "joinState", "lastJoinReceived",
                                                 "forward", "localReceiverInclude"}));
  EXPECT_THROW(intf->joinStateIs(static_cast<GroupIntf::JoinState>(3)), Kiv::RangeException);
  EXPECT_EQ(intf->joinState(), GroupIntf::prunePending);
}

}  // namespace
