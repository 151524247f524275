#pragma once
// L3::VrfName: the name of a VRF, at most kMaxBytes bytes. A longer name is refused with
// Kiv::RangeException "VrfName::bytes > 100 not allowed" and nothing is stored.

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Kiv/String8.h"

namespace Kiv::NboAttrLog {
class Out;
class Cursor;
}  // namespace Kiv::NboAttrLog

namespace L3 {

class VrfName {
 public:
  static constexpr std::size_t kMaxBytes = 100;

  VrfName() = default;
  explicit VrfName(std::string_view name);
  VrfName(char const* name) : VrfName(std::string_view(name)) {}

  Kiv::String8 const& string() const noexcept { return name_; }
  std::string toString() const { return name_; }
  bool empty() const noexcept { return name_.empty(); }
  std::uint32_t hash() const noexcept;

  friend bool operator==(VrfName const&, VrfName const&) = default;
  friend std::strong_ordering operator<=>(VrfName const& a, VrfName const& b) {
    return a.name_.compare(b.name_) <=> 0;
  }

 private:
  Kiv::String8 name_;
};

std::ostream& operator<<(std::ostream& os, VrfName const& name);

// Attribute-log form: the name as a string. Reading refuses a name over kMaxBytes (the range error
// above) before anything is stored.
void nboWrite(Kiv::NboAttrLog::Out& out, VrfName const& v);
VrfName nboRead(Kiv::NboAttrLog::Cursor& in, VrfName const*);

}  // namespace L3
