#pragma once
// The value type a table stores: the record itself, seen by the engine through its `key` field.
// Adds no field and no virtual function, so the stored bytes are exactly the record's layout
// (its size is the table's valueSize) and the wrapper can be copied byte for byte into a slot.
// Its type name (the slot header's value typename) is the record's `typeName`.

#include <type_traits>

namespace KivQuarn {

template <class Record, class Key>
struct KivQuarnMapValueWrapper : public Record {
  using RecordType = Record;
  using KeyType = Key;

  KivQuarnMapValueWrapper() = default;
  KivQuarnMapValueWrapper(Record const& record) : Record(record) {}  // NOLINT: implicit on purpose

  Record const& record() const noexcept { return *this; }
};

}  // namespace KivQuarn
