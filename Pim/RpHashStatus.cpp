#include "Pim/RpHashStatus.h"

namespace Routing::Pim {

namespace {

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"rpHash", RpHashStatus::Attr::rpHash, RpHash::typeName, Kiv::AttributeKind::table},
};

constexpr Kiv::AttributeTable kTable{RpHashStatus::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Kiv::AttributeTable const& RpHashStatus::attributeTable() const {
  return kTable;
}

}  // namespace Routing::Pim
