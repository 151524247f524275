#include "Bidir/Status.h"

namespace Routing::Pim::Bidir {

namespace {

using Kind = Kiv::AttributeKind;
using A = Status::Attr;

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"group", A::group, "Routing::Pim::Bidir::Group", Kind::collection},
    {"rpaRpfStatus", A::rpaRpfStatus, "Routing::Pim::Bidir::Df::Quarn::RpaRpfStatus",
     Kind::settableReference},
    {"rpHashStatus", A::rpHashStatus, "Routing::Pim::RpHashStatus", Kind::settableReference},
    {"initialized", A::initialized, "Bool", Kind::settable},
};

constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::Status", kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Status::~Status() {
  groupDelAll();
}

Kiv::AttributeTable const& Status::attributeTable() const {
  return kTable;
}

Kiv::Ptr<Status> statusFactory(Kiv::Name name) {
  return Kiv::newPtr<Status>(std::move(name));
}

}  // namespace Routing::Pim::Bidir
