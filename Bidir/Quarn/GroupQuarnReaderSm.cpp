#include "Bidir/Quarn/GroupQuarnReaderSm.h"

#include "Bidir/Quarn/GroupUpdate.h"
#include "Kiv/Trace.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

using Kind = Kiv::AttributeKind;
using A = GroupQuarnReaderSm::Attr;

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"status", A::status, "Routing::Pim::Bidir::Status", Kind::settableReference},
    {"quarnStatus", A::quarnStatus, "Routing::Pim::Bidir::Quarn::Status",
     Kind::settableReference},
    {"initialized", A::initialized, "Bool", Kind::settable},
};

constexpr Kiv::AttributeTable kTable{GroupQuarnReaderSm::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

Kiv::TraceHandle& th() {
  static Kiv::TraceHandle& handle = Kiv::traceHandle("PimBidir::QuarnReader");
  return handle;
}

#define READER_TRACE(level, ...) KIV_TRACE(th(), level, "GroupQuarnReaderSm::", __VA_ARGS__)

}  // namespace

// ---- reactor

void GroupQuarnReaderSm::KivQuarnStatus::onGroup(Lanx::IpGenAddr const& key) {
  if (zombie_) return;
  // A handler may drop the last outside reference to the state machine.
  if (Kiv::Ptr<GroupQuarnReaderSm> const sm = sm_) sm->handleQuarnGroup(key);
}

void GroupQuarnReaderSm::KivQuarnStatus::onGroupIntf(GroupIntfKey const& key) {
  if (zombie_) return;
  if (Kiv::Ptr<GroupQuarnReaderSm> const sm = sm_) sm->handleQuarnGroupIntf(key);
}

// ---- state machine

GroupQuarnReaderSm::GroupQuarnReaderSm(Kiv::Ptr<Bidir::Status> const& status)
    : Kiv::Entity("GroupQuarnReaderSm"), status_(status) {}

GroupQuarnReaderSm::~GroupQuarnReaderSm() {
  quarnStatusDel();
}

Kiv::AttributeTable const& GroupQuarnReaderSm::attributeTable() const {
  return kTable;
}

Kiv::Ptr<Status const> GroupQuarnReaderSm::quarnStatus() const {
  return kivQuarnStatus_ ? kivQuarnStatus_->notifier() : nullptr;
}

void GroupQuarnReaderSm::handleQuarnGroup(Lanx::IpGenAddr const& address) {
  Lanx::IpGenAddr const key = address;  // the caller's reference may not survive the handlers
  Kiv::Ptr<Bidir::Status> const status = status_;
  Kiv::Ptr<Status const> const quarnStatus = this->quarnStatus();
  if (!status || !quarnStatus) return;
  // The table front reports corruption met by the lookup (corruptionDetected) and answers the
  // default record: the key is then absent.
  Group const record = quarnStatus->group(key);
  if (record != Group()) {
    READER_TRACE(4, "handleQuarnGroup(), creating/updating group ", key);
    doUpdateGroup(status->groupIs(key), record);
  } else {
    READER_TRACE(4, "handleQuarnGroup(), deleting group ", key);
    status->groupDel(key);
  }
}

void GroupQuarnReaderSm::handleQuarnGroupIntf(GroupIntfKey const& k) {
  GroupIntfKey const key = k;
  Kiv::Ptr<Bidir::Status> const status = status_;
  Kiv::Ptr<Status const> const quarnStatus = this->quarnStatus();
  if (!status || !quarnStatus) return;
  Lanx::IpGenAddr const& address = key.groupAddr();
  Lanx::IntfId const& intf = key.intfId();
  Kiv::Ptr<Bidir::Group> group = status->group(address);
  if (!group) {
    READER_TRACE(4, "handleQuarnGroupIntf(), no group: ", address, " for intf ", intf);
    handleQuarnGroup(address);
    group = status->group(address);
    if (!group) {
      READER_TRACE(4, "handleQuarnGroupIntf(), ignoring, no group: ", address, " for intf ", intf);
      return;
    }
  }
  GroupIntf const record = quarnStatus->groupIntf(key);
  if (record != GroupIntf()) {
    READER_TRACE(4, "handleQuarnGroupIntf(), updating group: ", address, ", intf ", intf);
    doUpdateGroupIntf(group->groupIntfIs(intf), record);
  } else {
    READER_TRACE(4, "handleQuarnGroupIntf(), deleting intf ", intf, " from group ", address);
    group->groupIntfDel(intf);
  }
}

void GroupQuarnReaderSm::handleInitialized() {
  READER_TRACE(8, "handleInitialized");
  initialized_ = true;
}

void GroupQuarnReaderSm::hasNotificationActiveIs(bool active) {
  if (kivQuarnStatus_) kivQuarnStatus_->isRegisteredNotifieeIs(active);
}

void GroupQuarnReaderSm::kivDoZombieReactors(bool zombie) {
  if (kivQuarnStatus_) kivQuarnStatus_->zombieIs(zombie);
}

Kiv::Ptr<GroupQuarnReaderSm::KivQuarnStatus> GroupQuarnReaderSm::quarnStatusIs(
    Kiv::Ptr<Status const> const& quarnStatus) {
  if (kivQuarnStatus_ && kivQuarnStatus_->notifier() == quarnStatus) return kivQuarnStatus_;
  return newQuarnStatus(quarnStatus);
}

Kiv::Ptr<GroupQuarnReaderSm::KivQuarnStatus> GroupQuarnReaderSm::newQuarnStatus(
    Kiv::Ptr<Status const> const& quarnStatus) {
  if (!quarnStatus) {
    throw Kiv::NullArgumentException(
        "null _quarnStatus parameter to mutator for "
        "Routing::Pim::Bidir::Quarn::GroupQuarnReaderSm::quarnStatus not allowed\"");
  }
  quarnStatusDel();
  kivQuarnStatus_ = Kiv::newPtr<KivQuarnStatus>(quarnStatus);
  kivQuarnStatus_->groupQuarnReaderSmIs(this);
  return kivQuarnStatus_;
}

void GroupQuarnReaderSm::quarnStatusDel() {
  Kiv::Ptr<KivQuarnStatus> const reactor = std::move(kivQuarnStatus_);
  if (!reactor) return;
  reactor->zombieIs(true);
  reactor->groupQuarnReaderSmIs(nullptr);
  reactor->notifierIs(nullptr);
}

Kiv::Ptr<GroupQuarnReaderSm> groupQuarnReaderSmFactory(Kiv::Ptr<Bidir::Status> const& status,
                                                       Kiv::Ptr<Status const> const& quarnStatus) {
  Kiv::Ptr<GroupQuarnReaderSm> const sm = Kiv::newPtr<GroupQuarnReaderSm>(status);
  if (quarnStatus) sm->newQuarnStatus(quarnStatus);
  sm->handleInitialized();
  return sm;
}

}  // namespace Routing::Pim::Bidir::Quarn
