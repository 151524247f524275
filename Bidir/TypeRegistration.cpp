#include "Bidir/TypeRegistration.h"

#include <atomic>
#include <cstdint>

#include "Bidir/ClearConfigColl.h"
#include "Bidir/ConfigColl.h"
#include "Bidir/GroupIntfKey.h"
#include "Bidir/MrouteClearFlags.h"
#include "Bidir/Status.h"
#include "Kiv/GenericAttribute.h"
#include "Jorv/Trace.h"
#include "Kiv/Type.h"

namespace Routing::Pim::Bidir {

namespace {

// The ".kiv.type" section: one NUL-terminated name per type, in registration order. One array,
// so the order in the section is the order written here.
[[gnu::section(".kiv.type"), gnu::used]] constexpr char kKivTypes[] =
    "Routing::Pim::Bidir::GroupIntf::JoinState\0"
    "Routing::Pim::Bidir::Group::UpJoinState\0"
    "Routing::Pim::Bidir::ClearConfig::GroupKey\0"
    "Routing::Pim::Bidir::GroupIntfKey\0"
    "Routing::Pim::Bidir::GroupIntf\0"
    "Routing::Pim::Bidir::Group\0"
    "Routing::Pim::Bidir::Status\0"
    "Routing::Pim::Bidir::MrouteClearFlags\0"
    "Routing::Pim::Bidir::ClearConfig\0"
    "Routing::Pim::Bidir::ClearConfigColl\0"
    "Routing::Pim::Bidir::Config\0"
    "Routing::Pim::Bidir::ConfigColl\0"
    "Routing::Pim::Bidir::Quarn::GroupIntf\0"
    "Routing::Pim::Bidir::Quarn::Group\0"
    "Routing::Pim::Bidir::Quarn::Status\0"
    "Routing::Pim::Bidir::Quarn::GroupQuarnReaderSm\0"
    "Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm\0"
    "Routing::Pim::Bidir::Quarn::GroupQuarnRestartSm";

constexpr char kJoinState[] = "Routing::Pim::Bidir::GroupIntf::JoinState";
constexpr char kUpJoinState[] = "Routing::Pim::Bidir::Group::UpJoinState";
constexpr char kGroupIntf[] = "Routing::Pim::Bidir::GroupIntf";
constexpr char kGroup[] = "Routing::Pim::Bidir::Group";
constexpr char kStatus[] = "Routing::Pim::Bidir::Status";

void define(Kiv::IntrospectionReactor& reactor);
constinit Kiv::SchemaRegistration gSchema{&define};
std::atomic<bool> gInitialized{false};

// Generic creation of an entity type from its key: the factory, handed out as an entity.
template <auto Factory, class Key>
Kiv::TypeDescriptor::Constructor entityConstructor(std::string_view typeShortName) {
  return Kiv::constructorOf(
      typeShortName, +[](Key key) { return Kiv::Ptr<Kiv::Entity>(Factory(key)); });
}

template <class E>
std::vector<Kiv::String8> handleNames() {
  return Kiv::entityAttributeNames(E::attributes());
}

void defineGroupIntfKey(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(GroupIntfKey::typeName);
  Kiv::valueDefine(r, t, GroupIntfKey::attributes());
  t.constructorIs(Kiv::constructorOf(
      "GroupIntfKey", +[](Lanx::IpGenAddr a, Lanx::IntfId i) { return GroupIntfKey(a, i); }));
}

void defineGroupIntf(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(kGroupIntf);
  Kiv::entityDefine(r, t, "intfId", "Lanx::IntfId", GroupIntf::attributes(), [&] {
    Kiv::enumerationDefine(r, Kiv::typeIs(kJoinState), &GroupIntfStates::joinStateName);
  });
  t.constructorIs(entityConstructor<&groupIntfFactory, Lanx::IntfId>("GroupIntf"));
}

void defineGroup(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(kGroup);
  Kiv::entityDefine(r, t, "groupAddr", "Lanx::IpGenAddr", Group::attributes(), [&] {
    Kiv::enumerationDefine(r, Kiv::typeIs(kUpJoinState), &GroupStates::upJoinStateName);
  });
  t.constructorIs(entityConstructor<&groupFactory, Lanx::IpGenAddr>("Group"));
}

void defineStatus(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(kStatus);
  Kiv::entityDefine(r, t, "name", "Kiv::Name", Status::attributes());
  t.constructorIs(entityConstructor<&statusFactory, Kiv::Name>("Status"));
}

void defineMrouteClearFlags(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(MrouteClearFlags::typeName);
  Kiv::valueDefine(r, t, MrouteClearFlags::attributes(), [&] {
    r.constantIs("clearAll_", Kiv::Value(MrouteClearFlags::clearAll_, &t));
    r.constantIs("clearGroup_", Kiv::Value(MrouteClearFlags::clearGroup_, &t));
  });
  // The word, as a 64-bit integer of which the low 32 bits are kept, then checked.
  t.constructorIs(Kiv::constructorOf(
      "MrouteClearFlags",
      +[](std::int64_t word) { return MrouteClearFlags(static_cast<std::uint32_t>(word)); }));
}

void defineClearConfig(Kiv::IntrospectionReactor& r) {
  using GroupKey = ClearConfig::GroupKey;
  Kiv::TypeDescriptor& t = Kiv::typeIs(ClearConfig::typeName);
  Kiv::TypeDescriptor& key = Kiv::typeIs(GroupKey::typeName);
  Kiv::entityDefine(r, t, "vrfName", "L3::VrfName", ClearConfig::attributes(),
                    [&] { Kiv::valueDefine(r, key, GroupKey::attributes()); });
  key.constructorIs(Kiv::constructorOf(
      "GroupKey", +[](std::int64_t flagsWord, Lanx::IpGenAddr gAddr) {
        return GroupKey(static_cast<std::uint32_t>(flagsWord), gAddr);
      }));
  t.constructorIs(entityConstructor<&clearConfigFactory, L3::VrfName>("ClearConfig"));
}

void defineClearConfigColl(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(ClearConfigColl::typeName);
  Kiv::entityDefine(r, t, "name", "Kiv::Name", ClearConfigColl::attributes());
  t.constructorIs(entityConstructor<&clearConfigCollFactory, Kiv::Name>("ClearConfigColl"));
}

void defineConfig(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(Config::typeName);
  Kiv::entityDefine(r, t, "vrfName", "L3::VrfName", Config::attributes());
  t.constructorIs(entityConstructor<&configFactory, L3::VrfName>("Config"));
}

void defineConfigColl(Kiv::IntrospectionReactor& r) {
  Kiv::TypeDescriptor& t = Kiv::typeIs(ConfigColl::typeName);
  Kiv::entityDefine(r, t, "name", "Kiv::Name", ConfigColl::attributes());
  t.constructorIs(entityConstructor<&configCollFactory, Kiv::Name>("ConfigColl"));
}

// In ".kiv.type" order; the enumerations and GroupKey are defined inside their owners.
constexpr Kiv::SchemaType kTypes[] = {
    {kJoinState, &GroupIntf::_fwkType_JoinState, nullptr, nullptr},
    {kUpJoinState, &Group::_fwkType_UpJoinState, nullptr, nullptr},
    {ClearConfig::GroupKey::typeName, &ClearConfig::GroupKey::_fwkType, nullptr, nullptr},
    {GroupIntfKey::typeName, &GroupIntfKey::_fwkType, &defineGroupIntfKey, nullptr},
    {kGroupIntf, &GroupIntf::_fwkType, &defineGroupIntf, &handleNames<GroupIntf>},
    {kGroup, &Group::_fwkType, &defineGroup, &handleNames<Group>},
    {kStatus, &Status::_fwkType, &defineStatus, &handleNames<Status>},
    {MrouteClearFlags::typeName, &MrouteClearFlags::_fwkType, &defineMrouteClearFlags, nullptr},
    {ClearConfig::typeName, &ClearConfig::_fwkType, &defineClearConfig, &handleNames<ClearConfig>},
    {ClearConfigColl::typeName, &ClearConfigColl::_fwkType, &defineClearConfigColl,
     &handleNames<ClearConfigColl>},
    {Config::typeName, &Config::_fwkType, &defineConfig, &handleNames<Config>},
    {ConfigColl::typeName, &ConfigColl::_fwkType, &defineConfigColl, &handleNames<ConfigColl>},
};

constexpr std::string_view kNamespaces[] = {"Routing", "Pim", "Bidir"};

void define(Kiv::IntrospectionReactor& reactor) {
  Kiv::schemaDefine(reactor, kNamespaces, kTypes);
}

// Load-time initialisation.
[[maybe_unused]] bool const kLoaded = [] {
  Jorv::traceHandle("RootPathBase::Kiv");
  Kiv::schemaBind(kTypes, gSchema);
  gInitialized.store(true, std::memory_order_release);
  return true;
}();

template <class Tag>
Kiv::TypeDescriptor const& bidirType(std::string_view name) {
  return Kiv::fwkTypeOf<Tag>(name, &schemaRegister);
}

}  // namespace

std::vector<std::string_view> kivTypeNames() {
  std::vector<std::string_view> names;
  for (char const* p = kKivTypes; p < kKivTypes + sizeof kKivTypes; p += names.back().size() + 1) {
    names.emplace_back(p);
  }
  return names;
}

void schemaRegister() {
  gSchema.run();
}

bool schemaRegistered() noexcept {
  return gSchema.hasRun();
}

bool libraryInitialized() noexcept {
  return gInitialized.load(std::memory_order_acquire);
}

Kiv::TypeDescriptor const& GroupStates::_fwkType_UpJoinState() {
  return bidirType<GroupStates::UpJoinState>(kUpJoinState);
}
Kiv::TypeDescriptor const& GroupIntfStates::_fwkType_JoinState() {
  return bidirType<GroupIntfStates::JoinState>(kJoinState);
}
Kiv::TypeDescriptor const& GroupIntfKey::_fwkType() {
  return bidirType<GroupIntfKey>(typeName);
}
Kiv::TypeDescriptor const& GroupIntf::_fwkType() {
  return bidirType<GroupIntf>(kGroupIntf);
}
Kiv::TypeDescriptor const& Group::_fwkType() {
  return bidirType<Group>(kGroup);
}
Kiv::TypeDescriptor const& Status::_fwkType() {
  return bidirType<Status>(kStatus);
}
Kiv::TypeDescriptor const& MrouteClearFlags::_fwkType() {
  return bidirType<MrouteClearFlags>(typeName);
}
Kiv::TypeDescriptor const& ClearConfig::GroupKey::_fwkType() {
  return bidirType<ClearConfig::GroupKey>(typeName);
}
Kiv::TypeDescriptor const& ClearConfig::_fwkType() {
  return bidirType<ClearConfig>(typeName);
}
Kiv::TypeDescriptor const& ClearConfigColl::_fwkType() {
  return bidirType<ClearConfigColl>(typeName);
}
Kiv::TypeDescriptor const& Config::_fwkType() {
  return bidirType<Config>(typeName);
}
Kiv::TypeDescriptor const& ConfigColl::_fwkType() {
  return bidirType<ConfigColl>(typeName);
}

}  // namespace Routing::Pim::Bidir
