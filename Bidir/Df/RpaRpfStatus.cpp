#include "Bidir/Df/RpaRpfStatus.h"

namespace Routing::Pim::Bidir::Df::Quarn {

namespace {

constexpr Kiv::AttributeDecl kAttributes[] = {
    {"rpaRpf", RpaRpfStatus::Attr::rpaRpf, RpaRpf::typeName, Kiv::AttributeKind::table},
};

constexpr Kiv::AttributeTable kTable{RpaRpfStatus::typeName, kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Kiv::AttributeTable const& RpaRpfStatus::attributeTable() const {
  return kTable;
}

}  // namespace Routing::Pim::Bidir::Df::Quarn
