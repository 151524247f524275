// Registration of the Routing::Pim::Bidir::Quarn types with the framework's introspection: the
// table records, their root and the state machines, under the namespaces Routing, Pim, Bidir,
// Quarn, by the same run-once procedure as the Routing::Pim::Bidir types (Bidir/TypeRegistration.h):
// bound at load in ".kiv.type" order, defined once the introspection reactor is active.

#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Bidir/Quarn/Status.h"
#include "Kiv/GenericAttribute.h"
#include "Kiv/Type.h"
#include "Kiv/ValueText.h"

namespace Routing::Pim::Bidir::Quarn {

namespace {

void define(Kiv::IntrospectionReactor& reactor);
constinit Kiv::SchemaRegistration gSchema{&define};

void schemaRegister() {
  gSchema.run();
}

template <class Tag>
Kiv::TypeDescriptor const& quarnType(std::string_view name) {
  return Kiv::fwkTypeOf<Tag>(name, &schemaRegister);
}

template <class V>
void defineValue(Kiv::IntrospectionReactor& r) {
  Kiv::valueDefine(r, Kiv::typeIs(V::typeName), V::attributes());
}

// An entity type created from a name, with its factory as generic constructor.
template <class E, auto Factory>
void defineNamedEntity(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(E::typeName);
  Kiv::entityDefine(r, t, "name", "Kiv::Name", E::attributes());
  t.constructorIs(Kiv::constructorOf(
      Kiv::shortTypeName(E::typeName),
      +[](Kiv::Name name) { return Kiv::Ptr<Kiv::Entity>(Factory(std::move(name))); }));
}

template <class E>
std::vector<Kiv::String8> handleNames() {
  return Kiv::entityAttributeNames(E::attributes());
}

// In ".kiv.type" order. Each state machine adds its line here, once it declares `typeName`,
// `_fwkType()` and `attributes()` and has a `...Factory(Kiv::Name)`:
//   {T::typeName, &T::_fwkType, &defineNamedEntity<T, &tFactory>, &handleNames<T>},
// for T = GroupQuarnReaderSm, GroupQuarnWriterSm, GroupQuarnRestartSm, in that order.
constexpr Kiv::SchemaType kTypes[] = {
    {GroupIntf::typeName, &GroupIntf::_fwkType, &defineValue<GroupIntf>, nullptr},
    {Group::typeName, &Group::_fwkType, &defineValue<Group>, nullptr},
    {Status::typeName, &Status::_fwkType, &defineNamedEntity<Status, &statusFactory>,
     &handleNames<Status>},
};

constexpr std::string_view kNamespaces[] = {"Routing", "Pim", "Bidir", "Quarn"};

void define(Kiv::IntrospectionReactor& reactor) {
  Kiv::schemaDefine(reactor, kNamespaces, kTypes);
}

// Load-time initialisation.
[[maybe_unused]] bool const kLoaded = [] {
  Kiv::schemaBind(kTypes, gSchema);
  return true;
}();

}  // namespace

Kiv::TypeDescriptor const& Group::_fwkType() {
  return quarnType<Group>(typeName);
}
Kiv::TypeDescriptor const& GroupIntf::_fwkType() {
  return quarnType<GroupIntf>(typeName);
}
Kiv::TypeDescriptor const& Status::_fwkType() {
  return quarnType<Status>(typeName);
}

}  // namespace Routing::Pim::Bidir::Quarn
