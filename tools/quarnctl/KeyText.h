#pragma once
// Keys from the command line (see RecordKind::keyMatcher): a key's value text form, or for a key
// of several fields its field values separated by commas, which is read by building the text
// form from them, so every field is read by its own type's reader.

#include <cstddef>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Cli.h"
#include "Kiv/Exception.h"
#include "Kiv/Text.h"
#include "Lanx/IpGenPrefix.h"

namespace Quarnctl {

// A key with the number of leading fields the text named (all of them for a whole key).
template <class Key>
struct KeyPattern {
  Key key{};
  std::size_t fields = 0;
};

template <class Key>
constexpr std::size_t writableFields() {
  if constexpr (requires { Key::attributes(); }) {
    return std::apply(
        [](auto const&... a) {
          return (std::size_t(std::remove_cvref_t<decltype(a)>::writable()) + ... + 0);
        },
        Key::attributes());
  } else {
    return 1;
  }
}

template <class Key>
std::string fieldNames() {
  std::string names;
  std::apply(
      [&](auto const&... a) {
        auto one = [&](auto const& attr) {
          if constexpr (std::remove_cvref_t<decltype(attr)>::writable()) {
            names += (names.empty() ? "" : ",") + std::string(attr.decl.name);
          }
        };
        (one(a), ...);
      },
      Key::attributes());
  return names;
}

// Reads `text` as a key; raises UsageError naming what was wrong. With `partial`, a key of
// several fields may name only its leading ones.
template <class Key>
KeyPattern<Key> parseKey(std::string const& text, bool partial) {
  KeyPattern<Key> p;
  try {
    if constexpr (std::is_same_v<Key, Lanx::IpGenPrefix>) {
      p.key = Lanx::IpGenPrefix(text);
      p.fields = 1;
    } else if constexpr (requires { Key::attributes(); }) {
      constexpr std::size_t all = writableFields<Key>();
      if (text.starts_with("Value")) {
        p.key = Kiv::strepToValue<Key>(text);
        p.fields = all;
        return p;
      }
      std::vector<std::string> values;
      for (std::size_t from = 0;;) {
        std::size_t const comma = text.find(',', from);
        values.push_back(text.substr(from, comma - from));
        if (comma == std::string::npos) break;
        from = comma + 1;
      }
      if (values.size() > all || (values.size() < all && !partial)) {
        throw UsageError("key '" + text + "' names " + std::to_string(values.size()) +
                         " fields; a key has " + std::to_string(all) + " (" + fieldNames<Key>() +
                         ")");
      }
      std::string full = "Value('" + std::string(Key::typeName) + "', ** {";
      std::size_t i = 0;
      std::apply(
          [&](auto const&... a) {
            auto one = [&](auto const& attr) {
              if constexpr (std::remove_cvref_t<decltype(attr)>::writable()) {
                if (i < values.size()) {
                  full += (i == 0 ? "'" : ", '") + std::string(attr.decl.name) + "': " + values[i];
                }
                ++i;
              }
            };
            (one(a), ...);
          },
          Key::attributes());
      p.key = Kiv::strepToValue<Key>(full + "})");
      p.fields = values.size();
    } else {
      p.key = Kiv::strepToValue<Key>(text);
      p.fields = 1;
    }
  } catch (Kiv::RangeException const& e) {
    throw UsageError("bad key '" + text + "': " + e.what());
  }
  return p;
}

// Whether `key` agrees with the pattern on the fields it names.
template <class Key>
bool keyMatches(KeyPattern<Key> const& p, Key const& key) {
  if constexpr (requires { Key::attributes(); } && !std::is_same_v<Key, Lanx::IpGenPrefix>) {
    std::size_t i = 0;
    bool same = true;
    std::apply(
        [&](auto const&... a) {
          auto one = [&](auto const& attr) {
            if constexpr (std::remove_cvref_t<decltype(attr)>::writable()) {
              if (i++ < p.fields) same = same && attr.get(key) == attr.get(p.key);
            }
          };
          (one(a), ...);
        },
        Key::attributes());
    return same;
  } else {
    return key == p.key;
  }
}

}  // namespace Quarnctl
