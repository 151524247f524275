#pragma once
// Text form of a structured value type, driven by the type's attribute declaration.
//
// A type V takes part by declaring `static constexpr char const* typeName` (its qualified name)
// and `static constexpr auto attributes()` (its typed declaration, Kiv/Attribute.h). Its text is
//
//   Value('Qualified::Name', ** {'first': <text>, 'second': <text>})
//
// with every writable attribute in declaration order, each printed by the `valueToStrep` of its
// type (a nested structured value prints its whole text in place). Attributes without a setter
// (computed ones) are not printed.
//
// Reading (valueTypeFromStrep) accepts that text with white space wherever a blank stands in the
// patterns " Value", " (", " 'Qualified::Name'", " ,", " **", " {", between attributes (", "),
// around the colon (" : ") and after the closing brace and parenthesis ("} ", ") "). Attributes
// may come in any order, be repeated (the last occurrence wins) or be missing (they keep what the
// object held before: the caller sets the defaults first). Each value is read with
// deserializeAttr, so an error names the attribute. Refusals, with Name the last component of the
// qualified name:
//   "premature end of value type Name"       the input ends inside the braces
//   "Name has no such attribute: <name>"     a name V does not declare as writable
// A comma before the closing brace is refused (no name follows it).

#include <string_view>
#include <tuple>

#include "Kiv/Attribute.h"
#include "Kiv/Text.h"

namespace Kiv {

template <class V>
String8 valueTypeToStrep(V const& v);

template <class V>
void valueTypeFromStrep(TextIt& cursor, TextIt end, V& v);

// The last component of a qualified name ("GroupKey" of
// "Routing::Pim::Bidir::ClearConfig::GroupKey").
constexpr std::string_view shortTypeName(std::string_view qualified) {
  auto const colon = qualified.rfind("::");
  return colon == std::string_view::npos ? qualified : qualified.substr(colon + 2);
}

// ---- implementation ----

template <class V>
String8 valueTypeToStrep(V const& v) {
  String8 out = String8("Value('") + V::typeName + "', ** {";
  bool first = true;
  std::apply(
      [&](auto const&... a) {
        auto one = [&](auto const& attr) {
          if constexpr (std::remove_cvref_t<decltype(attr)>::writable()) {
            if (!first) out += ", ";
            first = false;
            out += '\'';
            out += attr.decl.name;
            out += "': ";
            out += valueToStrep(attr.get(v));
          }
        };
        (one(a), ...);
      },
      V::attributes());
  out += "})";
  return out;
}

template <class V>
void valueTypeFromStrep(TextIt& cursor, TextIt end, V& v) {
  constexpr std::string_view name = shortTypeName(V::typeName);
  needString(cursor, end, " Value");
  needString(cursor, end, " (");
  needString(cursor, end, String8(" '") + V::typeName + "'");
  needString(cursor, end, " ,");
  needString(cursor, end, " **");
  needString(cursor, end, " {");
  for (bool first = true;; first = false) {
    needString(cursor, end, " ");
    if (cursor == end) throwRangeException(String8("premature end of value type ") + String8(name));
    if (*cursor == '}') break;
    if (!first) needString(cursor, end, ", ");
    String8 const attrName = sequenceToValue<String8>(cursor, end);
    needString(cursor, end, " : ");
    bool const known = std::apply(
        [&](auto const&... a) {
          auto one = [&](auto const& attr) {
            using A = std::remove_cvref_t<decltype(attr)>;
            if constexpr (!A::writable()) {
              return false;
            } else {
              if (attr.decl.name != attrName.view()) return false;
              using Input = typename A::InputType;
              attr.set(v,
                       deserializeAttr(cursor, end, static_cast<Input const*>(nullptr), attrName));
              return true;
            }
          };
          return (one(a) || ...);
        },
        V::attributes());
    if (!known) throwRangeException(String8(name) + " has no such attribute: " + attrName);
  }
  needString(cursor, end, "} ");
  needString(cursor, end, ") ");
}

}  // namespace Kiv
