#pragma once
// GroupQuarnWriterSm: keeps the two tables of a Quarn::Status equal to an agent's Status, one
// Quarn::Group record per Group and one Quarn::GroupIntf record per GroupIntf. Every attribute
// change of a watched entity rewrites that entity's whole record at once (no batching).
//
// Reactors: KivStatus watches the Status (groups coming and going), one KivGroup per Group (its
// attributes and interfaces coming and going), and under it one KivIntf per GroupIntf.
// - Creation: a KivGroup builds its KivIntfs (writing their records) before writing its own
//   record, so a reader never meets a new group without its interfaces already in place.
// - Deletion (groupDel, intfDel, or the entity leaving its collection): interface records are
//   removed before their group's record.
// - Nothing is written or removed while the agent's Status is not initialised; the skipped
//   records are written by the restart review or by the next change.
// - Destroying the state machine leaves every record in the tables (a restarted agent finds them):
//   its reactors become zombies and are released without running their delete hooks.
// Table failures (corruption, a full table) pass out of the handler as the table raises them, to
// the notification walk that delivered the change, after an error-level trace line naming the
// table, the key and the cause; `tableFailures` counts them. A failed change is not retried: the
// table keeps what it held before it. What an agent does about it, once the cause is gone (for
// Quarn::TableFullException, space freed on the file system that holds the tables): `resync`,
// which brings both tables back to the agent's Status.
//
// Trace handle "PimBidir::QuarnWriter": level 8 on entry ("GroupQuarnWriterSm::doUpdateGroup(
// 239.1.1.1)"), level 7 when the uninitialised guard stops an update or a removal.
//
// Runs on one activity's thread; a handler may drop the last reference to this state machine
// (see Kiv/Reactor.h for what the reactors do so that nothing is touched after that).

#include <cstddef>

#include "Bidir/Group.h"
#include "Bidir/GroupIntf.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Attribute.h"
#include "Kiv/Reactor.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir::Quarn {

class GroupQuarnWriterSm : public Kiv::StateMachine {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm";

  struct Attr {
    enum : Kiv::AttributeId {
      kivFwkActivity = Kiv::kFirstTypeAttributeId,
      status,
      quarnStatus,
      group,
      initialized,
    };
  };

  class NotifieeConst
      : public Kiv::NotifieeConstOf<GroupQuarnWriterSm, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onGroup(Lanx::IpGenAddr const&) {}
    virtual void onInitialized() {}
  };
  using Notifiee = Kiv::NotifieeOf<GroupQuarnWriterSm, NotifieeConst>;

  // Watches the agent's Status: its groups coming and going.
  class KivStatus : public Kiv::Reactor<Bidir::Status::NotifieeConst, GroupQuarnWriterSm> {
   public:
    KivStatus(GroupQuarnWriterSm* sm, Kiv::Ptr<Bidir::Status const> const& status);
    GroupQuarnWriterSm* groupQuarnWriterSm() const noexcept { return owner(); }
    void groupQuarnWriterSmIs(GroupQuarnWriterSm* sm) noexcept { ownerIs(sm); }

    // A reactor for the group under `address` when the Status holds it, else none.
    void onGroup(Lanx::IpGenAddr const& address) override;
    // Full resynchronisation: a reactor for every group, and none for a group that is gone.
    void onGroupkivImmediate() override;
  };

  // Watches one Group and holds the reactors of its interfaces.
  class KivGroup : public Kiv::Reactor<Bidir::Group::NotifieeConst, GroupQuarnWriterSm> {
   public:
    // Watches one GroupIntf of its KivGroup's group.
    class KivIntf : public Kiv::Reactor<Bidir::GroupIntf::NotifieeConst, KivGroup> {
     public:
      KivIntf(KivGroup* kivGroup, Kiv::Ptr<Bidir::GroupIntf const> const& groupIntf);
      Lanx::IntfId const& intfId() const noexcept { return key_.intfId(); }
      Lanx::IntfId const& fwkKey() const noexcept { return key_.intfId(); }
      KivGroup* kivGroup() const noexcept { return owner(); }
      void kivGroupIs(KivGroup* kivGroup) noexcept { ownerIs(kivGroup); }
      bool initialized() const noexcept { return initialized_; }
      // The activity of the state machine it works for (the current one once detached).
      Kiv::Activity& kivFwkActivity() const;

      void onForward() override { onChange(); }
      void onJoinState() override { onChange(); }
      void onLastJoinReceived() override { onChange(); }
      void onLocalReceiverInclude() override { onChange(); }
      void onIAmDf() override { onChange(); }

      // Writes this interface's record (subject to the initialisation guard).
      void doUpdateGroupIntf();
      // Removes this interface's record (subject to the initialisation guard).
      void handleDelete();

     private:
      void onChange() {
        if (kivAlive()) doUpdateGroupIntf();
      }
      // The state machine through the back pointers: sm_ while this reactor is not a zombie (a
      // group reactor or state machine that lets go makes its interface reactors zombies first).
      GroupQuarnWriterSm* writer() const noexcept;

      GroupIntfKey const key_;  // the record's key, so that an update reads no other reactor
      GroupQuarnWriterSm* const sm_;
      bool initialized_ = false;
    };

   private:
    using IntfColl = Kiv::ReactorColl<KivGroup, Lanx::IntfId, KivIntf>;

   public:
    using IntfIterator = IntfColl::Iterator;

    KivGroup(GroupQuarnWriterSm* sm, Kiv::Ptr<Bidir::Group const> const& group);
    Lanx::IpGenAddr const& groupAddr() const noexcept { return groupAddr_; }
    Lanx::IpGenAddr const& fwkKey() const noexcept { return groupAddr_; }
    GroupQuarnWriterSm* groupQuarnWriterSm() const noexcept { return owner(); }
    void groupQuarnWriterSmIs(GroupQuarnWriterSm* sm) noexcept { ownerIs(sm); }
    bool initialized() const noexcept { return initialized_; }

    Kiv::Ptr<KivIntf> intf(Lanx::IntfId const& intfId) const { return intfs_.member(intfId); }
    // The reactor of `_intf` (created when absent, or when the one present watches another
    // entity); a null `_intf` raises NullArgumentException.
    Kiv::Ptr<KivIntf> intfIs(Kiv::Ptr<Bidir::GroupIntf const> const& _intf);
    Kiv::Ptr<KivIntf> newIntf(Kiv::Ptr<Bidir::GroupIntf const> const& _intf);
    void intfDel(Lanx::IntfId const& intfId) { intfs_.memberDel(intfId); }
    void intfDel(IntfIterator it) { intfs_.memberDel(it); }
    void intfDelAll() { intfs_.memberDelAll(); }
    std::size_t intfCount() const noexcept { return intfs_.size(); }
    Kiv::IteratorRange<IntfIterator> intfIterator() { return intfs_.range(); }

    void onCreationTime() override { onChange(); }
    void onUpJoinState() override { onChange(); }
    void onInactive() override { onChange(); }
    void onGroupIntf(Lanx::IntfId intfId) override;
    void onGroupIntfkivImmediate() override;

    // Writes this group's record (subject to the initialisation guard).
    void doUpdateGroup();
    // Removes the records of this group's interfaces, then its own (subject to the guard).
    void handleDelete();
    // A reactor for every interface of the group and none for one that is gone, then every
    // interface record and the group record rewritten.
    void resync();

   private:
    void onChange() {
      if (kivAlive()) doUpdateGroup();
    }
    void kiv_handleIntf(KivIntf& intf) { intf.handleDelete(); }

    Lanx::IpGenAddr const groupAddr_;
    bool initialized_ = false;
    IntfColl intfs_{*this, &KivGroup::kiv_handleIntf};
  };

 private:
  using GroupColl = Kiv::ReactorColl<GroupQuarnWriterSm, Lanx::IpGenAddr, KivGroup>;

 public:
  using GroupIterator = GroupColl::Iterator;

  // Watches `status` and writes to `quarnStatus`, which must be mounted as the writer of both
  // tables. Writes every record (when `status` is initialised), then sets `initialized`.
  GroupQuarnWriterSm(Kiv::Ptr<Bidir::Status const> const& status,
                     Kiv::Ptr<Status> const& quarnStatus);
  ~GroupQuarnWriterSm() override;

  Kiv::Ptr<Bidir::Status const> const& status() const noexcept { return status_; }
  // Watches another Status (null: none), resynchronising the groups to it.
  void statusIs(Kiv::Ptr<Bidir::Status const> const& status);
  Kiv::Ptr<KivStatus> newStatus(Kiv::Ptr<Bidir::Status const> const& status);
  void statusDel() { statusIs(nullptr); }
  Kiv::Ptr<KivStatus> const& kivStatus() const noexcept { return kivStatus_.reactor(); }
  Kiv::Ptr<Status> const& quarnStatus() const noexcept { return quarnStatus_; }

  Kiv::Ptr<KivGroup> group(Lanx::IpGenAddr const& address) const { return groups_.member(address); }
  // The reactor of `_group` (created when absent, or when the one present watches another
  // entity); a null `_group` raises NullArgumentException.
  Kiv::Ptr<KivGroup> groupIs(Kiv::Ptr<Bidir::Group const> const& _group);
  Kiv::Ptr<KivGroup> newGroup(Kiv::Ptr<Bidir::Group const> const& _group);
  void groupDel(Lanx::IpGenAddr const& address) { groups_.memberDel(address); }
  void groupDel(GroupIterator it) { groups_.memberDel(it); }
  void groupDelAll() { groups_.memberDelAll(); }
  void groupNotify(Lanx::IpGenAddr const& address) const;
  std::size_t groupCount() const noexcept { return groups_.size(); }
  Kiv::IteratorRange<GroupIterator> groupIterator() { return groups_.range(); }

  bool initialized() const noexcept { return initialized_; }
  void handleInitialized();

  // Full resynchronisation of the tables with the agent's Status, for use after table failures:
  // reactors as by onGroupkivImmediate (one per group and interface present, none for what is
  // gone), every record rewritten, and every record of a key the Status no longer holds removed
  // (a removal that failed leaves one). Raises what the tables raise while the cause persists
  // (it can be called again); on success `tableFailures` is 0 again. Does nothing while the
  // Status is not initialised.
  void resync();
  // Table operations that failed since construction or the last successful `resync`.
  std::uint64_t tableFailures() const noexcept { return tableFailures_; }

  // The attribute declaration; attributeString, introspection and the generic attribute
  // operation follow it.
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    using S = GroupQuarnWriterSm;
    return std::tuple{
        Kiv::handle("kivFwkActivity", Attr::kivFwkActivity, "Kiv::Activity"),
        Kiv::property<&S::status, &S::statusIs>("status", Attr::status,
                                                "Routing::Pim::Bidir::Status",
                                                Kind::settableReference),
        Kiv::property<&S::quarnStatus>("quarnStatus", Attr::quarnStatus, Status::typeName,
                                       Kind::settableReference),
        Kiv::collection<&S::groupCount>(
            "group", Attr::group, "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::KivGroup",
            "groupAddr", "Lanx::IpGenAddr",
            [](S const& s, Lanx::IpGenAddr const& k) { return s.group(k); }),
        Kiv::property<&S::initialized>("initialized", Attr::initialized, "Bool"),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  // The guard of every write and removal: the agent's Status is there and initialised.
  bool statusInitialized() const noexcept { return status_ && status_->initialized(); }
  // Runs `op`, one operation on `table` for the update or removal `function` of `key`; a failure
  // is counted and traced at error level, then passes on unchanged.
  template <class Op, class... Key>
  void tableOp(char const* function, char const* table, Op&& op, Key const&... key);
  void kiv_handleGroup(KivGroup& group) { group.handleDelete(); }

  Kiv::Ptr<Bidir::Status const> status_;
  Kiv::Ptr<Status> const quarnStatus_;
  Kiv::ReactorPtr<KivStatus> kivStatus_{*this};
  GroupColl groups_{*this, &GroupQuarnWriterSm::kiv_handleGroup, &GroupQuarnWriterSm::groupNotify};
  bool initialized_ = false;
  std::uint64_t tableFailures_ = 0;
};

Kiv::Ptr<GroupQuarnWriterSm> groupQuarnWriterSmFactory(Kiv::Ptr<Bidir::Status const> const& status,
                                                       Kiv::Ptr<Status> const& quarnStatus);

}  // namespace Routing::Pim::Bidir::Quarn
