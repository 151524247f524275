#pragma once
// Text of references to entities (the raw-reference text).
//
//   a null reference      the empty text
//   any other             Ref('Qualified::TypeName', 0x55d0c3a2b2c0)
//
// with the entity's dynamic type name (its attribute table's) and its address. The text names an
// object of this process for as long as it lives; it means nothing in another process.
//
// Reading (sequenceToValueOfPtr<E>) takes the empty text (the cursor at the end, or at anything
// but "Ref" after white space) as a null reference and consumes nothing. Otherwise the address is
// resolved through the registry of live entities (Entity::liveEntity), never by following the
// number, so any text is safe to read. Refusals (Kiv::RangeException):
//   "no live entity 'Type' at 0x..."   no entity of that type lives at that address (any more)
//   "cannot convert <text> to <E>"     the entity found is not an E (cannotConvert)
// besides the pattern and number readers' own messages.

#include <cstdint>
#include <type_traits>

#include "Jorv/Platform.h"
#include "Kiv/Entity.h"
#include "Kiv/Text.h"

namespace Kiv {

// The raw-reference text of `entity` (null: the empty text).
String8 rawReferenceText(Entity const* entity);

// Reads one reference text at the cursor: null for the empty text, otherwise the live entity it
// names (any type).
Ptr<Entity> sequenceToEntity(TextIt& cursor, TextIt end);

// Refuses the text at the cursor as a reference to an object of type `typeName`.
[[noreturn]] void cannotConvert(TextIt cursor, TextIt end, String8 const& typeName);

template <class E>
requires std::is_base_of_v<Entity, E> String8 valueToStrep(Ptr<E> const& p) {
  return rawReferenceText(p.ptr());
}

// Reads one reference to an E (E may be const-qualified).
template <class E>
Ptr<E> sequenceToValueOfPtr(TextIt& cursor, TextIt end) {
  TextIt const start = cursor;
  Ptr<Entity> found = sequenceToEntity(cursor, end);
  if (!found) return nullptr;
  auto* typed = dynamic_cast<std::remove_const_t<E>*>(found.ptr());
  if (!typed) cannotConvert(start, end, Jorv::typeName<std::remove_const_t<E>>());
  return typed;
}

template <class E>
requires std::is_base_of_v<Entity, E> Ptr<E> sequenceToValue(TextIt& cursor, TextIt end,
                                                             Ptr<E> const*) {
  return sequenceToValueOfPtr<E>(cursor, end);
}

}  // namespace Kiv
