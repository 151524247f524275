#include "Kiv/EntityText.h"

#include <cinttypes>

namespace Kiv {

namespace {

// At most 16 hexadecimal digits after "0x"; false on anything else.
bool readAddress(TextIt& cursor, TextIt end, std::uintptr_t& out) {
  std::uintptr_t v = 0;
  int digits = 0;
  for (; cursor != end && digits <= 16; ++cursor, ++digits) {
    char const c = *cursor;
    int d = c >= '0' && c <= '9'   ? c - '0'
            : c >= 'a' && c <= 'f' ? c - 'a' + 10
            : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                   : -1;
    if (d < 0) break;
    v = (v << 4) | static_cast<std::uintptr_t>(d);
  }
  out = v;
  return digits > 0 && digits <= 16;
}

}  // namespace

String8 rawReferenceText(Entity const* entity) {
  if (!entity) return {};
  return "Ref(" + valueToStrep(String8(entity->attributeTable().typeName)) +
         format(", %#" PRIxPTR ")", reinterpret_cast<std::uintptr_t>(entity));
}

Ptr<Entity> sequenceToEntity(TextIt& cursor, TextIt end) {
  TextIt peek = cursor;
  needString(peek, end, " ");
  if (peek == end || *peek != 'R') return nullptr;
  TextIt c = cursor;
  needString(c, end, " Ref");
  needString(c, end, " (");
  String8 const typeName = sequenceToValue<String8>(c, end);
  needString(c, end, " , 0x");
  TextIt const number = c;
  std::uintptr_t address = 0;
  if (!readAddress(c, end, address)) {
    throwRangeException("expected an address at " + excerpt(number, end));
  }
  needString(c, end, " )");
  Ptr<Entity> found = Entity::liveEntity(address);
  if (!found || found->attributeTable().typeName != typeName.view()) {
    throwRangeException("no live entity " + valueToStrep(typeName) +
                        format(" at %#" PRIxPTR, address));
  }
  cursor = c;
  return found;
}

void cannotConvert(TextIt cursor, TextIt end, String8 const& typeName) {
  throwRangeException("cannot convert " + excerpt(cursor, end) + " to " + typeName);
}

}  // namespace Kiv
