#pragma once
// JSON of any value with a text form, driven by its attribute declaration: Booleans and numbers
// as JSON literals, a value type with `attributes()` as an object of its writable attributes (in
// declaration order, recursively), anything else as a string holding its value text (an
// enumerator's quotes dropped: "joined", not "'joined'").

#include <string>
#include <tuple>
#include <type_traits>

#include "Json.h"
#include "Kiv/Text.h"

namespace Quarnctl {

template <class T>
void jsonValue(Json::Writer& w, T const& v);

// The value text of `v` without the quotes an enumerator or string is printed in.
template <class T>
std::string bareText(T const& v) {
  std::string s = valueToStrep(v);
  if (s.size() >= 2 && s.front() == '\'' && s.back() == '\'') s = s.substr(1, s.size() - 2);
  return s;
}

template <class T>
void jsonFields(Json::Writer& w, T const& v) {
  std::apply(
      [&](auto const&... attr) {
        auto one = [&](auto const& a) {
          if constexpr (std::remove_cvref_t<decltype(a)>::writable()) {
            w.key(a.decl.name);
            jsonValue(w, a.get(v));
          }
        };
        (one(attr), ...);
      },
      T::attributes());
}

template <class T>
void jsonValue(Json::Writer& w, T const& v) {
  if constexpr (std::is_same_v<T, bool>) {
    w.boolean(v);
  } else if constexpr (std::is_arithmetic_v<T>) {
    w.number(v);
  } else if constexpr (requires { T::attributes(); }) {
    w.beginObject();
    jsonFields(w, v);
    w.endObject();
  } else {
    w.string(bareText(v));
  }
}

}  // namespace Quarnctl
