#include "Bidir/Quarn/GroupQuarnWriterSm.h"

#include <vector>

#include "Kiv/Trace.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

Kiv::TraceHandle& trace() {
  static Kiv::TraceHandle& handle = Kiv::traceHandle("PimBidir::QuarnWriter");
  return handle;
}

constexpr char kSource[] = "GroupQuarnWriterSm::";

using Kind = Kiv::AttributeKind;
using A = GroupQuarnWriterSm::Attr;

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"kivFwkActivity", A::kivFwkActivity, "Kiv::Activity", Kind::framework},
    {"status", A::status, "Routing::Pim::Bidir::Status", Kind::settableReference},
    {"quarnStatus", A::quarnStatus, "Routing::Pim::Bidir::Quarn::Status", Kind::settableReference},
    {"group", A::group, "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::KivGroup",
     Kind::collection},
    {"initialized", A::initialized, "Bool", Kind::settable},
};

constexpr Kiv::AttributeTable kTable{GroupQuarnWriterSm::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

// ---- KivStatus

GroupQuarnWriterSm::KivStatus::KivStatus(GroupQuarnWriterSm* sm,
                                         Kiv::Ptr<Bidir::Status const> const& status)
    : Reactor(sm) {
  notifierIs(status);
}

void GroupQuarnWriterSm::KivStatus::onGroup(Lanx::IpGenAddr const& address) {
  if (!kivAlive()) return;
  if (auto group = notifier()->group(address)) {
    owner()->groupIs(group);
  } else {
    owner()->groupDel(address);
  }
}

void GroupQuarnWriterSm::KivStatus::onGroupkivImmediate() {
  if (!kivAlive()) return;
  // Many calls that notify follow: keep the state machine, and walk snapshots, since handlers
  // may change both the agent's groups and this state machine's reactors meanwhile.
  auto const sm = Kiv::liveRef(owner());
  GroupQuarnWriterSm* const machine = owner();
  auto const status = notifier();
  std::vector<Kiv::Ptr<Bidir::Group const>> groups;
  groups.reserve(status->groupCount());
  for (auto it = status->groupIter().begin(); it != status->groupIter().end(); ++it) {
    groups.push_back(it.ptr());
  }
  for (auto const& group : groups) {
    if (!kivAlive()) return;
    if (group->bidirStatus() == status) machine->groupIs(group);
  }
  std::vector<Lanx::IpGenAddr> stale;
  for (auto it = machine->groups_.begin(); it != machine->groups_.end(); ++it) {
    if (!status->group(it.key())) stale.push_back(it.key());
  }
  for (auto const& address : stale) {
    if (!kivAlive()) return;
    machine->groupDel(address);
  }
}

// ---- KivGroup

GroupQuarnWriterSm::KivGroup::KivGroup(GroupQuarnWriterSm* sm,
                                       Kiv::Ptr<Bidir::Group const> const& group)
    : Reactor(sm), groupAddr_(group->groupAddr()) {
  notifierIs(group);
  onGroupIntfkivImmediate();
  doUpdateGroup();
  initialized_ = true;
}

Kiv::Ptr<GroupQuarnWriterSm::KivGroup::KivIntf> GroupQuarnWriterSm::KivGroup::intfIs(
    Kiv::Ptr<Bidir::GroupIntf const> const& _intf) {
  if (!_intf) {
    Kiv::throwNullArgument("_intf",
                           "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::KivGroup::intf");
  }
  if (auto existing = intfs_.member(_intf->intfId())) {
    if (existing->notifier() == _intf) return existing;
    intfs_.memberDel(_intf->intfId());  // it watched an entity that has been replaced
  }
  return intfs_.memberIs(_intf->intfId(), [&] { return Kiv::newPtr<KivIntf>(this, _intf); });
}

Kiv::Ptr<GroupQuarnWriterSm::KivGroup::KivIntf> GroupQuarnWriterSm::KivGroup::newIntf(
    Kiv::Ptr<Bidir::GroupIntf const> const& _intf) {
  if (!_intf) {
    Kiv::throwNullArgument("_intf",
                           "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::KivGroup::intf");
  }
  return intfs_.newMember(_intf->intfId(), [&] { return Kiv::newPtr<KivIntf>(this, _intf); });
}

void GroupQuarnWriterSm::KivGroup::onGroupIntf(Lanx::IntfId intfId) {
  if (!kivAlive()) return;
  if (auto groupIntf = notifier()->groupIntf(intfId)) {
    intfIs(groupIntf);
  } else {
    intfDel(intfId);
  }
}

void GroupQuarnWriterSm::KivGroup::onGroupIntfkivImmediate() {
  if (!kivAlive()) return;
  auto const self = Kiv::liveRef(this);  // null while the constructor runs it
  auto const group = notifier();
  std::vector<Kiv::Ptr<Bidir::GroupIntf const>> present;
  present.reserve(group->groupIntfCount());
  for (auto it = group->groupIntfIter().begin(); it != group->groupIntfIter().end(); ++it) {
    present.push_back(it.ptr());
  }
  for (auto const& groupIntf : present) {
    if (!kivAlive()) return;
    if (groupIntf->parentGroup() == group) intfIs(groupIntf);
  }
  std::vector<Lanx::IntfId> stale;
  for (auto it = intfs_.begin(); it != intfs_.end(); ++it) {
    if (!group->groupIntf(it.key())) stale.push_back(it.key());
  }
  for (auto const& intfId : stale) {
    if (!kivAlive()) return;
    intfDel(intfId);
  }
}

void GroupQuarnWriterSm::KivGroup::doUpdateGroup() {
  GroupQuarnWriterSm* const sm = owner();
  if (sm == nullptr) return;
  KIV_TRACE(trace(), 8, kSource, "doUpdateGroup(", groupAddr_, ")");
  if (!sm->statusInitialized()) {
    KIV_TRACE(trace(), 7, kSource, "doUpdateGroup(", groupAddr_, "), status uninitialized");
    return;
  }
  auto const group = notifier();
  if (!group || !sm->quarnStatus_) return;
  Group record;
  record.key = groupAddr_;
  record.creationTime = group->creationTime();
  record.upJoinState = group->upJoinState();
  record.inactive = group->inactive();
  sm->quarnStatus_->groupIs(record);
}

void GroupQuarnWriterSm::KivGroup::handleDelete() {
  GroupQuarnWriterSm* const sm = owner();
  if (sm == nullptr) return;
  KIV_TRACE(trace(), 8, kSource, "handleDelete(", groupAddr_, ")");
  if (!sm->statusInitialized()) {
    KIV_TRACE(trace(), 7, kSource, "handleDelete(", groupAddr_, "), status uninitialized");
    return;
  }
  // Runs from the removal of this reactor, whose holder keeps the state machine alive; this
  // reactor is a zombie by now, so its interface reactors do not change under the walk.
  for (KivIntf& intf : intfs_.range()) intf.handleDelete();
  if (auto const quarnStatus = sm->quarnStatus_) quarnStatus->groupDel(groupAddr_);
}

// ---- KivIntf

GroupQuarnWriterSm::KivGroup::KivIntf::KivIntf(KivGroup* kivGroup,
                                               Kiv::Ptr<Bidir::GroupIntf const> const& groupIntf)
    : Reactor(kivGroup), intfId_(groupIntf->intfId()) {
  notifierIs(groupIntf);
  doUpdateGroupIntf();
  initialized_ = true;
}

Kiv::Activity& GroupQuarnWriterSm::KivGroup::KivIntf::kivFwkActivity() const {
  KivGroup const* group = kivGroup();
  GroupQuarnWriterSm const* sm = group ? group->groupQuarnWriterSm() : nullptr;
  return sm ? sm->kivFwkActivity() : Kiv::Activity::current();
}

void GroupQuarnWriterSm::KivGroup::KivIntf::doUpdateGroupIntf() {
  KivGroup* const group = kivGroup();
  GroupQuarnWriterSm* const sm = group ? group->owner() : nullptr;
  if (sm == nullptr) return;
  KIV_TRACE(trace(), 8, kSource, "doUpdateGroupIntf(", group->groupAddr_, "::", intfId_, ")");
  if (!sm->statusInitialized()) {
    KIV_TRACE(trace(), 7, kSource, "doUpdateGroupIntf(", group->groupAddr_, "::", intfId_,
              "), status unintialized");
    return;
  }
  auto const groupIntf = notifier();
  if (!groupIntf || !sm->quarnStatus_) return;
  GroupIntf record;
  record.key = GroupIntfKey(group->groupAddr_, intfId_);
  record.forward = groupIntf->forward();
  record.joinState = groupIntf->joinState();
  record.lastJoinReceived = groupIntf->lastJoinReceived();
  record.localReceiverInclude = groupIntf->localReceiverInclude();
  record.iAmDf = groupIntf->iAmDf();
  sm->quarnStatus_->groupIntfIs(record);
}

void GroupQuarnWriterSm::KivGroup::KivIntf::handleDelete() {
  KivGroup* const group = kivGroup();
  GroupQuarnWriterSm* const sm = group ? group->owner() : nullptr;
  if (sm == nullptr) return;
  KIV_TRACE(trace(), 8, kSource, "handleDelete(", group->groupAddr_, "::", intfId_, ")");
  if (!sm->statusInitialized()) {
    KIV_TRACE(trace(), 7, kSource, "handleDelete(", group->groupAddr_, "::", intfId_,
              "), status unintialized");
    return;
  }
  if (auto const quarnStatus = sm->quarnStatus_) {
    quarnStatus->groupIntfDel(GroupIntfKey(group->groupAddr_, intfId_));
  }
}

// ---- GroupQuarnWriterSm

GroupQuarnWriterSm::GroupQuarnWriterSm(Kiv::Ptr<Bidir::Status const> const& status,
                                       Kiv::Ptr<Status> const& quarnStatus)
    : StateMachine("GroupQuarnWriterSm"), quarnStatus_(quarnStatus) {
  statusIs(status);
  handleInitialized();
}

GroupQuarnWriterSm::~GroupQuarnWriterSm() {
  // Every reactor deaf before any is released; the holders then detach them without their
  // delete hooks, so the records stay in the tables.
  kivDoZombieReactors(true);
}

void GroupQuarnWriterSm::statusIs(Kiv::Ptr<Bidir::Status const> const& status) {
  if (status == status_ && kivStatus_.reactor()) return;
  newStatus(status);
}

Kiv::Ptr<GroupQuarnWriterSm::KivStatus> GroupQuarnWriterSm::newStatus(
    Kiv::Ptr<Bidir::Status const> const& status) {
  auto const keep = Kiv::liveRef(this);
  status_ = status;
  kivStatus_.reactorIs(status ? Kiv::newPtr<KivStatus>(this, status) : nullptr);
  Kiv::Ptr<KivStatus> reactor = kivStatus_.reactor();
  if (reactor) {
    reactor->onGroupkivImmediate();
  } else {
    groupDelAll();  // without a Status the guard keeps every record
  }
  return reactor;
}

Kiv::Ptr<GroupQuarnWriterSm::KivGroup> GroupQuarnWriterSm::groupIs(
    Kiv::Ptr<Bidir::Group const> const& _group) {
  if (!_group) {
    Kiv::throwNullArgument("_group", "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::group");
  }
  if (auto existing = groups_.member(_group->groupAddr())) {
    if (existing->notifier() == _group) return existing;
    groups_.memberDel(_group->groupAddr());  // it watched an entity that has been replaced
  }
  return groups_.memberIs(_group->groupAddr(), [&] { return Kiv::newPtr<KivGroup>(this, _group); });
}

Kiv::Ptr<GroupQuarnWriterSm::KivGroup> GroupQuarnWriterSm::newGroup(
    Kiv::Ptr<Bidir::Group const> const& _group) {
  if (!_group) {
    Kiv::throwNullArgument("_group", "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm::group");
  }
  return groups_.newMember(_group->groupAddr(),
                           [&] { return Kiv::newPtr<KivGroup>(this, _group); });
}

void GroupQuarnWriterSm::groupNotify(Lanx::IpGenAddr const& address) const {
  using OnGroup = void (NotifieeConst::*)(Lanx::IpGenAddr const&);
  notify(Attr::group, OnGroup(&NotifieeConst::onGroup), address);
}

void GroupQuarnWriterSm::handleInitialized() {
  KIV_TRACE(trace(), 8, kSource, "handleInitialized");
  attributeIs(initialized_, true, Attr::initialized, &NotifieeConst::onInitialized);
}

Kiv::AttributeTable const& GroupQuarnWriterSm::attributeTable() const {
  return kTable;
}

Kiv::Ptr<GroupQuarnWriterSm> groupQuarnWriterSmFactory(Kiv::Ptr<Bidir::Status const> const& status,
                                                       Kiv::Ptr<Status> const& quarnStatus) {
  return Kiv::newPtr<GroupQuarnWriterSm>(status, quarnStatus);
}

}  // namespace Routing::Pim::Bidir::Quarn
