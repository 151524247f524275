#pragma once
// Attribute declarations.
//
// Every entity type declares its attributes once, in an AttributeTable: name, identifier, type
// name and kind, in declaration order. Everything that speaks about attributes by identifier
// (attributeString() today; introspection, generic access and the attribute log later) reads that
// one table. A table names the table of its base type, so a lookup falls back from the derived
// type's own attributes to the framework's entity attributes.
//
// Identifiers below kFirstTypeAttributeId belong to the framework; each type numbers its own from
// kFirstTypeAttributeId upward in declaration order.

#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace Kiv {

using AttributeId = std::uint32_t;

inline constexpr AttributeId kFirstTypeAttributeId = 258;

enum class AttributeKind : std::uint8_t {
  key,                // the entity's key: set by the constructor, immutable
  settable,           // stored, written through its `...Is` setter
  counter,            // stored 8-bit counter, settable and incrementable (wraps mod 256)
  computed,           // computed on every read, never stored
  computedInline,     // computed from another computed attribute
  constant,           // a fixed value of the type: read like any other, never stored or written
  parentReference,    // the entity's parent, from the framework's parent link
  settableReference,  // a stored reference to another entity
  collection,         // owned members keyed by their own key
  table,              // a shared-memory table of records keyed by their `key` field
  tableControl,       // the control handle of a table (mounting, validation; no value operations)
  framework,          // an attribute of the entity framework itself
};

struct AttributeDecl {
  std::string_view name;
  AttributeId id;
  std::string_view typeName;
  AttributeKind kind;
};

struct AttributeTable {
  std::string_view typeName;
  std::span<AttributeDecl const> attributes;
  AttributeTable const* base;

  // The declaration of `id` in this table or a base table, or nullptr.
  constexpr AttributeDecl const* find(AttributeId id) const noexcept {
    for (AttributeTable const* t = this; t; t = t->base) {
      for (auto const& a : t->attributes) {
        if (a.id == id) return &a;
      }
    }
    return nullptr;
  }
  constexpr AttributeDecl const* find(std::string_view name) const noexcept {
    for (AttributeTable const* t = this; t; t = t->base) {
      for (auto const& a : t->attributes) {
        if (a.name == name) return &a;
      }
    }
    return nullptr;
  }
};

// Typed declarations.
//
// A type lists its attributes once, as a tuple returned by a static constexpr function
// `attributes()`: each element is the untyped AttributeDecl above together with how to read the
// attribute from an instance (`get`) and, when it is writable, how to store it (`set`). Generic
// code (text forms; introspection and replication as they come) walks that tuple in declaration
// order; `declarations()` gives the untyped array an AttributeTable spans.
//
//   Kiv::field<&V::member>(name, id, typeName)              a stored data member
//   Kiv::property<&V::getter, &V::setter>(name, id, type)   read and written through functions
//   Kiv::property<&V::getter>(name, id, type, kind)         read only (key, computed, constant)
//   Kiv::collection(name, id, memberTypeName)               owned members (no value access)
//
// `Value` is what `get` returns (the type printed); `Input` is what `set` takes (the type read),
// which may differ, as for a word that is read as a wider integer and truncated. A read-only
// attribute has the input type NotWritable and no `set`.
struct NotWritable {};

template <class Owner, class Value, class Input>
struct TypedAttribute {
  using OwnerType = Owner;
  using ValueType = Value;
  using InputType = Input;
  AttributeDecl decl;
  Value (*get)(Owner const&);
  void (*set)(Owner&, Input const&);  // nullptr when not writable

  static constexpr bool writable() noexcept { return !std::is_same_v<Input, NotWritable>; }
};

struct CollectionAttribute {
  AttributeDecl decl;
};

namespace detail {

template <class M>
struct MemberTraits;
template <class O, class T>
struct MemberTraits<T O::*> {
  using Owner = O;
  using Type = T;
};

template <class F>
struct GetterTraits;
template <class O, class R>
struct GetterTraits<R (O::*)() const> {
  using Owner = O;
  using Type = std::remove_cvref_t<R>;
};
template <class O, class R>
struct GetterTraits<R (O::*)() const noexcept> : GetterTraits<R (O::*)() const> {};

template <class F>
struct SetterTraits;
template <class O, class A>
struct SetterTraits<void (O::*)(A)> {
  using Type = std::remove_cvref_t<A>;
};
template <class O, class A>
struct SetterTraits<void (O::*)(A) noexcept> : SetterTraits<void (O::*)(A)> {};

}  // namespace detail

// A data member may sit below its type's alignment in a packed shared-memory record, so trivially
// copyable members are copied as bytes rather than loaded or stored as typed values.
template <auto Member>
constexpr auto field(std::string_view name, AttributeId id, std::string_view typeName,
                     AttributeKind kind = AttributeKind::settable) {
  using Owner = typename detail::MemberTraits<decltype(Member)>::Owner;
  using T = typename detail::MemberTraits<decltype(Member)>::Type;
  if constexpr (std::is_trivially_copyable_v<T>) {
    return TypedAttribute<Owner, T, T>{
        {name, id, typeName, kind},
        [](Owner const& o) -> T {
          T v{};
          std::memcpy(&v, &(o.*Member), sizeof v);
          return v;
        },
        [](Owner& o, T const& v) { std::memcpy(&(o.*Member), &v, sizeof v); }};
  } else {
    return TypedAttribute<Owner, T, T>{{name, id, typeName, kind},
                                       [](Owner const& o) -> T { return o.*Member; },
                                       [](Owner& o, T const& v) { o.*Member = v; }};
  }
}

template <auto Getter, auto Setter = nullptr>
constexpr auto property(std::string_view name, AttributeId id, std::string_view typeName,
                        AttributeKind kind = AttributeKind::settable) {
  using Owner = typename detail::GetterTraits<decltype(Getter)>::Owner;
  using T = typename detail::GetterTraits<decltype(Getter)>::Type;
  if constexpr (std::is_null_pointer_v<decltype(Setter)>) {
    return TypedAttribute<Owner, T, NotWritable>{
        {name, id, typeName, kind}, [](Owner const& o) -> T { return (o.*Getter)(); }, nullptr};
  } else {
    using In = typename detail::SetterTraits<decltype(Setter)>::Type;
    return TypedAttribute<Owner, T, In>{{name, id, typeName, kind},
                                        [](Owner const& o) -> T { return (o.*Getter)(); },
                                        [](Owner& o, In const& v) { (o.*Setter)(v); }};
  }
}

constexpr CollectionAttribute collection(std::string_view name, AttributeId id,
                                         std::string_view memberTypeName) {
  return {{name, id, memberTypeName, AttributeKind::collection}};
}

// A collection declared with the owner's Kiv::Collection member, so that generic code (the
// attribute log's adapters) reaches its members:   Kiv::collection<&Owner::members_>(name, id, type)
template <class Owner, class Coll, Coll Owner::*Members>
struct TypedCollectionAttribute : CollectionAttribute {
  using OwnerType = Owner;
  using CollectionType = Coll;
  static Coll& of(Owner& o) noexcept { return o.*Members; }
  static Coll const& of(Owner const& o) noexcept { return o.*Members; }
};

template <auto Members>
constexpr auto collection(std::string_view name, AttributeId id, std::string_view memberTypeName) {
  using Owner = typename detail::MemberTraits<decltype(Members)>::Owner;
  using Coll = typename detail::MemberTraits<decltype(Members)>::Type;
  return TypedCollectionAttribute<Owner, Coll, Members>{
      {{name, id, memberTypeName, AttributeKind::collection}}};
}

// The untyped declarations of a tuple of typed ones, in the same order.
template <class... A>
constexpr std::array<AttributeDecl, sizeof...(A)> declarations(std::tuple<A...> const& attrs) {
  return std::apply(
      [](auto const&... a) { return std::array<AttributeDecl, sizeof...(A)>{a.decl...}; }, attrs);
}

}  // namespace Kiv
