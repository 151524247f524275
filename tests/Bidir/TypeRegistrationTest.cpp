// Introspection of the library's types: deferred, run-once registration and what it defines, the
// ".kiv.type" section of the loaded library, the generic attribute operation's rules, and every
// entity type built and read through the registry alone.

#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Bidir/ClearConfigColl.h"
#include "Bidir/ConfigColl.h"
#include "Bidir/TypeRegistration.h"
#include "Bidir/Quarn/GroupQuarnReaderSm.h"
#include "Bidir/Quarn/GroupQuarnRestartSm.h"
#include "Bidir/Quarn/GroupQuarnWriterSm.h"
#include "Bidir/Quarn/Status.h"
#include "Bidir/Status.h"
#include "Kiv/Type.h"
#include "Quarn/TestRecord.h"

namespace {

using Kiv::AttributeRequest;
using Kiv::Value;
using Lanx::IntfId;
using Lanx::IpGenAddr;
using namespace Routing::Pim::Bidir;
using TableRoot = Routing::Pim::Bidir::Quarn::Status;
using Routing::Pim::Bidir::Quarn::GroupQuarnReaderSm;
using Routing::Pim::Bidir::Quarn::GroupQuarnRestartSm;
using Routing::Pim::Bidir::Quarn::GroupQuarnWriterSm;

constexpr std::string_view kPrefix = "Routing::Pim::Bidir::";

// The framework's reactor, made active once (after the first test has looked at a process
// without one).
void activateReactor() {
  static Kiv::IntrospectionReactor reactor;
  reactor.activeIs(true);
  Kiv::introspectionReactorIs(&reactor);
}

TEST(Introspection, RegistrationWaitsForTheReactorThenDefinesEveryTypeOnce) {
  ASSERT_TRUE(libraryInitialized());
  Kiv::TypeDescriptor const* before = nullptr;
  if (!schemaRegistered()) {
    before = &Group::_fwkType();
    EXPECT_FALSE(schemaRegistered());
    EXPECT_TRUE(before->attributes().empty());
    EXPECT_EQ(before->boundName(), "Routing::Pim::Bidir::Group");
  }
  activateReactor();
  Kiv::TypeDescriptor const& group = Group::_fwkType();
  if (before) {
    EXPECT_EQ(before, &group);
  }
  EXPECT_TRUE(schemaRegistered());

  std::vector<std::string> bidir;
  for (auto const* t : Kiv::types()) {
    // Types only named by an attribute (another library's) are not in use.
    if (t->inUse() && t->name().starts_with(kPrefix) &&
        !t->name().starts_with("Routing::Pim::Bidir::Quarn::")) {
      bidir.push_back(t->name());
      EXPECT_NE(t->kind(), Kiv::TypeKind::undefined) << t->name();
      EXPECT_TRUE(t->inUse() && t->genericInterface()) << t->name();
    }
  }
  EXPECT_EQ(bidir.size(), 12u);

  // What GroupIntf's definition holds beyond its attribute names (checked with the entities).
  auto const& gi = GroupIntf::_fwkType();
  EXPECT_EQ(gi.keyName(), "intfId");
  EXPECT_EQ(gi.attribute("joinState")->type, &GroupIntf::_fwkType_JoinState());
  EXPECT_EQ(Kiv::type("Routing::Pim::Bidir::Status")->attribute("group")->keyName, "groupAddr");
  ASSERT_EQ(GroupIntf::_fwkType_JoinState().enumerators().size(), 3u);
  // The handles kept at load time resolve now.
  EXPECT_EQ(gi.handle("oList")->descriptor(), gi.attribute("oList"));

  // Registering again finds everything in place.
  std::size_t const count = gi.attributes().size();
  schemaRegister();
  EXPECT_EQ(gi.attributes().size(), count);

  // The table root registers under its own namespace.
  EXPECT_EQ(TableRoot::_fwkType().kind(), Kiv::TypeKind::entity);
}

// The ".kiv.type" section of the loaded library, read from its file.
std::string kivTypeSection() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&kivTypeNames), &info) == 0) return "no library";
  std::ifstream in(info.dli_fname, std::ios::binary);
  auto read = [&](std::size_t offset, std::size_t size) {
    std::string bytes(size, '\0');
    in.seekg(static_cast<std::streamoff>(offset));
    in.read(bytes.data(), static_cast<std::streamsize>(size));
    return bytes;
  };
  Elf64_Ehdr eh;
  std::memcpy(&eh, read(0, sizeof eh).data(), sizeof eh);
  std::vector<Elf64_Shdr> sections(eh.e_shnum);
  std::memcpy(sections.data(), read(eh.e_shoff, eh.e_shnum * sizeof(Elf64_Shdr)).data(),
              eh.e_shnum * sizeof(Elf64_Shdr));
  auto const& names = sections.at(eh.e_shstrndx);
  std::string const nameTable = read(names.sh_offset, names.sh_size);
  for (auto const& sh : sections) {
    if (std::strcmp(nameTable.c_str() + sh.sh_name, ".kiv.type") == 0) {
      return read(sh.sh_offset, sh.sh_size);
    }
  }
  return "no section";
}

TEST(Introspection, LibraryCarriesItsTypeNamesInOrder) {
  std::string expected;
  for (auto n : kivTypeNames()) expected += std::string(n) + '\0';
  // AddressSanitizer may pad the section's end with zeros (the redzone of its global).
  std::string section = kivTypeSection();
  if (section.size() > expected.size() &&
      section.find_first_not_of('\0', expected.size()) == std::string::npos) {
    section.resize(expected.size());
  }
  EXPECT_EQ(section, expected);
  auto const names = kivTypeNames();
  ASSERT_EQ(names.size(), 18u);
  EXPECT_EQ(names[0], "Routing::Pim::Bidir::GroupIntf::JoinState");
  EXPECT_EQ(names[11], "Routing::Pim::Bidir::ConfigColl");
  EXPECT_EQ(names[17], "Routing::Pim::Bidir::Quarn::GroupQuarnRestartSm");
}

struct Counter : GroupIntf::Notifiee {
  int iAmDf = 0;
  void onIAmDf() override { ++iAmDf; }
};

// What the generic operation on `entity` (const: held read-only) answers to `r`.
template <class E>
std::string refusal(E& entity, AttributeRequest const& r) {
  try {
    entity.attributeOp(r);
  } catch (Kiv::ConstException const& e) {
    return std::string("const: ") + e.what();
  } catch (Kiv::BadIndexException const& e) {
    return std::string("index: ") + e.what();
  } catch (Kiv::TypeException const& e) {
    return std::string("type: ") + e.what();
  } catch (Kiv::OperationNotSupportedException const& e) {
    return std::string("unsupported: ") + e.what();
  } catch (Kiv::RangeException const& e) {
    return std::string("range: ") + e.what();
  }
  return "accepted";
}

TEST(Introspection, GenericOperationChecksInOrderAndChangesNothingWhenItRefuses) {
  auto intf = groupIntfFactory(IntfId("Ethernet1"));
  auto counter = Kiv::newPtr<Counter>();
  counter->notifierIs(intf);
  using A = GroupIntf::Attr;
  Value const yes(true), word(std::int64_t{70000}), text(Kiv::String8("maybe"));
  Kiv::Ptr<GroupIntf const> readOnly = intf;

  EXPECT_EQ(refusal(*readOnly, {9999, 200}), "const: attempting to modify a const instance");
  EXPECT_EQ(refusal(*readOnly, {A::iAmDf, 128, nullptr, &yes}),
            "const: attempting to modify a const instance");
  EXPECT_EQ(refusal(*intf, {A::joins, 0, &yes}), "index: attribute 'joins': no index allowed");
  EXPECT_EQ(refusal(*intf, {A::oList, 128, nullptr, &yes}),
            "unsupported: attribute 'oList': operation 128 not supported");
  EXPECT_EQ(refusal(*intf, {A::intfId, 128, nullptr, &yes}),
            "unsupported: attribute 'intfId': operation 128 not supported");
  EXPECT_EQ(refusal(*intf, {A::iAmDf, 1}),
            "unsupported: attribute 'iAmDf': operation 1 not supported");
  EXPECT_EQ(refusal(*intf, {A::iAmDf, 128}), "type: attribute 'iAmDf': value required");
  EXPECT_EQ(refusal(*intf, {A::joinState, 128, nullptr, &word}).substr(0, 5), "range");
  EXPECT_EQ(refusal(*intf, {A::forward, 128, nullptr, &text}).substr(0, 5), "range");
  EXPECT_FALSE(intf->iAmDf() || intf->forward());
  EXPECT_EQ(intf->joinState(), GroupIntf::noInfo);
  EXPECT_EQ(counter->iAmDf, 0);

  EXPECT_EQ(refusal(*intf, {A::iAmDf, 128, nullptr, &yes}), "accepted");
  EXPECT_TRUE(intf->iAmDf());
  EXPECT_EQ(counter->iAmDf, 1);
  Value const joined(std::int64_t{GroupIntf::joined});  // "2" read as a JoinState name: refused
  EXPECT_EQ(refusal(*intf, {A::joinState, 128, nullptr, &joined}).substr(0, 5), "range");
  Value const joinedState(GroupIntf::joined);
  intf->attributeOp({A::joinState, 128, nullptr, &joinedState});
  EXPECT_EQ(readOnly->attributeOp({A::joins}), Value(true));

  // The constant of Config, and integer conversions that must fit.
  auto config = configFactory(L3::VrfName("red"));
  using C = Config::Attr;
  EXPECT_EQ(refusal(*config, {C::groupExpiryIntervalDefault, 128, nullptr, &word}),
            "unsupported: attribute 'groupExpiryIntervalDefault': operation 128 not supported");
  EXPECT_EQ(refusal(*config, {C::groupExpiryInterval, 128, nullptr, &word}).substr(0, 5), "type:");
  EXPECT_EQ(config->groupExpiryInterval(), 210);
  Value const small(std::int64_t{300});
  config->attributeOp({C::groupExpiryInterval, 128, nullptr, &small});
  EXPECT_EQ(config->groupExpiryInterval(), 300);
  EXPECT_EQ(Kiv::Ptr<Config const>(config)->attributeOp({C::groupExpiryIntervalDefault}),
            Value(std::uint16_t{210}));

  // Collections take an index: the member's key.
  auto status = statusFactory("vrf");
  auto g = status->groupIs(IpGenAddr("239.1.1.1"));
  Value const key(IpGenAddr("239.1.1.1")), other(IpGenAddr("239.9.9.9"));
  EXPECT_EQ(status->attributeOp({Status::Attr::group, 0, &key}), Value(Kiv::Ptr<Group const>(g)));
  EXPECT_EQ(status->attributeOp({Status::Attr::group, 0, &other}), Value(Kiv::Ptr<Group const>()));
  EXPECT_EQ(status->attributeOp({Status::Attr::group}), Value(std::uint64_t{1}));
}

TEST(Introspection, FlagsWordConstructorIsCheckedAndTakesOneArgument) {
  activateReactor();
  schemaRegister();
  auto const& flags = MrouteClearFlags::_fwkType();
  auto construct = [](Kiv::TypeDescriptor const& t, std::vector<Value> const& args) {
    return QuarnTest::failure([&] { t.construct(args); });
  };
  Value const three(std::int64_t{3}), four(std::int64_t{4}), addr(IpGenAddr("239.1.1.1"));
  EXPECT_EQ(flags.construct(std::vector{three}), Value(MrouteClearFlags(3)));
  EXPECT_EQ(construct(flags, {four}), "MrouteClearFlags::value > 0x3 not allowed");
  EXPECT_EQ(QuarnTest::failure<Kiv::UnknownArgumentException>(
                [&] { flags.construct(std::vector{three, three}); }),
            "MrouteClearFlags: unknown argument 2");
  EXPECT_EQ(construct(ClearConfig::GroupKey::_fwkType(), {four, addr}),
            "MrouteClearFlags::value > 0x3 not allowed");
  EXPECT_EQ(flags.constants()[1].value, Value(MrouteClearFlags::clearGroup_));
}

// What the generic constructor of each entity type takes: its key, or a state machine's roots.
std::vector<Value> argumentsOf(Kiv::TypeDescriptor const& type) {
  static auto const status = statusFactory("agent");
  static auto const tables = Routing::Pim::Bidir::Quarn::statusFactory("tables");
  std::string const k = type.keyType()->name();
  if (type.name() == GroupQuarnReaderSm::typeName) {
    return {Value(status), Value(Kiv::Ptr<TableRoot const>(tables))};
  }
  if (type.name() == GroupQuarnWriterSm::typeName) {
    return {Value(Kiv::Ptr<Status const>(status)), Value(tables)};
  }
  if (type.name() == GroupQuarnRestartSm::typeName) {
    return {Value(status), Value(tables), Value(KivQuarn::KivQuarnType::reader),
            Value(Kiv::Ptr<Kiv::Clock const>())};
  }
  if (k == "Lanx::IntfId") return {Value(IntfId("Ethernet7"))};
  if (k == "Lanx::IpGenAddr") return {Value(IpGenAddr("239.2.2.2"))};
  if (k == "L3::VrfName") return {Value(L3::VrfName("blue"))};
  return {Value(Kiv::Name("root"))};
}

// Every entity type of the library is built by its generic constructor, and a generic read of
// each readable attribute that is not a collection answers a value of the declared type (a read
// the declaration cannot serve would throw here).
TEST(Introspection, EveryEntityTypeConstructsAndReadsGenerically) {
  activateReactor();
  schemaRegister();
  TableRoot::_fwkType();
  std::size_t types = 0, checked = 0;
  for (auto const* type : Kiv::types()) {
    if (!type->name().starts_with(kPrefix) || type->kind() != Kiv::TypeKind::entity) continue;
    SCOPED_TRACE(type->name());
    ++types;
    auto entity = *type->construct(argumentsOf(*type)).get<Kiv::Ptr<Kiv::Entity>>();
    ASSERT_EQ(&entity->fwkType(), type);
    for (auto const& a : type->attributes()) {
      if (a.flags & Kiv::AttributeFlag::members || !(a.flags & Kiv::AttributeFlag::readable)) {
        continue;
      }
      EXPECT_EQ(Kiv::Ptr<Kiv::Entity const>(entity)->attributeOp({a.id}).type(), a.type) << a.name;
      ++checked;
    }
  }
  EXPECT_EQ(types, 11u);
  EXPECT_GT(checked, 50u);
}

}  // namespace
