#include "Bidir/Config.h"

#include "Bidir/ConfigColl.h"
#include "Kiv/GenericAttribute.h"

namespace Routing::Pim::Bidir {

namespace {

constexpr auto kConfigAttributes = Kiv::declarations(Config::attributes());
constexpr Kiv::AttributeTable kConfigTable{Config::typeName, kConfigAttributes,
                                           &Kiv::kEntityAttributeTable};
constexpr auto kConfigCollAttributes = Kiv::declarations(ConfigColl::attributes());
constexpr Kiv::AttributeTable kConfigCollTable{ConfigColl::typeName, kConfigCollAttributes,
                                               &Kiv::kEntityAttributeTable};

}  // namespace

Kiv::Value Config::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::Value ConfigColl::attributeOpOwn(Kiv::AttributeRequest const& request) {
  return Kiv::attributeOp(*this, attributes(), request, [&] { return attributeOpBase(request); });
}

Kiv::AttributeTable const& Config::attributeTable() const {
  return kConfigTable;
}

Kiv::AttributeTable const& ConfigColl::attributeTable() const {
  return kConfigCollTable;
}

Kiv::Ptr<Config> configFactory(L3::VrfName const& vrfName) {
  return Kiv::newPtr<Config>(vrfName);
}

Kiv::Ptr<ConfigColl> configCollFactory(Kiv::Name name) {
  return Kiv::newPtr<ConfigColl>(std::move(name));
}

}  // namespace Routing::Pim::Bidir
