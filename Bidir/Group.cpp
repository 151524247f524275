#include "Bidir/Group.h"

#include "Bidir/Status.h"

namespace Routing::Pim::Bidir {

namespace {

using Kind = Kiv::AttributeKind;
using A = Group::Attr;

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"groupAddr", A::groupAddr, "Lanx::IpGenAddr", Kind::key},
    {"creationTime", A::creationTime, "F64", Kind::settable},
    {"rpaRpf", A::rpaRpf, "Routing::Pim::Bidir::Df::Quarn::RpaRpf", Kind::computed},
    {"rpf", A::rpf, "Routing::Pim::Rpf", Kind::computedInline},
    {"prevRpf", A::prevRpf, "Routing::Pim::Rpf", Kind::settable},
    {"prevRpaId", A::prevRpaId, "U16", Kind::settable},
    {"rp", A::rp, "Lanx::IpGenAddr", Kind::computed},
    {"rpaIndex", A::rpaIndex, "U16", Kind::computedInline},
    {"upJoinState", A::upJoinState, "Routing::Pim::Bidir::Group::UpJoinState", Kind::settable},
    {"groupIntf", A::groupIntf, "Routing::Pim::Bidir::GroupIntf", Kind::collection},
    {"neighborGenIdChanged", A::neighborGenIdChanged, "U8", Kind::counter},
    {"rpfChanged", A::rpfChanged, "U8", Kind::counter},
    {"inactiveCount", A::inactiveCount, "U8", Kind::counter},
    {"inactive", A::inactive, "Bool", Kind::settable},
    {"initialized", A::initialized, "Bool", Kind::settable},
    {"routeKey", A::routeKey, "Routing::Pim::RouteKey", Kind::computed},
    {"bidirStatus", A::bidirStatus, "Routing::Pim::Bidir::Status", Kind::parentReference},
    {"joinDesired", A::joinDesired, "Bool", Kind::computed},
};

constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::Group", kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Group::~Group() {
  groupIntfDelAll();
}

Kiv::AttributeTable const& Group::attributeTable() const {
  return kTable;
}

Kiv::Ptr<Status> Group::bidirStatus() const {
  return dynamic_cast<Status*>(parent());
}

// The parent as a plain pointer: the computations take no reference (nothing to release on the
// hot path, and nothing handed out).
Status const* Group::statusOf() const noexcept {
  return dynamic_cast<Status const*>(parent());
}

Lanx::IpGenAddr Group::rpOf(Status const* status) const {
  if (status == nullptr || !status->rpHashStatus()) return Lanx::IpGenAddr();
  return status->rpHashStatus()->rpHash(Lanx::IpGenPrefix(groupAddr_)).rp;
}

Df::Quarn::RpaRpf Group::rpaRpfOf(Status const* status) const {
  if (status == nullptr || !status->rpaRpfStatus()) return Df::Quarn::RpaRpf(Lanx::IpGenAddr());
  return status->rpaRpfStatus()->rpaRpf(rpOf(status));
}

Lanx::IpGenAddr Group::rp() const {
  return rpOf(statusOf());
}

Df::Quarn::RpaRpf Group::rpaRpf() const {
  return rpaRpfOf(statusOf());
}

Routing::Pim::RouteKey Group::routeKey() {
  return Routing::Pim::RouteKey(Lanx::IpGenAddr::unspecified(groupAddr_.family()), groupAddr_);
}

bool Group::joinDesired() const {
  for (GroupIntf const& member : groupIntfs_.range()) {
    // The parent cannot change during the walk (nothing here notifies), so it is looked up once
    // per member, not once per table.
    if (member.intfId() == rpaRpfOf(statusOf()).rpfInterface) continue;
    if (member.oList()) return true;
  }
  return false;
}

Kiv::Ptr<Group> groupFactory(Lanx::IpGenAddr const& groupAddr) {
  return Kiv::newPtr<Group>(groupAddr);
}

}  // namespace Routing::Pim::Bidir
