#pragma once
// Quarn::Status: the table root of the exported group state. It owns two shared-memory tables,
// each an attribute bound to this entity:
//   group      (258)  Quarn::Group records keyed by group address, sized for 5000 records;
//   groupIntf  (260)  Quarn::GroupIntf records keyed by (group, interface), sized for 500000;
// with their control handles (259, 261: mounting and validation) and the mount information of a
// writer (262). The tables work as local writers from construction; `mount` (or `init` on a
// control handle) puts them in shared memory as writer or reader. A process that rebuilds the
// agent's state from the tables (GroupQuarnReaderSm, a show command, a forwarding-plane
// programmer) mounts them with `mountReader()`: key shadows, which report every removal, even of
// a key whose slot the writer reused while the reader was stopped or behind.
// The capacities size the tables when a writer mounts them; the writer grows past them, and
// "Quarn table full" comes only when growth itself fails.
//
// Writes: `newGroup` writes without notifying; `groupIs` writes and then notifies `onGroup(key)`;
// `groupCommit` publishes a direct write begun on the table and notifies; `groupDel` removes and
// notifies only when a record was there. Corruption met by a write, commit or remove is reported
// to the table and ends the operation with Jorv::RuntimeException "QuarnMap::safeWrite() in no
// man's land" ("directCommit()", "safeRemove()"), and nobody is notified; Quarn::TableFullException
// and other engine exceptions pass through unchanged. On a reading mount, every key the table
// reports as changed is notified the same way (`groupNotify`), through the framework's one
// notification walk. The same holds for groupIntf. A notifiee may drop the last reference to this
// entity while a write or remove notifies it, but not while a reading table delivers a key (the
// table's back end is then in the middle of its work, and it goes with this entity).

#include <cstdint>
#include <tuple>

#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Kiv/Entity.h"
#include "KivQuarn/KivQuarnMap.h"
#include "KivQuarn/KivQuarnMapValueWrapper.h"
#include "KivQuarn/MountInfo.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir::Quarn {

class Status : public Kiv::Entity {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::Status";
  static constexpr std::uint32_t groupCapacity = 5000;
  static constexpr std::uint32_t groupIntfCapacity = 500000;

  struct Attr {
    enum : Kiv::AttributeId {
      group = Kiv::kFirstTypeAttributeId,
      groupControl,
      groupIntf,
      groupIntfControl,
      writerMountInfo,
    };
  };

  class NotifieeConst : public Kiv::NotifieeConstOf<Status, Kiv::Entity::NotifieeConst> {
   public:
    virtual void onGroup(Lanx::IpGenAddr const&) {}
    virtual void onGroupkivImmediate() {}
    virtual void onGroup() {}
    virtual void onGroupIntf(GroupIntfKey const&) {}
    virtual void onGroupIntfkivImmediate() {}
    virtual void onGroupIntf() {}
  };
  using Notifiee = Kiv::NotifieeOf<Status, NotifieeConst>;

  using GroupWrapper = KivQuarn::KivQuarnMapValueWrapper<Group, Lanx::IpGenAddr>;
  using GroupIntfWrapper = KivQuarn::KivQuarnMapValueWrapper<GroupIntf, GroupIntfKey>;
  using GroupMap = KivQuarn::KivQuarnMap<Status, GroupWrapper, Lanx::IpGenAddr>;
  using GroupIntfMap = KivQuarn::KivQuarnMap<Status, GroupIntfWrapper, GroupIntfKey>;
  using GroupIterator = GroupMap::Iterator;
  using GroupIntfIterator = GroupIntfMap::Iterator;

  explicit Status(Kiv::Name name);
  ~Status() override;

  // ---- group
  // The record of `key`, or a default record when it is absent (corruption met by the lookup is
  // reported to the table and also answers a default record).
  Group group(Lanx::IpGenAddr const& key) const;
  std::uint32_t groupCount() const { return group_.members(); }
  GroupMap& groupControl() noexcept { return group_; }
  GroupMap const& groupControl() const noexcept { return group_; }
  Group const& newGroup(Group const& record);
  void groupIs(Group const& record);
  void groupCommit(Group const* record);
  Group groupDel(Lanx::IpGenAddr const& key);
  void groupDel(GroupIterator& it);
  void groupDelAll();
  GroupIterator groupIterator() const { return group_.iterator(); }
  GroupIterator groupIterator(Lanx::IpGenAddr const& start) const { return group_.iterator(start); }
  // In slot order (KivQuarn::KivQuarnMap::slotIterator), for walks over every record.
  GroupIterator groupSlotIterator() const { return group_.slotIterator(); }
  GroupIterator groupSlotIterator(Lanx::IpGenAddr const& start,
                                  ::Quarn::IterHint const& hint) const {
    return group_.slotIterator(start, hint);
  }
  void groupNotify(Lanx::IpGenAddr const& key) const;

  // ---- groupIntf
  GroupIntf groupIntf(GroupIntfKey const& key) const;
  std::uint32_t groupIntfCount() const { return groupIntf_.members(); }
  GroupIntfMap& groupIntfControl() noexcept { return groupIntf_; }
  GroupIntfMap const& groupIntfControl() const noexcept { return groupIntf_; }
  GroupIntf const& newGroupIntf(GroupIntf const& record);
  void groupIntfIs(GroupIntf const& record);
  void groupIntfCommit(GroupIntf const* record);
  GroupIntf groupIntfDel(GroupIntfKey const& key);
  void groupIntfDel(GroupIntfIterator& it);
  void groupIntfDelAll();
  GroupIntfIterator groupIntfIterator() const { return groupIntf_.iterator(); }
  GroupIntfIterator groupIntfIterator(GroupIntfKey const& start) const {
    return groupIntf_.iterator(start);
  }
  GroupIntfIterator groupIntfSlotIterator() const { return groupIntf_.slotIterator(); }
  GroupIntfIterator groupIntfSlotIterator(GroupIntfKey const& start,
                                          ::Quarn::IterHint const& hint) const {
    return groupIntf_.slotIterator(start, hint);
  }
  void groupIntfNotify(GroupIntfKey const& key) const;

  // "group" -> 5000 and "groupIntf" -> 500000: what a writer sizes the tables for.
  KivQuarn::MountInfo writerMountInfo() const;
  // Mounts both tables in `mode` (shared), sized by writerMountInfo(). A writer creates their
  // files with the mode its control handles give (QuarnMap::fileModeIs, before mounting; by
  // default readable by all, writable by the owner).
  void mount(::Quarn::QuarnType mode);
  // The reading mode of consumers that must see every removal: keys kept privately, values
  // read from the shared table (lookups see the writer's current records).
  static constexpr ::Quarn::QuarnType readingMode = ::Quarn::QuarnType::keyshadow;
  // Mounts both tables for reading in `mode`, the group table first, so that the interfaces
  // reported when the tables attach find the groups they belong to. "reader" (the lean direct
  // reader) is for consumers that can live without every removal (see Quarn/QuarnBackends.h).
  void mountReader(::Quarn::QuarnType mode = readingMode);

  // Passes a change of this entity's parent on to both tables (see KivQuarn::KivQuarnMap); runs
  // on every change of the parent link. The argument is not consulted: the tables read this
  // entity's own link. Throws Jorv::InvalidInitializeException on a second placement.
  void handleParent(Kiv::Ptr<Kiv::Entity> const& parent);

  // The attribute declaration: names, identifiers, types and kinds, and how each is read.
  // attributeString, introspection and the generic attribute operation follow it.
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    using S = Status;
    return std::tuple{
        Kiv::collection<&S::groupCount>(
            "group", Attr::group, Group::typeName, "key", "Lanx::IpGenAddr",
            [](Status const& s, Lanx::IpGenAddr const& k) { return s.group(k); }, Kind::table),
        Kiv::handle("groupControl", Attr::groupControl, Group::typeName),
        Kiv::collection<&S::groupIntfCount>(
            "groupIntf", Attr::groupIntf, GroupIntf::typeName, "key", GroupIntfKey::typeName,
            [](Status const& s, GroupIntfKey const& k) { return s.groupIntf(k); }, Kind::table),
        Kiv::handle("groupIntfControl", Attr::groupIntfControl, GroupIntf::typeName),
        Kiv::property<&S::writerMountInfo>("writerMountInfo", Attr::writerMountInfo,
                                           "KivQuarn::MountInfo", Kind::computed),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  void parentChanged() override;
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  GroupIntfMap groupIntf_;
  GroupMap group_;
};

Kiv::Ptr<Status> statusFactory(Kiv::Name name);

}  // namespace Routing::Pim::Bidir::Quarn
