#include "Bidir/ClearConfig.h"

#include <ostream>

#include "Bidir/ClearConfigColl.h"
#include "Kiv/GenericAttribute.h"
#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir {

namespace {

constexpr auto kClearConfigAttributes = Kiv::declarations(ClearConfig::attributes());
constexpr Kiv::AttributeTable kClearConfigTable{ClearConfig::typeName, kClearConfigAttributes,
                                                &Kiv::kEntityAttributeTable};
constexpr auto kClearConfigCollAttributes = Kiv::declarations(ClearConfigColl::attributes());
constexpr Kiv::AttributeTable kClearConfigCollTable{
    ClearConfigColl::typeName, kClearConfigCollAttributes, &Kiv::kEntityAttributeTable};

}  // namespace

ClearConfig::GroupKey::GroupKey(Kiv::TextIt& cursor, Kiv::TextIt end) {
  Kiv::valueTypeFromStrep(cursor, end, *this);
}

Kiv::String8 valueToStrep(ClearConfig::GroupKey const& v) {
  return Kiv::valueTypeToStrep(v);
}

std::ostream& operator<<(std::ostream& os, ClearConfig::GroupKey const& v) {
  return os << valueToStrep(v);
}

Kiv::Value ClearConfig::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::Value ClearConfigColl::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::AttributeTable const& ClearConfig::attributeTable() const {
  return kClearConfigTable;
}

Kiv::AttributeTable const& ClearConfigColl::attributeTable() const {
  return kClearConfigCollTable;
}

Kiv::Ptr<ClearConfig> clearConfigFactory(L3::VrfName const& vrfName) {
  return Kiv::newPtr<ClearConfig>(vrfName);
}

Kiv::Ptr<ClearConfigColl> clearConfigCollFactory(Kiv::Name name) {
  return Kiv::newPtr<ClearConfigColl>(std::move(name));
}

}  // namespace Routing::Pim::Bidir
