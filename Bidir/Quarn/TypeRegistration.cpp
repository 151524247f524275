// Registration of the Routing::Pim::Bidir::Quarn types with the framework's introspection: the
// table records, their root and the state machines, under the namespaces Routing, Pim, Bidir,
// Quarn, by the same run-once procedure as the Routing::Pim::Bidir types (Bidir/TypeRegistration.h):
// bound at load in ".kiv.type" order, defined once the introspection reactor is active.

#include "Bidir/Quarn/Group.h"
#include "Bidir/Quarn/GroupIntf.h"
#include "Bidir/Quarn/GroupQuarnReaderSm.h"
#include "Bidir/Quarn/GroupQuarnRestartSm.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
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

// A factory handed out as a generic constructor: the same arguments, the result as an entity.
template <auto Factory>
struct EntityFactory;
template <class R, class... Args, R (*Factory)(Args...)>
struct EntityFactory<Factory> {
  static Kiv::Ptr<Kiv::Entity> make(std::remove_cvref_t<Args>... args) {
    return Kiv::Ptr<Kiv::Entity>(Factory(args...));
  }
};

// An entity type known by its name (the table root, the state machines), with its factory as
// generic constructor.
template <class E, auto Factory>
void defineNamedEntity(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(E::typeName);
  Kiv::entityDefine(r, t, "name", "Kiv::Name", E::attributes());
  t.constructorIs(
      Kiv::constructorOf(Kiv::shortTypeName(E::typeName), &EntityFactory<Factory>::make));
}

template <class E>
std::vector<Kiv::String8> handleNames() {
  return Kiv::entityAttributeNames(E::attributes());
}

template <class E, auto Factory>
constexpr Kiv::SchemaType namedEntity() {
  return {E::typeName, &E::_fwkType, &defineNamedEntity<E, Factory>, &handleNames<E>};
}

// In ".kiv.type" order.
constexpr Kiv::SchemaType kTypes[] = {
    {GroupIntf::typeName, &GroupIntf::_fwkType, &defineValue<GroupIntf>, nullptr},
    {Group::typeName, &Group::_fwkType, &defineValue<Group>, nullptr},
    namedEntity<Status, &statusFactory>(),
    namedEntity<GroupQuarnReaderSm, &groupQuarnReaderSmFactory>(),
    namedEntity<GroupQuarnWriterSm, &groupQuarnWriterSmFactory>(),
    namedEntity<GroupQuarnRestartSm, &groupQuarnRestartSmFactory>(),
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
Kiv::TypeDescriptor const& GroupQuarnReaderSm::_fwkType() {
  return quarnType<GroupQuarnReaderSm>(typeName);
}
Kiv::TypeDescriptor const& GroupQuarnWriterSm::_fwkType() {
  return quarnType<GroupQuarnWriterSm>(typeName);
}
Kiv::TypeDescriptor const& GroupQuarnRestartSm::_fwkType() {
  return quarnType<GroupQuarnRestartSm>(typeName);
}

}  // namespace Routing::Pim::Bidir::Quarn
