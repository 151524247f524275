#pragma once
// GroupIntf: the state of one Bidir PIM group on one interface, a member of its Group's
// `groupIntf` collection keyed by interface. The agent drives the RFC 5015 downstream state
// (`joinState`); this entity stores it and tells its notifiees of each change. Setters store and
// notify only when the value differs from the stored one.

#include <tuple>

#include "Bidir/States.h"
#include "Kiv/Entity.h"
#include "Lanx/IntfId.h"

namespace Routing::Pim::Bidir {

class Group;

class GroupIntf : public Kiv::Entity, public GroupIntfStates {
 public:
  struct Attr {
    enum : Kiv::AttributeId {
      intfId = Kiv::kFirstTypeAttributeId,
      parentGroup,
      joinState,
      lastJoinReceived,
      forward,
      localReceiverInclude,
      iAmDf,
      oList,
      pimInclude,
      joins,
    };
  };

  class NotifieeConst : public Kiv::NotifieeConstOf<GroupIntf, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onJoinState() {}
    virtual void onLastJoinReceived() {}
    virtual void onForward() {}
    virtual void onLocalReceiverInclude() {}
    virtual void onIAmDf() {}
  };
  using Notifiee = Kiv::NotifieeOf<GroupIntf, NotifieeConst>;

  explicit GroupIntf(Lanx::IntfId intfId) : intfId_(intfId) {}

  Lanx::IntfId intfId() const noexcept { return intfId_; }
  Lanx::IntfId fwkKey() const noexcept { return intfId_; }
  // The Group that holds this member; null once it has been removed.
  Kiv::Ptr<Group> parentGroup() const;

  JoinState joinState() const noexcept { return joinState_; }
  void joinStateIs(JoinState v) {
    attributeIs(joinState_, JoinStateInstance(v), Attr::joinState, &NotifieeConst::onJoinState);
  }
  double lastJoinReceived() const noexcept { return lastJoinReceived_; }
  void lastJoinReceivedIs(double const& v) {
    attributeIs(lastJoinReceived_, v, Attr::lastJoinReceived, &NotifieeConst::onLastJoinReceived);
  }
  bool forward() const noexcept { return forward_; }
  void forwardIs(bool v) { attributeIs(forward_, v, Attr::forward, &NotifieeConst::onForward); }
  bool localReceiverInclude() const noexcept { return localReceiverInclude_; }
  void localReceiverIncludeIs(bool v) {
    attributeIs(localReceiverInclude_, v, Attr::localReceiverInclude,
                &NotifieeConst::onLocalReceiverInclude);
  }
  bool iAmDf() const noexcept { return iAmDf_; }
  void iAmDfIs(bool v) { attributeIs(iAmDf_, v, Attr::iAmDf, &NotifieeConst::onIAmDf); }

  // RFC 5015 macros restricted to this interface, computed on every call. Only the DF of the
  // interface forwards there: with iAmDf false all three are false.
  // joins(G): joined or prunePending (a pending prune still counts until it takes effect).
  bool joins() const noexcept {
    return iAmDf_ && (joinState_ == joined || joinState_ == prunePending);
  }
  // pim_include(G): a local receiver asked for the group here.
  bool pimInclude() const noexcept { return iAmDf_ && localReceiverInclude_; }
  // olist(G): joins(G), else pim_include(G).
  bool oList() const noexcept { return joins() || pimInclude(); }

  // The attribute declaration: names, identifiers, types and kinds, and how each is read and
  // written. attributeString, introspection and the generic attribute operation follow it. A
  // template only so that its body is compiled where it is used: a parent reference needs the
  // parent's complete type, which this header cannot include.
  template <class G = GroupIntf>
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    return std::tuple{
        Kiv::property<&G::intfId>("intfId", Attr::intfId, "Lanx::IntfId", Kind::key),
        Kiv::property<&G::parentGroup>("parentGroup", Attr::parentGroup,
                                       "Routing::Pim::Bidir::Group", Kind::parentReference),
        Kiv::property<&G::joinState, &G::joinStateIs>("joinState", Attr::joinState,
                                                      "Routing::Pim::Bidir::GroupIntf::JoinState"),
        Kiv::property<&G::lastJoinReceived, &G::lastJoinReceivedIs>("lastJoinReceived",
                                                                    Attr::lastJoinReceived, "F64"),
        Kiv::property<&G::forward, &G::forwardIs>("forward", Attr::forward, "Bool"),
        Kiv::property<&G::localReceiverInclude, &G::localReceiverIncludeIs>(
            "localReceiverInclude", Attr::localReceiverInclude, "Bool"),
        Kiv::property<&G::iAmDf, &G::iAmDfIs>("iAmDf", Attr::iAmDf, "Bool"),
        Kiv::property<&G::oList>("oList", Attr::oList, "Bool", Kind::computed),
        Kiv::property<&G::pimInclude>("pimInclude", Attr::pimInclude, "Bool", Kind::computed),
        Kiv::property<&G::joins>("joins", Attr::joins, "Bool", Kind::computed),
        Kiv::property<&G::fwkKey>("fwkKey", fwkKeyId, "Lanx::IntfId", Kind::key),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  Lanx::IntfId const intfId_;
  JoinState joinState_ = noInfo;
  double lastJoinReceived_ = 0.0;
  bool forward_ = false;
  bool localReceiverInclude_ = false;
  bool iAmDf_ = false;
};

Kiv::Ptr<GroupIntf> groupIntfFactory(Lanx::IntfId intfId);

}  // namespace Routing::Pim::Bidir
