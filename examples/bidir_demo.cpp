// Builds the Bidir PIM group state of one VRF, watches it, changes it, and prints what the
// watchers hear. Run it with `make demo`.

#include <iostream>

#include "Bidir/Status.h"

namespace {

using Lanx::IntfId;
using Lanx::IpGenAddr;
using namespace Routing::Pim::Bidir;

// Watches the VRF root: groups coming and going, and the initialized flag.
class StatusReactor : public Status::Notifiee {
 public:
  void onGroup(IpGenAddr const& addr) override {
    auto group = notifier()->group(addr);
    std::cout << "  status: group " << addr << (group ? " added or changed" : " removed") << "\n";
  }
  void onInitialized() override {
    std::cout << "  status: initialized = " << notifier()->initialized() << "\n";
  }
};

// Watches one group: its interfaces, join state and counters.
class GroupReactor : public Group::Notifiee {
 public:
  void onGroupIntf(IntfId intf) override {
    std::cout << "  group " << notifier()->groupAddr() << ": interface " << intf
              << (notifier()->groupIntf(intf) ? " present" : " gone") << "\n";
  }
  void onUpJoinState() override {
    std::cout << "  group " << notifier()->groupAddr() << ": upstream "
              << notifier()->upJoinState() << "\n";
  }
  void onRpfChanged() override {
    std::cout << "  group " << notifier()->groupAddr()
              << ": rpfChanged = " << unsigned(notifier()->rpfChanged()) << "\n";
  }
};

// Watches one interface of a group.
class IntfReactor : public GroupIntf::Notifiee {
 public:
  void onJoinState() override {
    std::cout << "  " << notifier()->intfId()
              << ": joinState = " << notifier()->joinState() << "\n";
  }
  void onIAmDf() override {
    std::cout << "  " << notifier()->intfId() << ": iAmDf = " << notifier()->iAmDf() << "\n";
  }
};

void step(char const* what) {
  std::cout << what << "\n";
}

}  // namespace

int main() {
  std::cout << std::boolalpha;
  auto status = statusFactory("default");
  Kiv::Ptr<StatusReactor> statusReactor = new StatusReactor;
  statusReactor->notifierIs(status);

  step("create two groups");
  auto v4 = status->groupIs(IpGenAddr("239.1.1.1"));
  status->groupIs(IpGenAddr("ff0e::1"));

  Kiv::Ptr<GroupReactor> groupReactor = new GroupReactor;
  groupReactor->notifierIs(v4);

  step("add interfaces to 239.1.1.1");
  auto eth1 = v4->groupIntfIs(IntfId("Ethernet1"));
  v4->groupIntfIs(IntfId("Vlan100"));
  Kiv::Ptr<IntfReactor> intfReactor = new IntfReactor;
  intfReactor->notifierIs(eth1);

  step("a downstream join arrives on Ethernet1, where this router is the DF");
  eth1->iAmDfIs(true);
  eth1->joinStateIs(GroupIntf::joined);
  eth1->joinStateIs(GroupIntf::joined);  // unchanged: nobody hears it
  v4->upJoinStateIs(Group::upJoined);

  step("the route toward the RPA changed twice");
  v4->rpfChangedInc(1);
  v4->rpfChangedInc(1);
  v4->rpfChangedInc(0);  // no change: silent

  step("the agent has restored everything");
  status->initializedIs(true);

  step("Vlan100 leaves, then the IPv6 group goes");
  v4->groupIntfDel(IntfId("Vlan100"));
  status->groupDel(IpGenAddr("ff0e::1"));

  std::cout << "VRF " << status->name() << " now holds " << status->groupCount() << " group(s):\n";
  for (auto const& group : std::as_const(*status).groupIter()) {
    std::cout << "  " << group.groupAddr() << " with " << group.groupIntfCount()
              << " interface(s):";
    for (auto const& intf : group.groupIntfIter()) std::cout << " " << intf.intfId();
    std::cout << "\n";
  }
  return 0;
}
