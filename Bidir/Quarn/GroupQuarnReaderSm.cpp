#include "Bidir/Quarn/GroupQuarnReaderSm.h"

#include "Bidir/Quarn/GroupUpdate.h"
#include "Kiv/GenericAttribute.h"
#include "Jorv/Trace.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

constexpr auto kAttributes = Kiv::declarations(GroupQuarnReaderSm::attributes());
constexpr Kiv::AttributeTable kTable{GroupQuarnReaderSm::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

Jorv::TraceHandle& th() {
  static Jorv::TraceHandle& handle = Jorv::traceHandle("PimBidir::QuarnReader");
  return handle;
}

#define READER_TRACE(level, ...) KIV_TRACE(th(), level, "GroupQuarnReaderSm::", __VA_ARGS__)

}  // namespace

// ---- reactor

void GroupQuarnReaderSm::KivQuarnStatus::onGroup(Lanx::IpGenAddr const& key) {
  if (!kivAlive()) return;
  Kiv::liveRef(owner())->handleQuarnGroup(key);
}

void GroupQuarnReaderSm::KivQuarnStatus::onGroupIntf(GroupIntfKey const& key) {
  if (!kivAlive()) return;
  Kiv::liveRef(owner())->handleQuarnGroupIntf(key);
}

// ---- state machine

GroupQuarnReaderSm::GroupQuarnReaderSm(Kiv::Ptr<Bidir::Status> const& status)
    : Kiv::StateMachine("GroupQuarnReaderSm"), status_(status) {}

GroupQuarnReaderSm::~GroupQuarnReaderSm() {
  kivDoZombieReactors(true);
}

Kiv::AttributeTable const& GroupQuarnReaderSm::attributeTable() const {
  return kTable;
}

Kiv::Value GroupQuarnReaderSm::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::Ptr<Status const> GroupQuarnReaderSm::quarnStatus() const {
  return kivQuarnStatus_.reactor() ? kivQuarnStatus_.reactor()->notifier() : nullptr;
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

Kiv::Ptr<GroupQuarnReaderSm::KivQuarnStatus> GroupQuarnReaderSm::quarnStatusIs(
    Kiv::Ptr<Status const> const& quarnStatus) {
  if (quarnStatus && quarnStatus == this->quarnStatus()) return kivQuarnStatus_.reactor();
  return newQuarnStatus(quarnStatus);
}

Kiv::Ptr<GroupQuarnReaderSm::KivQuarnStatus> GroupQuarnReaderSm::newQuarnStatus(
    Kiv::Ptr<Status const> const& quarnStatus) {
  if (!quarnStatus) {
    Kiv::throwNullArgument("_quarnStatus",
                           "Routing::Pim::Bidir::Quarn::GroupQuarnReaderSm::quarnStatus");
  }
  kivQuarnStatus_.reactorIs(Kiv::newPtr<KivQuarnStatus>(quarnStatus, this));
  return kivQuarnStatus_.reactor();
}

Kiv::Ptr<GroupQuarnReaderSm> groupQuarnReaderSmFactory(Kiv::Ptr<Bidir::Status> const& status,
                                                       Kiv::Ptr<Status const> const& quarnStatus) {
  Kiv::Ptr<GroupQuarnReaderSm> const sm = Kiv::newPtr<GroupQuarnReaderSm>(status);
  if (quarnStatus) sm->newQuarnStatus(quarnStatus);
  sm->handleInitialized();
  return sm;
}

}  // namespace Routing::Pim::Bidir::Quarn
