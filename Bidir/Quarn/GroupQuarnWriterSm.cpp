#include "Bidir/Quarn/GroupQuarnWriterSm.h"

#include <vector>

#include "Kiv/GenericAttribute.h"
#include "Jorv/Trace.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

Jorv::TraceHandle& trace() {
  static Jorv::TraceHandle& handle = Jorv::traceHandle("PimBidir::QuarnWriter");
  return handle;
}

constexpr char kSource[] = "GroupQuarnWriterSm::";

// The entry line of an update or removal, and its guard: true when the agent's Status is
// initialised; otherwise the "status ..." line (spelt as the caller passes it) and false.
template <class... Key>
bool initializedFor(bool initialized, char const* function, char const* uninitialized,
                    Key const&... key) {
  KIV_TRACE(trace(), 8, kSource, function, "(", key..., ")");
  if (initialized) return true;
  KIV_TRACE(trace(), 7, kSource, function, "(", key..., "), status ", uninitialized);
  return false;
}

constexpr auto kAttributes = Kiv::declarations(GroupQuarnWriterSm::attributes());
constexpr Kiv::AttributeTable kTable{GroupQuarnWriterSm::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

template <class Op, class... Key>
void GroupQuarnWriterSm::tableOp(char const* function, char const* table, Op&& op,
                                 Key const&... key) {
  try {
    op();
  } catch (std::exception const& e) {
    // One error line per incident: the failures that follow the first one until a resync
    // repairs the tables (a full file system fails every write that needs space) are counted in
    // tableFailures() and traced as detail.
    int const level = tableFailures_ == 0 ? 0 : 4;
    ++tableFailures_;
    KIV_TRACE(trace(), level, kSource, function, "(", key..., ") table ", table, ": ", e.what());
    throw;
  }
}

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
  // Many calls that notify follow: keep the state machine, and walk a snapshot, since handlers
  // may change both the agent's groups and this state machine's reactors meanwhile.
  auto const sm = Kiv::liveRef(owner());
  GroupQuarnWriterSm* const machine = owner();
  auto const status = notifier();
  std::vector<Kiv::Ptr<Bidir::Group const>> groups;
  groups.reserve(status->groupCount());
  for (auto it = status->groupIter().begin(); it != status->groupIter().end(); ++it) {
    groups.push_back(it.ptr());
  }
  machine->groups_.memberSync(
      groups,
      [&](Kiv::Ptr<Bidir::Group const> const& group) {
        if (group->bidirStatus() == status) machine->groupIs(group);
      },
      [&](Lanx::IpGenAddr const& address) { return bool(status->group(address)); },
      [&] { return kivAlive(); });
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
  return intfs_.memberIs(_intf->intfId(), _intf, [&] { return Kiv::newPtr<KivIntf>(this, _intf); });
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
  intfs_.memberSync(
      present,
      [&](Kiv::Ptr<Bidir::GroupIntf const> const& groupIntf) {
        if (groupIntf->parentGroup() == group) intfIs(groupIntf);
      },
      [&](Lanx::IntfId const& intfId) { return bool(group->groupIntf(intfId)); },
      [&] { return kivAlive(); });
}

void GroupQuarnWriterSm::KivGroup::doUpdateGroup() {
  GroupQuarnWriterSm* const sm = owner();
  if (sm == nullptr) return;
  if (!initializedFor(sm->statusInitialized(), "doUpdateGroup", "uninitialized", groupAddr_)) {
    return;
  }
  auto const group = notifier();
  if (!group || !sm->quarnStatus_) return;
  Group record;
  record.key = groupAddr_;
  record.creationTime = group->creationTime();
  record.upJoinState = group->upJoinState();
  record.inactive = group->inactive();
  sm->tableOp("doUpdateGroup", "group", [&] { sm->quarnStatus_->groupIs(record); }, groupAddr_);
}

void GroupQuarnWriterSm::KivGroup::handleDelete() {
  GroupQuarnWriterSm* const sm = owner();
  if (sm == nullptr) return;
  if (!initializedFor(sm->statusInitialized(), "handleDelete", "uninitialized", groupAddr_)) {
    return;
  }
  // Runs from the removal of this reactor, whose holder keeps the state machine alive; this
  // reactor is a zombie by now, so its interface reactors do not change under the walk.
  for (KivIntf& intf : intfs_.range()) intf.handleDelete();
  if (auto const quarnStatus = sm->quarnStatus_) {
    sm->tableOp("handleDelete", "group", [&] { quarnStatus->groupDel(groupAddr_); }, groupAddr_);
  }
}

void GroupQuarnWriterSm::KivGroup::resync() {
  onGroupIntfkivImmediate();
  std::vector<Lanx::IntfId> present;
  present.reserve(intfs_.size());
  for (KivIntf const& intf : intfs_.range()) present.push_back(intf.intfId());
  for (Lanx::IntfId const& intfId : present) {
    if (auto const intf = intfs_.member(intfId)) intf->doUpdateGroupIntf();
  }
  doUpdateGroup();
}

// ---- KivIntf

GroupQuarnWriterSm::KivGroup::KivIntf::KivIntf(KivGroup* kivGroup,
                                               Kiv::Ptr<Bidir::GroupIntf const> const& groupIntf)
    : Reactor(kivGroup), key_(kivGroup->groupAddr_, groupIntf->intfId()), sm_(kivGroup->owner()) {
  notifierIs(groupIntf);
  doUpdateGroupIntf();
  initialized_ = true;
}

GroupQuarnWriterSm* GroupQuarnWriterSm::KivGroup::KivIntf::writer() const noexcept {
  if (!kivZombie()) return sm_;
  KivGroup const* const group = kivGroup();
  return group ? group->owner() : nullptr;
}

Kiv::Activity& GroupQuarnWriterSm::KivGroup::KivIntf::kivFwkActivity() const {
  GroupQuarnWriterSm const* const sm = writer();
  return sm ? sm->kivFwkActivity() : Kiv::Activity::current();
}

void GroupQuarnWriterSm::KivGroup::KivIntf::doUpdateGroupIntf() {
  GroupQuarnWriterSm* const sm = writer();
  if (sm == nullptr) return;
  if (!initializedFor(sm->statusInitialized(), "doUpdateGroupIntf", "unintialized",
                      key_.groupAddr(), "::", key_.intfId())) {
    return;
  }
  auto const* const groupIntf = static_cast<Bidir::GroupIntf const*>(notifierBase());
  if (groupIntf == nullptr || !sm->quarnStatus_) return;
  GroupIntf record;
  record.key = key_;
  record.forward = groupIntf->forward();
  record.joinState = groupIntf->joinState();
  record.lastJoinReceived = groupIntf->lastJoinReceived();
  record.localReceiverInclude = groupIntf->localReceiverInclude();
  record.iAmDf = groupIntf->iAmDf();
  sm->tableOp("doUpdateGroupIntf", "groupIntf", [&] { sm->quarnStatus_->groupIntfIs(record); },
              key_.groupAddr(), "::", key_.intfId());
}

void GroupQuarnWriterSm::KivGroup::KivIntf::handleDelete() {
  GroupQuarnWriterSm* const sm = writer();
  if (sm == nullptr) return;
  if (!initializedFor(sm->statusInitialized(), "handleDelete", "unintialized", key_.groupAddr(),
                      "::", key_.intfId())) {
    return;
  }
  if (auto const quarnStatus = sm->quarnStatus_) {
    sm->tableOp("handleDelete", "groupIntf", [&] { quarnStatus->groupIntfDel(key_); },
                key_.groupAddr(), "::", key_.intfId());
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
  return groups_.memberIs(_group->groupAddr(), _group,
                          [&] { return Kiv::newPtr<KivGroup>(this, _group); });
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

void GroupQuarnWriterSm::resync() {
  auto const keep = Kiv::liveRef(this);
  KIV_TRACE(trace(), 3, kSource, "resync() after ", tableFailures_, " table failures");
  if (!statusInitialized() || !quarnStatus_) return;
  std::uint64_t const failures = tableFailures_;
  if (auto const reactor = kivStatus_.reactor()) reactor->onGroupkivImmediate();
  std::vector<Lanx::IpGenAddr> present;
  present.reserve(groups_.size());
  for (KivGroup const& group : groups_.range()) present.push_back(group.groupAddr());
  for (Lanx::IpGenAddr const& address : present) {
    if (auto const group = groups_.member(address)) group->resync();
  }
  // What no reactor stands for any more: records that a failed removal left behind.
  std::vector<GroupIntfKey> staleIntfs;
  for (auto it = quarnStatus_->groupIntfIterator(); it; ++it) {
    auto const group = groups_.member(it.key().groupAddr());
    if (!group || !group->intf(it.key().intfId())) staleIntfs.push_back(it.key());
  }
  for (GroupIntfKey const& key : staleIntfs) {
    tableOp("resync", "groupIntf", [&] { quarnStatus_->groupIntfDel(key); }, key.groupAddr(),
            "::", key.intfId());
  }
  std::vector<Lanx::IpGenAddr> staleGroups;
  for (auto it = quarnStatus_->groupIterator(); it; ++it) {
    if (!groups_.member(it.key())) staleGroups.push_back(it.key());
  }
  for (Lanx::IpGenAddr const& address : staleGroups) {
    tableOp("resync", "group", [&] { quarnStatus_->groupDel(address); }, address);
  }
  // Failures during this walk raised out of it; those before it are repaired now.
  tableFailures_ -= failures;
}

void GroupQuarnWriterSm::handleInitialized() {
  KIV_TRACE(trace(), 8, kSource, "handleInitialized");
  attributeIs(initialized_, true, Attr::initialized, &NotifieeConst::onInitialized);
}

Kiv::AttributeTable const& GroupQuarnWriterSm::attributeTable() const {
  return kTable;
}

Kiv::Value GroupQuarnWriterSm::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::Ptr<GroupQuarnWriterSm> groupQuarnWriterSmFactory(Kiv::Ptr<Bidir::Status const> const& status,
                                                       Kiv::Ptr<Status> const& quarnStatus) {
  return Kiv::newPtr<GroupQuarnWriterSm>(status, quarnStatus);
}

}  // namespace Routing::Pim::Bidir::Quarn
