#pragma once
// GroupQuarnReaderSm: rebuilds a local Status from the group tables of a Quarn::Status mounted by
// a process other than the agent. One Group per `group` record, one GroupIntf per `groupIntf`
// record whose group record is present.
//
// It works key by key from the tables' change notifications and never walks a table: for each
// notified key it looks the record up and creates/updates the local entity (through
// Quarn::doUpdateGroup / doUpdateGroupIntf) or deletes it. A key is present when its record
// differs from the default record (an absent key looks up as that record). An interface
// notification for a group the local Status does not hold first looks at the group's own record;
// when that is absent too the interface is ignored and nothing is remembered (its next change, or
// a later notification of it, brings it in). A group deletion takes its interfaces with it.
//
// Corruption met by a lookup is reported once to the table front and the key is then absent, so
// the local entity goes. Nothing here is raised as an exception.
//
// Mounting. The local Status ends equal to the tables only if every removal is reported. Mount
// the tables with Quarn::Status::mountReader() (key shadows, the default reading mode): they
// report every removal, also of a key whose slot the writer reused while this process was
// stopped or behind, and their lookups answer the writer's current records, so the group of a
// newly reported interface is found when the writer wrote it first. A direct reader ("reader"
// mode) reports the key a changed slot holds when it reads it and cannot report every removal:
// a group deleted by the agent may then stay here.
//
// Handlers run on the process's activity, synchronously inside the table's notification.

#include "Bidir/GroupIntfKey.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Attribute.h"
#include "Kiv/Ptr.h"
#include "Kiv/Reactor.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir::Quarn {

class GroupQuarnReaderSm : public Kiv::StateMachine {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::Quarn::GroupQuarnReaderSm";

  struct Attr {
    enum : Kiv::AttributeId {
      status = Kiv::kFirstTypeAttributeId,
      quarnStatus,
      initialized,
    };
  };

  // Notifiee of the table root: every keyed change goes to the state machine while alive.
  class KivQuarnStatus : public Kiv::Reactor<Status::NotifieeConst, GroupQuarnReaderSm> {
   public:
    KivQuarnStatus(Kiv::Ptr<Status const> const& quarnStatus, GroupQuarnReaderSm* sm)
        : Reactor(sm) {
      notifierIs(quarnStatus);
    }
    GroupQuarnReaderSm* groupQuarnReaderSm() const noexcept { return owner(); }
    void groupQuarnReaderSmIs(GroupQuarnReaderSm* sm) noexcept { ownerIs(sm); }

    void onGroup(Lanx::IpGenAddr const& key) override;
    void onGroupIntf(GroupIntfKey const& key) override;
    // A reader does not resynchronise on an immediate notification.
    void onGroupkivImmediate() override {}
    void onGroupIntfkivImmediate() override {}
  };

  explicit GroupQuarnReaderSm(Kiv::Ptr<Bidir::Status> const& status);
  ~GroupQuarnReaderSm() override;

  Kiv::Ptr<Bidir::Status> const& status() const noexcept { return status_; }
  // The table root read (the reactor's notifier), or null.
  Kiv::Ptr<Status const> quarnStatus() const;
  bool initialized() const noexcept { return initialized_; }

  void handleQuarnGroup(Lanx::IpGenAddr const& address);
  void handleQuarnGroupIntf(GroupIntfKey const& key);
  void handleInitialized();

  // The reactor for `quarnStatus`, created (replacing one for another root) when absent.
  Kiv::Ptr<KivQuarnStatus> quarnStatusIs(Kiv::Ptr<Status const> const& quarnStatus);
  Kiv::Ptr<KivQuarnStatus> newQuarnStatus(Kiv::Ptr<Status const> const& quarnStatus);
  void quarnStatusDel() { kivQuarnStatus_.reactorIs(nullptr); }

  // The attribute declaration; attributeString, introspection and the generic attribute
  // operation follow it.
  static constexpr auto attributes() {
    using Kind = Kiv::AttributeKind;
    using S = GroupQuarnReaderSm;
    return std::tuple{
        Kiv::property<&S::status>("status", Attr::status, "Routing::Pim::Bidir::Status",
                                  Kind::settableReference),
        Kiv::property<&S::quarnStatus>("quarnStatus", Attr::quarnStatus, Status::typeName,
                                       Kind::settableReference),
        Kiv::property<&S::initialized>("initialized", Attr::initialized, "Bool"),
    };
  }
  Kiv::AttributeTable const& attributeTable() const override;
  static Kiv::TypeDescriptor const& _fwkType();
  Kiv::TypeDescriptor const& fwkType() const override { return _fwkType(); }

 protected:
  Kiv::Value attributeOpOwn(Kiv::AttributeRequest const& request) override;

 private:
  Kiv::Ptr<Bidir::Status> const status_;
  Kiv::ReactorPtr<KivQuarnStatus> kivQuarnStatus_{*this};
  bool initialized_ = false;
};

Kiv::Ptr<GroupQuarnReaderSm> groupQuarnReaderSmFactory(Kiv::Ptr<Bidir::Status> const& status,
                                                       Kiv::Ptr<Status const> const& quarnStatus);

}  // namespace Routing::Pim::Bidir::Quarn
