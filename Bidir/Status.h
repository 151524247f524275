#pragma once
// Status: the root of the Bidir PIM group state of one VRF. It owns the groups (`group`, keyed by
// group address, map order by the bit-reversed address hash) and removes them when it is
// destroyed, and it refers to the two tables other agents publish that the group computations
// read: the RP hash table and the DF election's RPA-RPF table. `initialized` is set by the agent
// once the state is complete; the table export waits for it. Setters notify only on a change.

#include <tuple>

#include "Bidir/Df/RpaRpfStatus.h"
#include "Bidir/Group.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Lanx/IpGenAddr.h"
#include "Pim/RpHashStatus.h"

namespace Routing::Pim::Bidir {

class Status : public Kiv::Entity {
 public:
  struct Attr {
    enum : Kiv::AttributeId {
      group = Kiv::kFirstTypeAttributeId,
      rpaRpfStatus,
      rpHashStatus,
      initialized,
    };
  };

  class NotifieeConst : public Kiv::NotifieeConstOf<Status, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onGroup(Lanx::IpGenAddr const&) {}
    virtual void onGroupkivImmediate() {}
    virtual void onGroup() {}
    virtual void onRpaRpfStatus() {}
    virtual void onRpHashStatus() {}
    virtual void onInitialized() {}
  };
  using Notifiee = Kiv::NotifieeOf<Status, NotifieeConst>;

  using RpaRpfStatusPtr = Kiv::Ptr<Df::Quarn::RpaRpfStatus const>;
  using RpHashStatusPtr = Kiv::Ptr<Routing::Pim::RpHashStatus const>;

 private:
  using GroupColl = Kiv::Collection<Lanx::IpGenAddr, Group, Kiv::BitReversedHash<Lanx::IpGenAddr>,
                                    void (NotifieeConst::*)(Lanx::IpGenAddr const&)>;

 public:
  using GroupIterator = GroupColl::Iterator;
  using GroupIteratorConst = GroupColl::IteratorConst;

  explicit Status(Kiv::Name name) : Kiv::Entity(std::move(name)) {}
  ~Status() override;

  Kiv::Ptr<Group> group(Lanx::IpGenAddr const& addr) { return groups_.member(addr); }
  Kiv::Ptr<Group const> group(Lanx::IpGenAddr const& addr) const { return groups_.member(addr); }
  Kiv::Ptr<Group> groupIs(Lanx::IpGenAddr const& addr) { return groups_.memberIs(addr); }
  Kiv::Ptr<Group> newGroup(Lanx::IpGenAddr const& addr) { return groups_.newMember(addr); }
  void groupDel(Lanx::IpGenAddr const& addr) { groups_.memberDel(addr); }
  void groupDel(GroupIterator it) { groups_.memberDel(it); }
  void groupDelAll() { groups_.memberDelAll(); }
  void groupNotify(Lanx::IpGenAddr const& addr) const { groups_.memberNotify(addr); }
  std::size_t groupCount() const noexcept { return groups_.size(); }
  Kiv::IteratorRange<GroupIterator> groupIter() { return groups_.range(); }
  Kiv::IteratorRange<GroupIteratorConst> groupIter() const { return groups_.range(); }

  RpaRpfStatusPtr const& rpaRpfStatus() const noexcept { return rpaRpfStatus_; }
  void rpaRpfStatusIs(RpaRpfStatusPtr const& v) {
    attributeIs(rpaRpfStatus_, v, Attr::rpaRpfStatus, &NotifieeConst::onRpaRpfStatus);
  }
  RpHashStatusPtr const& rpHashStatus() const noexcept { return rpHashStatus_; }
  void rpHashStatusIs(RpHashStatusPtr const& v) {
    attributeIs(rpHashStatus_, v, Attr::rpHashStatus, &NotifieeConst::onRpHashStatus);
  }
  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool v) {
    attributeIs(initialized_, v, Attr::initialized, &NotifieeConst::onInitialized);
  }

  // The attribute declaration: names, identifiers, types and kinds, and how each is read and
  // written. attributeString, introspection and the generic attribute operation follow it.
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    using S = Status;
    return std::tuple{
        Kiv::collection<&S::groupCount>(
            "group", Attr::group, "Routing::Pim::Bidir::Group", "groupAddr", "Lanx::IpGenAddr",
            [](Status const& s, Lanx::IpGenAddr const& k) { return s.group(k); }),
        Kiv::property<&S::rpaRpfStatus, &S::rpaRpfStatusIs>(
            "rpaRpfStatus", Attr::rpaRpfStatus, "Routing::Pim::Bidir::Df::Quarn::RpaRpfStatus",
            Kind::settableReference),
        Kiv::property<&S::rpHashStatus, &S::rpHashStatusIs>("rpHashStatus", Attr::rpHashStatus,
                                                            "Routing::Pim::RpHashStatus",
                                                            Kind::settableReference),
        Kiv::property<&S::initialized, &S::initializedIs>("initialized", Attr::initialized, "Bool"),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  GroupColl groups_{*this, Attr::group, &NotifieeConst::onGroup};
  RpaRpfStatusPtr rpaRpfStatus_;
  RpHashStatusPtr rpHashStatus_;
  bool initialized_ = false;
};

Kiv::Ptr<Status> statusFactory(Kiv::Name name);

}  // namespace Routing::Pim::Bidir
