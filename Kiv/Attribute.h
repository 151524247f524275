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
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Kiv {

class TypeDescriptor;

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
  tableControl,       // a handle without value operations: a table's control handle (mounting,
                      // validation), a state machine's activity
  framework,          // an attribute of the entity framework itself
  lifecycle,          // the framework's isNondestructing flag, registered with every entity
};

// The flag word introspection registers for each attribute: what a generic tool may do with it.
// Bits (the low byte: access; above it: what the attribute is). The words of the kinds that
// generic tools tell apart are pinned below.
namespace AttributeFlag {
inline constexpr std::uint32_t readable = 0x1;
inline constexpr std::uint32_t writable = 0x2;            // generic write (128) allowed
inline constexpr std::uint32_t inlined = 0x4;             // derived from another computed attribute
inline constexpr std::uint32_t notifying = 0x40;          // a change is notified
inline constexpr std::uint32_t incrementable = 0x80;      // an 8-bit counter with ...Inc
inline constexpr std::uint32_t foreign = 0x100;           // refers to another agent's entity
inline constexpr std::uint32_t constant = 0x400;          // a fixed value of the type
inline constexpr std::uint32_t control = 0x800;           // a handle without value operations
inline constexpr std::uint32_t lifecycle = 0x2000;        // the framework's lifecycle state
inline constexpr std::uint32_t members = 0x10000;         // a keyed set of members
inline constexpr std::uint32_t local = 0x20000;           // not stored: computed or looked up
inline constexpr std::uint32_t nonReplicated = 0x200000;  // not carried by the attribute log
inline constexpr std::uint32_t reference = 0x8000000;     // a reference to an entity
}  // namespace AttributeFlag

constexpr std::uint32_t attributeFlags(AttributeKind kind) noexcept {
  using namespace AttributeFlag;
  switch (kind) {
    case AttributeKind::key:
      return readable | nonReplicated;
    case AttributeKind::settable:
      return readable | writable | notifying;
    case AttributeKind::counter:
      return readable | writable | notifying | incrementable;
    case AttributeKind::computed:
      return readable | local;
    case AttributeKind::computedInline:
      return readable | inlined | local | nonReplicated;
    case AttributeKind::constant:
      return readable | constant | local | nonReplicated;
    case AttributeKind::parentReference:
      return readable | local | reference;
    case AttributeKind::settableReference:
      return readable | writable | notifying | foreign | local | nonReplicated | reference;
    case AttributeKind::collection:
      return readable | notifying | members;
    case AttributeKind::table:
      return readable | notifying | members | local;
    case AttributeKind::tableControl:
      return control | local | nonReplicated;
    case AttributeKind::framework:
      return readable;
    case AttributeKind::lifecycle:
      return readable | writable | notifying | lifecycle;
  }
  return 0;
}
static_assert(attributeFlags(AttributeKind::key) == 0x200001 &&
              attributeFlags(AttributeKind::lifecycle) == 0x2043 &&
              attributeFlags(AttributeKind::computed) == 0x20001 &&
              attributeFlags(AttributeKind::computedInline) == 0x220005 &&
              attributeFlags(AttributeKind::parentReference) == 0x8020001 &&
              attributeFlags(AttributeKind::settableReference) == 0x8220143);

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
//   Kiv::collection<&V::count>(name, id, memberType, keyName, keyType, lookup)
//                                                           owned members, counted and looked up
//   Kiv::handle(name, id, typeName)                         no value operations at all
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

// A collection: its members' key (name and type, for introspection) and, when given, how to
// count the members and look one up by key (for generic reads).
struct NoOwner {};
template <class Owner = NoOwner, class Key = NoOwner, class Member = NoOwner>
struct CollectionAttribute {
  using OwnerType = Owner;
  using KeyType = Key;
  AttributeDecl decl;
  std::string_view keyName;
  std::string_view keyTypeName;
  std::size_t (*count)(Owner const&) = nullptr;
  Member (*member)(Owner const&, Key const&) = nullptr;
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

template <class F>
struct LookupTraits;
template <class O, class K, class R>
struct LookupTraits<R (*)(O const&, K const&)> {
  using Key = K;
  using Result = R;
};

template <auto Getter, class Owner, class T>
T callGetter(Owner const& o) {
  return (o.*Getter)();
}
template <auto Setter, class Owner, class In>
void callSetter(Owner& o, In const& v) {
  (o.*Setter)(v);
}

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
  // Named function templates rather than lambdas: their bodies are instantiated where they are
  // used, so a getter may return a reference to a type still incomplete where it is declared
  // (an entity's parent).
  if constexpr (std::is_null_pointer_v<decltype(Setter)>) {
    return TypedAttribute<Owner, T, NotWritable>{
        {name, id, typeName, kind}, &detail::callGetter<Getter, Owner, T>, nullptr};
  } else {
    using In = typename detail::SetterTraits<decltype(Setter)>::Type;
    return TypedAttribute<Owner, T, In>{{name, id, typeName, kind},
                                        &detail::callGetter<Getter, Owner, T>,
                                        &detail::callSetter<Setter, Owner, In>};
  }
}

constexpr CollectionAttribute<> collection(std::string_view name, AttributeId id,
                                           std::string_view memberTypeName,
                                           std::string_view keyName = {},
                                           std::string_view keyTypeName = {}) {
  return {{name, id, memberTypeName, AttributeKind::collection}, keyName, keyTypeName};
}

// With generic reads: `Count` is the member count getter, `lookup` a function (a captureless
// lambda will do) from the owner and a key to the member reference.
// `kind` may be AttributeKind::table for a shared-memory table of records.
template <auto Count, class Lookup>
constexpr auto collection(std::string_view name, AttributeId id, std::string_view memberTypeName,
                          std::string_view keyName, std::string_view keyTypeName, Lookup lookup,
                          AttributeKind kind = AttributeKind::collection) {
  using Owner = typename detail::GetterTraits<decltype(Count)>::Owner;
  using F = decltype(+lookup);
  using Traits = detail::LookupTraits<F>;
  return CollectionAttribute<Owner, typename Traits::Key, typename Traits::Result>{
      {name, id, memberTypeName, kind},
      keyName,
      keyTypeName,
      [](Owner const& o) -> std::size_t { return (o.*Count)(); },
      +lookup};
}

// An attribute without value operations (the control handle of a table, a state machine's
// activity): named and registered, every generic operation on it is refused.
constexpr CollectionAttribute<> handle(std::string_view name, AttributeId id,
                                       std::string_view typeName) {
  return {{name, id, typeName, AttributeKind::tableControl}, {}, {}};
}

// A collection declared with the owner's Kiv::Collection member, so that generic code (the
// attribute log's adapters, generic reads) reaches its members; count and lookup come from the
// collection itself:   Kiv::collection<&Owner::members_>(name, id, type, keyName, keyType)
template <class Coll>
using CollectionLookup = decltype(std::declval<Coll const&>().member(
    std::declval<typename Coll::KeyType const&>()));

template <class Owner, class Coll, Coll Owner::*Members>
struct TypedCollectionAttribute
    : CollectionAttribute<Owner, typename Coll::KeyType, CollectionLookup<Coll>> {
  using OwnerType = Owner;
  using CollectionType = Coll;
  static Coll& of(Owner& o) noexcept { return o.*Members; }
  static Coll const& of(Owner const& o) noexcept { return o.*Members; }
};

template <auto Members>
constexpr auto collection(std::string_view name, AttributeId id, std::string_view memberTypeName,
                          std::string_view keyName = {}, std::string_view keyTypeName = {}) {
  using Owner = typename detail::MemberTraits<decltype(Members)>::Owner;
  using Coll = typename detail::MemberTraits<decltype(Members)>::Type;
  using Key = typename Coll::KeyType;
  return TypedCollectionAttribute<Owner, Coll, Members>{
      {{name, id, memberTypeName, AttributeKind::collection},
       keyName,
       keyTypeName,
       [](Owner const& o) -> std::size_t { return (o.*Members).size(); },
       [](Owner const& o, Key const& k) { return (o.*Members).member(k); }}};
}

// The untyped declarations of a tuple of typed ones, in the same order.
template <class... A>
constexpr std::array<AttributeDecl, sizeof...(A)> declarations(std::tuple<A...> const& attrs) {
  return std::apply(
      [](auto const&... a) { return std::array<AttributeDecl, sizeof...(A)>{a.decl...}; }, attrs);
}

}  // namespace Kiv
