#pragma once
// Group: the state of one Bidir PIM multicast group in one VRF, a member of its Status' `group`
// collection keyed by group address. It owns its per-interface state (`groupIntf`, keyed by
// interface, map order by the bit-reversed interface hash) and removes those members when it is
// destroyed. Setters store and notify only on a change; the three 8-bit counters wrap modulo 256
// and an increment that leaves the value unchanged is silent.

#include <cstdint>
#include <tuple>

#include "Bidir/Df/RpaRpf.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/States.h"
#include "Kiv/Collection.h"
#include "Kiv/Entity.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"
#include "Pim/RouteKey.h"
#include "Pim/Rpf.h"

namespace Routing::Pim::Bidir {

class Status;

class Group : public Kiv::Entity, public GroupStates {
 public:
  struct Attr {
    enum : Kiv::AttributeId {
      groupAddr = Kiv::kFirstTypeAttributeId,
      creationTime,
      rpaRpf,
      rpf,
      prevRpf,
      prevRpaId,
      rp,
      rpaIndex,
      upJoinState,
      groupIntf,
      neighborGenIdChanged,
      rpfChanged,
      inactiveCount,
      inactive,
      initialized,
      routeKey,
      bidirStatus,
      joinDesired,
    };
  };

  class NotifieeConst : public Kiv::NotifieeConstOf<Group, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onCreationTime() {}
    virtual void onPrevRpf() {}
    virtual void onPrevRpaId() {}
    virtual void onUpJoinState() {}
    virtual void onGroupIntf(Lanx::IntfId) {}
    virtual void onGroupIntfkivImmediate() {}
    virtual void onGroupIntf() {}
    virtual void onNeighborGenIdChanged() {}
    virtual void onRpfChanged() {}
    virtual void onInactiveCount() {}
    virtual void onInactive() {}
    virtual void onInitialized() {}
  };
  using Notifiee = Kiv::NotifieeOf<Group, NotifieeConst>;

 private:
  using GroupIntfColl = Kiv::Collection<Lanx::IntfId, GroupIntf, Kiv::BitReversedHash<Lanx::IntfId>,
                                        void (NotifieeConst::*)(Lanx::IntfId)>;

 public:
  using GroupIntfIterator = GroupIntfColl::Iterator;
  using GroupIntfIteratorConst = GroupIntfColl::IteratorConst;

  explicit Group(Lanx::IpGenAddr const& groupAddr) : groupAddr_(groupAddr) {}
  ~Group() override;

  Lanx::IpGenAddr const& groupAddr() const noexcept { return groupAddr_; }
  Lanx::IpGenAddr const& fwkKey() const noexcept { return groupAddr_; }
  // The Status that holds this group; null once it has been removed.
  Kiv::Ptr<Status> bidirStatus() const;

  // Computed on every call from this group, its interfaces and the two tables its Status refers
  // to (the RP hash table and the DF election's RPA-RPF table); nothing is cached or notified.
  // A table whose memory is found corrupt is told so and answers its default record: these never
  // throw CorruptionDetectedException. Other exceptions of a table pass through.
  //
  // The RP of the group: the RP hash record of the group's host prefix (the default record's RP,
  // unset, when the prefix is absent, the table is not set or the group has no Status).
  Lanx::IpGenAddr rp() const;
  // A copy of the RPA-RPF record of rp(); the record of the unset address when the group has no
  // Status or the Status has no RPA-RPF table; the table's default record when rp() is absent.
  Df::Quarn::RpaRpf rpaRpf() const;
  Routing::Pim::Rpf rpf() const { return rpaRpf().rpf; }
  std::uint16_t rpaIndex() const { return rpaRpf().rpaIndex; }
  // The (*, G) route: the unspecified source of the group's family, and the group.
  Routing::Pim::RouteKey routeKey() const;
  // RFC 5015 JoinDesired(G): olist(G) minus RPF_interface(RPA(G)) is not empty. Walks the
  // interfaces in map order, evaluating rpaRpf() afresh for each one examined, and stops at the
  // first interface that is not the RPF interface and has oList() true.
  bool joinDesired() const;

  double creationTime() const noexcept { return creationTime_; }
  void creationTimeIs(double const& v) {
    attributeIs(creationTime_, v, Attr::creationTime, &NotifieeConst::onCreationTime);
  }
  Routing::Pim::Rpf const& prevRpf() const noexcept { return prevRpf_; }
  void prevRpfIs(Routing::Pim::Rpf const& v) {
    attributeIs(prevRpf_, v, Attr::prevRpf, &NotifieeConst::onPrevRpf);
  }
  std::uint16_t prevRpaId() const noexcept { return prevRpaId_; }
  void prevRpaIdIs(std::uint16_t v) {
    attributeIs(prevRpaId_, v, Attr::prevRpaId, &NotifieeConst::onPrevRpaId);
  }
  UpJoinState upJoinState() const noexcept { return upJoinState_; }
  void upJoinStateIs(UpJoinState v) {
    attributeIs(upJoinState_, UpJoinStateInstance(v), Attr::upJoinState,
                &NotifieeConst::onUpJoinState);
  }

  Kiv::Ptr<GroupIntf> groupIntf(Lanx::IntfId intfId) { return groupIntfs_.member(intfId); }
  Kiv::Ptr<GroupIntf const> groupIntf(Lanx::IntfId intfId) const {
    return groupIntfs_.member(intfId);
  }
  Kiv::Ptr<GroupIntf> groupIntfIs(Lanx::IntfId intfId) { return groupIntfs_.memberIs(intfId); }
  Kiv::Ptr<GroupIntf> newGroupIntf(Lanx::IntfId intfId) { return groupIntfs_.newMember(intfId); }
  void groupIntfDel(Lanx::IntfId intfId) { groupIntfs_.memberDel(intfId); }
  void groupIntfDel(GroupIntfIterator it) { groupIntfs_.memberDel(it); }
  void groupIntfDelAll() { groupIntfs_.memberDelAll(); }
  void groupIntfNotify(Lanx::IntfId intfId) const { groupIntfs_.memberNotify(intfId); }
  std::size_t groupIntfCount() const noexcept { return groupIntfs_.size(); }
  Kiv::IteratorRange<GroupIntfIterator> groupIntfIter() { return groupIntfs_.range(); }
  Kiv::IteratorRange<GroupIntfIteratorConst> groupIntfIter() const { return groupIntfs_.range(); }

  std::uint8_t neighborGenIdChanged() const noexcept { return neighborGenIdChanged_; }
  void neighborGenIdChangedIs(std::uint8_t v) {
    attributeIs(neighborGenIdChanged_, v, Attr::neighborGenIdChanged,
                &NotifieeConst::onNeighborGenIdChanged);
  }
  void neighborGenIdChangedInc(std::uint8_t inc) {
    counterInc(neighborGenIdChanged_, inc, Attr::neighborGenIdChanged,
               &NotifieeConst::onNeighborGenIdChanged);
  }
  std::uint8_t rpfChanged() const noexcept { return rpfChanged_; }
  void rpfChangedIs(std::uint8_t v) {
    attributeIs(rpfChanged_, v, Attr::rpfChanged, &NotifieeConst::onRpfChanged);
  }
  void rpfChangedInc(std::uint8_t inc) {
    counterInc(rpfChanged_, inc, Attr::rpfChanged, &NotifieeConst::onRpfChanged);
  }
  std::uint8_t inactiveCount() const noexcept { return inactiveCount_; }
  void inactiveCountIs(std::uint8_t v) {
    attributeIs(inactiveCount_, v, Attr::inactiveCount, &NotifieeConst::onInactiveCount);
  }
  void inactiveCountInc(std::uint8_t inc) {
    counterInc(inactiveCount_, inc, Attr::inactiveCount, &NotifieeConst::onInactiveCount);
  }
  bool inactive() const noexcept { return inactive_; }
  void inactiveIs(bool v) { attributeIs(inactive_, v, Attr::inactive, &NotifieeConst::onInactive); }
  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool v) {
    attributeIs(initialized_, v, Attr::initialized, &NotifieeConst::onInitialized);
  }

  // The attribute declaration: names, identifiers, types and kinds, and how each is read and
  // written. attributeString, introspection and the generic attribute operation follow it. A
  // template only so that its body is compiled where it is used: a parent reference needs the
  // parent's complete type, which this header cannot include.
  template <class G = Group>
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    return std::tuple{
        Kiv::property<&G::groupAddr>("groupAddr", Attr::groupAddr, "Lanx::IpGenAddr", Kind::key),
        Kiv::property<&G::creationTime, &G::creationTimeIs>("creationTime", Attr::creationTime,
                                                            "F64"),
        Kiv::property<&G::rpaRpf>("rpaRpf", Attr::rpaRpf, "Routing::Pim::Bidir::Df::Quarn::RpaRpf",
                                  Kind::computed),
        Kiv::property<&G::rpf>("rpf", Attr::rpf, "Routing::Pim::Rpf", Kind::computedInline),
        Kiv::property<&G::prevRpf, &G::prevRpfIs>("prevRpf", Attr::prevRpf, "Routing::Pim::Rpf"),
        Kiv::property<&G::prevRpaId, &G::prevRpaIdIs>("prevRpaId", Attr::prevRpaId, "U16"),
        Kiv::property<&G::rp>("rp", Attr::rp, "Lanx::IpGenAddr", Kind::computed),
        Kiv::property<&G::rpaIndex>("rpaIndex", Attr::rpaIndex, "U16", Kind::computedInline),
        Kiv::property<&G::upJoinState, &G::upJoinStateIs>(
            "upJoinState", Attr::upJoinState, "Routing::Pim::Bidir::Group::UpJoinState"),
        Kiv::collection<&G::groupIntfCount>(
            "groupIntf", Attr::groupIntf, "Routing::Pim::Bidir::GroupIntf", "intfId",
            "Lanx::IntfId", [](Group const& g, Lanx::IntfId const& k) { return g.groupIntf(k); }),
        Kiv::property<&G::neighborGenIdChanged, &G::neighborGenIdChangedIs>(
            "neighborGenIdChanged", Attr::neighborGenIdChanged, "U8", Kind::counter),
        Kiv::property<&G::rpfChanged, &G::rpfChangedIs>("rpfChanged", Attr::rpfChanged, "U8",
                                                        Kind::counter),
        Kiv::property<&G::inactiveCount, &G::inactiveCountIs>("inactiveCount", Attr::inactiveCount,
                                                              "U8", Kind::counter),
        Kiv::property<&G::inactive, &G::inactiveIs>("inactive", Attr::inactive, "Bool"),
        Kiv::property<&G::initialized, &G::initializedIs>("initialized", Attr::initialized, "Bool"),
        Kiv::property<&G::routeKey>("routeKey", Attr::routeKey, "Routing::Pim::RouteKey",
                                    Kind::computed),
        Kiv::property<&G::bidirStatus>("bidirStatus", Attr::bidirStatus,
                                       "Routing::Pim::Bidir::Status", Kind::parentReference),
        Kiv::property<&G::joinDesired>("joinDesired", Attr::joinDesired, "Bool", Kind::computed),
        Kiv::property<&G::fwkKey>("fwkKey", fwkKeyId, "Lanx::IpGenAddr", Kind::key),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  Status const* statusOf() const noexcept;

  Lanx::IpGenAddr const groupAddr_;
  double creationTime_ = 0.0;
  Routing::Pim::Rpf prevRpf_;
  std::uint16_t prevRpaId_ = 0;
  UpJoinState upJoinState_ = upNotJoined;
  GroupIntfColl groupIntfs_{*this, Attr::groupIntf, &NotifieeConst::onGroupIntf};
  std::uint8_t neighborGenIdChanged_ = 0;
  std::uint8_t rpfChanged_ = 0;
  std::uint8_t inactiveCount_ = 0;
  bool inactive_ = false;
  bool initialized_ = false;
};

Kiv::Ptr<Group> groupFactory(Lanx::IpGenAddr const& groupAddr);

}  // namespace Routing::Pim::Bidir
