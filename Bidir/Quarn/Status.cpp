#include "Bidir/Quarn/Status.h"

#include "Kiv/GenericAttribute.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

constexpr auto kAttributes = Kiv::declarations(Status::attributes());
constexpr Kiv::AttributeTable kTable{Status::typeName, kAttributes, &Kiv::kEntityAttributeTable};

}  // namespace

Status::Status(Kiv::Name name) : Kiv::Entity(std::move(name)) {
  groupIntf_.entity("groupIntf", *this, &Status::groupIntfNotify);
  group_.entity("group", *this, &Status::groupNotify);
}

Status::~Status() = default;

Kiv::AttributeTable const& Status::attributeTable() const {
  return kTable;
}

Kiv::Value Status::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

// ---- group

Group Status::group(Lanx::IpGenAddr const& key) const {
  return group_.record(key);
}

Group const& Status::newGroup(Group const& record) {
  group_.safeWrite(record);
  return record;
}

void Status::groupIs(Group const& record) {
  group_.recordIs(record);
}

void Status::groupCommit(Group const* record) {
  group_.recordCommit(*record);
}

Group Status::groupDel(Lanx::IpGenAddr const& key) {
  return group_.recordDel(key);
}

void Status::groupDel(GroupIterator& it) {
  if (it) group_.recordDel(it.key());
}

void Status::groupDelAll() {
  group_.recordDelAll();
}

void Status::groupNotify(Lanx::IpGenAddr const& key) const {
  using OnGroup = void (NotifieeConst::*)(Lanx::IpGenAddr const&);
  notify(Attr::group, OnGroup(&NotifieeConst::onGroup), key);
}

// ---- groupIntf

GroupIntf Status::groupIntf(GroupIntfKey const& key) const {
  return groupIntf_.record(key);
}

GroupIntf const& Status::newGroupIntf(GroupIntf const& record) {
  groupIntf_.safeWrite(record);
  return record;
}

void Status::groupIntfIs(GroupIntf const& record) {
  groupIntf_.recordIs(record);
}

void Status::groupIntfCommit(GroupIntf const* record) {
  groupIntf_.recordCommit(*record);
}

GroupIntf Status::groupIntfDel(GroupIntfKey const& key) {
  return groupIntf_.recordDel(key);
}

void Status::groupIntfDel(GroupIntfIterator& it) {
  if (it) groupIntf_.recordDel(it.key());
}

void Status::groupIntfDelAll() {
  groupIntf_.recordDelAll();
}

void Status::groupIntfNotify(GroupIntfKey const& key) const {
  using OnGroupIntf = void (NotifieeConst::*)(GroupIntfKey const&);
  notify(Attr::groupIntf, OnGroupIntf(&NotifieeConst::onGroupIntf), key);
}

// ---- mounting and placement

KivQuarn::MountInfo Status::writerMountInfo() const {
  KivQuarn::MountInfo info;
  info.collectionInfoIs("group", {groupCapacity});
  info.collectionInfoIs("groupIntf", {groupIntfCapacity});
  return info;
}

void Status::mount(::Quarn::QuarnType mode) {
  KivQuarn::MountInfo const info = writerMountInfo();
  groupIntf_.mount(mode, info);
  group_.mount(mode, info);
}

void Status::mountReader(::Quarn::QuarnType mode) {
  KivQuarn::MountInfo const info = writerMountInfo();
  group_.mount(mode, info);
  groupIntf_.mount(mode, info);
}

void Status::handleParent(Kiv::Ptr<Kiv::Entity> const&) {
  groupIntf_.handleParent();
  group_.handleParent();
}

void Status::parentChanged() {
  handleParent(nullptr);
}

Kiv::Ptr<Status> statusFactory(Kiv::Name name) {
  return Kiv::newPtr<Status>(std::move(name));
}

}  // namespace Routing::Pim::Bidir::Quarn
