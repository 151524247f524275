#include "Bidir/Status.h"

#include "Kiv/GenericAttribute.h"

namespace Routing::Pim::Bidir {

namespace {

constexpr auto kAttributes = Kiv::declarations(Status::attributes());
constexpr Kiv::AttributeTable kTable{"Routing::Pim::Bidir::Status", kAttributes,
                                     &Kiv::kEntityAttributeTable};

}  // namespace

Status::~Status() {
  groupDelAll();
}

Kiv::AttributeTable const& Status::attributeTable() const {
  return kTable;
}

Kiv::Value Status::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::Ptr<Status> statusFactory(Kiv::Name name) {
  return Kiv::newPtr<Status>(std::move(name));
}

}  // namespace Routing::Pim::Bidir
