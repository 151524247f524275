#include "Bidir/GroupIntf.h"

#include "Bidir/Group.h"

namespace Routing::Pim::Bidir {

namespace {

using Kind = Kiv::AttributeKind;
using A = GroupIntf::Attr;

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"intfId", A::intfId, "Lanx::IntfId", Kind::key},
    {"parentGroup", A::parentGroup, "Routing::Pim::Bidir::Group", Kind::parentReference},
    {"joinState", A::joinState, "Routing::Pim::Bidir::GroupIntf::JoinState", Kind::settable},
    {"lastJoinReceived", A::lastJoinReceived, "F64", Kind::settable},
    {"forward", A::forward, "Bool", Kind::settable},
    {"localReceiverInclude", A::localReceiverInclude, "Bool", Kind::settable},
    {"iAmDf", A::iAmDf, "Bool", Kind::settable},
    {"oList", A::oList, "Bool", Kind::computed},
    {"pimInclude", A::pimInclude, "Bool", Kind::computed},
    {"joins", A::joins, "Bool", Kind::computed},
};

constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::GroupIntf", kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Kiv::AttributeTable const& GroupIntf::attributeTable() const {
  return kTable;
}

Kiv::Ptr<Group> GroupIntf::parentGroup() const {
  return dynamic_cast<Group*>(parent());
}

Kiv::Ptr<GroupIntf> groupIntfFactory(Lanx::IntfId intfId) {
  return Kiv::newPtr<GroupIntf>(intfId);
}

}  // namespace Routing::Pim::Bidir
