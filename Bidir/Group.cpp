#include "Bidir/Group.h"

#include "Bidir/Status.h"
#include "Kiv/GenericAttribute.h"

namespace Routing::Pim::Bidir {

namespace {

constexpr auto kAttributes = Kiv::declarations(Group::attributes());
constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::Group", kAttributes,
                                     &Kiv::kEntityAttributeTable};

// rp() and rpaRpf() of group `group` under `status` (its parent, taken once by the caller).
// Internal linkage, so that joinDesired can inline them into its loop.
Lanx::IpGenAddr rpOf(Status const* status, Lanx::IpGenAddr const& group) {
  if (status == nullptr || !status->rpHashStatus()) return Lanx::IpGenAddr();
  return status->rpHashStatus()->rpHash(Lanx::IpGenPrefix(group)).rp;
}

Df::Quarn::RpaRpf rpaRpfOf(Status const* status, Lanx::IpGenAddr const& group) {
  if (status == nullptr || !status->rpaRpfStatus()) return Df::Quarn::RpaRpf(Lanx::IpGenAddr());
  return status->rpaRpfStatus()->rpaRpf(rpOf(status, group));
}

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

Lanx::IpGenAddr Group::rp() const {
  return rpOf(statusOf(), groupAddr_);
}

Df::Quarn::RpaRpf Group::rpaRpf() const {
  return rpaRpfOf(statusOf(), groupAddr_);
}

Routing::Pim::RouteKey Group::routeKey() const {
  return Routing::Pim::RouteKey(Lanx::IpGenAddr::unspecified(groupAddr_.family()), groupAddr_);
}

bool Group::joinDesired() const {
  // The parent cannot change during the walk (nothing here notifies): it is taken once. Each
  // interface examined still looks both records up afresh.
  Status const* const status = statusOf();
  for (GroupIntf const& member : groupIntfs_.range()) {
    if (member.intfId() == rpaRpfOf(status, groupAddr_).rpfInterface) continue;
    if (member.oList()) return true;
  }
  return false;
}

Kiv::Ptr<Group> groupFactory(Lanx::IpGenAddr const& groupAddr) {
  return Kiv::newPtr<Group>(groupAddr);
}

}  // namespace Routing::Pim::Bidir
