#pragma once
// Kiv::Value: one value of any type, as the generic attribute interface hands it out and takes it
// in. It holds a copy of the value (shared, immutable) together with the descriptor of its type,
// so a generic caller can name, print and compare it without knowing the type at build time.
//
// Conversion to a given C++ type (`to<T>()`), in this order:
//   - the held value is a T: a copy of it;
//   - T and the held value are both integers (the held one may be an enumeration; Booleans are
//     not numbers): the number, if T can hold it;
//   - otherwise the held value's text form read as a T (valueToStrep, then strepToValue<T>).
// Anything else yields nothing (the caller names what failed); a text that T refuses raises T's
// range exception, which names the bad value.

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "Kiv/String8.h"
#include "Kiv/Text.h"

namespace Kiv {

class TypeDescriptor;

class Value {
 public:
  Value() = default;
  template <class T>
  requires(!std::same_as<std::remove_cvref_t<T>, Value>) explicit Value(
      T&& v, TypeDescriptor const* type = nullptr)
      : holder_(std::make_shared<Holder<std::remove_cvref_t<T>>>(std::forward<T>(v))),
        type_(type) {}

  bool empty() const noexcept { return holder_ == nullptr; }
  explicit operator bool() const noexcept { return !empty(); }
  // The descriptor the value was wrapped with (nullptr when none was given).
  TypeDescriptor const* type() const noexcept { return type_; }
  // The held value if it is exactly a T, else nullptr.
  template <class T>
  T const* get() const noexcept {
    auto const* h = dynamic_cast<Holder<T> const*>(holder_.get());
    return h ? &h->value : nullptr;
  }
  // The held value's text form (empty for an empty Value or a type without one).
  String8 text() const { return holder_ ? holder_->text() : String8(); }
  template <class T>
  std::optional<T> to() const;

  // Same C++ type and equal values (by the type's ==, by text for a type without one).
  friend bool operator==(Value const& a, Value const& b) {
    if (!a.holder_ || !b.holder_) return !a.holder_ && !b.holder_;
    return a.holder_->equals(*b.holder_);
  }

 private:
  struct HolderBase {
    virtual ~HolderBase() = default;
    virtual String8 text() const = 0;
    virtual bool equals(HolderBase const& other) const = 0;
    virtual std::optional<std::int64_t> integer() const = 0;
    virtual std::optional<std::uint64_t> unsignedInteger() const = 0;
  };
  template <class T>
  struct Holder final : HolderBase {
    template <class U>
    explicit Holder(U&& v) : value(std::forward<U>(v)) {}
    T value;
    String8 text() const override {
      if constexpr (requires { valueToStrep(value); }) {
        return valueToStrep(value);
      } else {
        return String8();
      }
    }
    bool equals(HolderBase const& other) const override {
      auto const* o = dynamic_cast<Holder const*>(&other);
      if (!o) return false;
      if constexpr (std::equality_comparable<T>) {
        return value == o->value;
      } else {
        return text() == o->text();
      }
    }
    std::optional<std::int64_t> integer() const override {
      if constexpr ((std::is_integral_v<T> && !std::is_same_v<T, bool>) || std::is_enum_v<T>) {
        if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
          if (value > static_cast<T>(INT64_MAX)) return std::nullopt;
        }
        return static_cast<std::int64_t>(value);
      } else {
        return std::nullopt;
      }
    }
    std::optional<std::uint64_t> unsignedInteger() const override {
      if constexpr ((std::is_integral_v<T> && !std::is_same_v<T, bool>) || std::is_enum_v<T>) {
        if constexpr (std::is_signed_v<T>) {
          if (value < 0) return std::nullopt;
        }
        return static_cast<std::uint64_t>(value);
      } else {
        return std::nullopt;
      }
    }
  };

  std::shared_ptr<HolderBase const> holder_;
  TypeDescriptor const* type_ = nullptr;
};

// ---- implementation ----

template <class T>
std::optional<T> Value::to() const {
  if (!holder_) return std::nullopt;
  if (T const* exact = get<T>()) return *exact;
  if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
    if constexpr (std::is_signed_v<T>) {
      if (auto n = holder_->integer()) {
        if (std::in_range<T>(*n)) return static_cast<T>(*n);
        return std::nullopt;
      }
    } else {
      if (auto n = holder_->unsignedInteger()) {
        if (std::in_range<T>(*n)) return static_cast<T>(*n);
        return std::nullopt;
      }
      if (holder_->integer()) return std::nullopt;  // negative
    }
  }
  if constexpr (std::is_constructible_v<T, TextIt&, TextIt> || requires(TextIt & c, TextIt e) {
                  sequenceToValue(c, e, static_cast<T const*>(nullptr));
                }) {
    String8 const text = holder_->text();
    if (text.empty()) return std::nullopt;
    return strepToValue<T>(text);
  }
  return std::nullopt;
}

}  // namespace Kiv
