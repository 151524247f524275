#include "Bidir/Group.h"

#include "Bidir/Status.h"
#include "Kiv/GenericAttribute.h"

namespace Routing::Pim::Bidir {

namespace {

constexpr auto kAttributes = Kiv::declarations(Group::attributes());
constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::Group", kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Group::~Group() {
  groupIntfDelAll();
}

Kiv::AttributeTable const& Group::attributeTable() const {
  return kTable;
}

Kiv::Value Group::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
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

Routing::Pim::RouteKey Group::routeKey() const {
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
