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

#include <cstdint>
#include <span>
#include <string_view>

namespace Kiv {

using AttributeId = std::uint32_t;

inline constexpr AttributeId kFirstTypeAttributeId = 258;

enum class AttributeKind : std::uint8_t {
  key,                // the entity's key: set by the constructor, immutable
  settable,           // stored, written through its `...Is` setter
  counter,            // stored 8-bit counter, settable and incrementable (wraps mod 256)
  computed,           // computed on every read, never stored
  computedInline,     // computed from another computed attribute
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

}  // namespace Kiv
