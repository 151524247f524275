#pragma once
// The generic attribute operation and the schema definition of a type, both driven by the type's
// typed attribute declaration (Kiv/Attribute.h), written once for every type.
//
// attributeOp(entity, declaration, request, base) serves one request for a declared attribute:
//   - not declared by the type: `base()` (the framework's base entity operation);
//   - an index on anything but a collection: BadIndexException naming the attribute;
//   - read (0): the value, wrapped with the descriptor of the declared type; computed attributes
//     are computed by their getter. A collection reads as its member count, or with an index (the
//     member's key) as the member (null when absent);
//   - write (128) of an attribute whose flags say writable: the value converted to the setter's
//     input type (Value::to) and handed to the setter, which notifies as usual; no value, or one
//     that does not convert, is a TypeException naming the attribute;
//   - anything else (other operations, writes of keys, computed, constant or parent attributes,
//     collections, table handles): OperationNotSupportedException with the name and the code.
// A refusal leaves the instance unchanged: every check comes before the setter.
//
// entityDefine / valueDefine / enumerationDefine define a type through the introspection reactor
// (Kiv/Type.h): kind, generic interface, then its attributes in declaration order, each with its
// declared type, the flag word of its kind and its identifier.

#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Kiv/Attribute.h"
#include "Kiv/Entity.h"
#include "Kiv/Exception.h"
#include "Kiv/Type.h"
#include "Kiv/Value.h"

namespace Kiv {

namespace detail {

template <class A>
struct IsCollection : std::false_type {};
template <class O, class K, class M>
struct IsCollection<CollectionAttribute<O, K, M>> : std::true_type {};
template <class O, class C, C O::*M>
struct IsCollection<TypedCollectionAttribute<O, C, M>> : std::true_type {};

template <class T>
T convertedValue(Value const& v, AttributeDecl const& decl) {
  std::optional<T> converted = v.to<T>();
  if (!converted) {
    throwTypeException(decl.name, "cannot convert " + v.text() + " to " + String8(decl.typeName));
  }
  return std::move(*converted);
}

template <class E, class A>
Value attributeOpOne(E& e, A const& a, AttributeRequest const& r) {
  AttributeDecl const& decl = a.decl;
  std::uint32_t const flags = attributeFlags(decl.kind);
  if constexpr (IsCollection<A>::value) {
    if (r.op == AttributeRequest::read) {
      if constexpr (!std::is_same_v<typename A::OwnerType, NoOwner>) {
        if (r.index == nullptr) {
          return Value(static_cast<std::uint64_t>(a.count(e)), &typeIs("U64"));
        }
        using Key = typename A::KeyType;
        return Value(a.member(e, convertedValue<Key>(*r.index, decl)), &typeIs(decl.typeName));
      }
    }
  } else {
    if (r.index != nullptr) throwBadIndex(decl.name);
    if (r.op == AttributeRequest::read && (flags & AttributeFlag::readable)) {
      return Value(a.get(e), &typeIs(decl.typeName));
    }
    if constexpr (A::writable()) {
      if (r.op == AttributeRequest::write && (flags & AttributeFlag::writable)) {
        if (r.value == nullptr) throwTypeException(decl.name, "value required");
        a.set(e, convertedValue<typename A::InputType>(*r.value, decl));
        return Value();
      }
    }
  }
  throwOperationNotSupported(decl.name, r.op);
}

}  // namespace detail

template <class E, class... A, class Base>
Value attributeOp(E& e, std::tuple<A...> const& attributes, AttributeRequest const& r, Base base) {
  std::optional<Value> result;
  std::apply(
      [&](auto const&... a) {
        ((!result && a.decl.id == r.id ? (result = detail::attributeOpOne(e, a, r), 0) : 0), ...);
      },
      attributes);
  if (result) return std::move(*result);
  return base();
}

template <class... A>
void attributesDefine(IntrospectionReactor& reactor, std::tuple<A...> const& attributes) {
  std::apply(
      [&](auto const&... a) {
        auto one = [&](auto const& attr) {
          std::string_view keyName, keyTypeName;
          if constexpr (detail::IsCollection<std::remove_cvref_t<decltype(attr)>>::value) {
            keyName = attr.keyName;
            keyTypeName = attr.keyTypeName;
          }
          reactor.attributeIs(attr.decl.name, attr.decl.typeName, attributeFlags(attr.decl.kind),
                              attr.decl.id, keyName, keyTypeName);
        };
        (one(a), ...);
      },
      attributes);
}

// An entity type created from a key: isNondestructing, then its declared attributes. `nested`
// defines the types that belong to it (an enumeration) right after it is opened.
template <class Attributes, class Nested>
void entityDefine(IntrospectionReactor& reactor, TypeDescriptor& type, std::string_view keyName,
                  std::string_view keyTypeName, Attributes const& attributes, Nested nested) {
  reactor.typeOpen(type, keyName, keyTypeName);
  reactor.typeKindIs(TypeKind::entity);
  reactor.genericInterfaceIs(true);
  nested();
  reactor.attributeIs("isNondestructing", "Bool", attributeFlags(AttributeKind::lifecycle),
                      Entity::isNondestructingId);
  attributesDefine(reactor, attributes);
  reactor.typeClose();
}

template <class Attributes>
void entityDefine(IntrospectionReactor& reactor, TypeDescriptor& type, std::string_view keyName,
                  std::string_view keyTypeName, Attributes const& attributes) {
  entityDefine(reactor, type, keyName, keyTypeName, attributes, [] {});
}

// A value type: its declared attributes, then what `more` defines (its constants).
template <class Attributes, class More>
void valueDefine(IntrospectionReactor& reactor, TypeDescriptor& type, Attributes const& attributes,
                 More more) {
  reactor.typeOpen(type);
  reactor.typeKindIs(TypeKind::value);
  reactor.genericInterfaceIs(true);
  attributesDefine(reactor, attributes);
  more();
  reactor.typeClose();
}

template <class Attributes>
void valueDefine(IntrospectionReactor& reactor, TypeDescriptor& type,
                 Attributes const& attributes) {
  valueDefine(reactor, type, attributes, [] {});
}

// An enumeration whose enumerators are the values 0, 1, ... for which `nameOf` has a name; its
// numeric value is the attribute `value`.
template <class Enum>
void enumerationDefine(IntrospectionReactor& reactor, TypeDescriptor& type,
                       char const* (*nameOf)(Enum) noexcept) {
  reactor.typeOpen(type);
  reactor.typeKindIs(TypeKind::enumeration);
  reactor.genericInterfaceIs(true);
  for (std::uint32_t v = 0; char const* name = nameOf(static_cast<Enum>(v)); ++v) {
    reactor.enumeratorIs(name, v);
  }
  reactor.attributeIs("value", "U32", attributeFlags(AttributeKind::computed), 2);
  reactor.typeClose();
}

// The names an entity type's attribute handles are kept under: isNondestructing, then its
// declared attributes in order.
template <class... A>
std::vector<String8> entityAttributeNames(std::tuple<A...> const& attributes) {
  std::vector<String8> names{String8("isNondestructing")};
  std::apply([&](auto const&... a) { (names.emplace_back(a.decl.name), ...); }, attributes);
  return names;
}

// A generic constructor from exactly the arguments of `make`, each converted through Value::to;
// a missing or unconvertible argument is a TypeException, a surplus one an UnknownArgumentException
// naming `typeShortName`.
template <class R, class... Args>
TypeDescriptor::Constructor constructorOf(std::string_view typeShortName, R (*make)(Args...)) {
  return [typeShortName, make](std::span<Value const> args) -> Value {
    if (args.size() > sizeof...(Args)) throwUnknownArgument(typeShortName, sizeof...(Args) + 1);
    if (args.size() < sizeof...(Args)) {
      throwTypeException(typeShortName,
                         "argument " + std::to_string(args.size() + 1) + " required");
    }
    std::size_t i = 0;
    auto arg = [&](auto const* tag) {
      using T = std::remove_cvref_t<std::remove_pointer_t<decltype(tag)>>;
      std::optional<T> v = args[i].template to<T>();
      if (!v) {
        throwTypeException(typeShortName, "argument " + std::to_string(i + 1) +
                                              ": cannot convert " + args[i].text());
      }
      ++i;
      return std::move(*v);
    };
    // Braced initialisation evaluates the arguments in order.
    std::tuple<std::remove_cvref_t<Args>...> converted{
        arg(static_cast<std::remove_cvref_t<Args> const*>(nullptr))...};
    return Value(std::apply(make, std::move(converted)));
  };
}

}  // namespace Kiv
