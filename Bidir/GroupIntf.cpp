#include "Bidir/GroupIntf.h"

#include "Bidir/Group.h"
#include "Kiv/GenericAttribute.h"

namespace Routing::Pim::Bidir {

namespace {

constexpr auto kAttributes = Kiv::declarations(GroupIntf::attributes());
constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::GroupIntf", kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Kiv::AttributeTable const& GroupIntf::attributeTable() const {
  return kTable;
}

Kiv::Value GroupIntf::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::Ptr<Group> GroupIntf::parentGroup() const {
  return dynamic_cast<Group*>(parent());
}

Kiv::Ptr<GroupIntf> groupIntfFactory(Lanx::IntfId intfId) {
  return Kiv::newPtr<GroupIntf>(intfId);
}

}  // namespace Routing::Pim::Bidir
