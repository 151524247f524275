#pragma once
// GroupIntfKey: names one (group, interface) pair across a VRF; the key of the group-interface
// table. Two fields in this order, 28 bytes, 4-byte alignment, trivially copyable, so it can sit
// in shared-memory records as it is.
//
// Ordering is lexicographic, address first; <=, > and >= derive from < alone so that all agree.
// `hash()` is the Ip6Addr hash of the 16 address bytes XOR the interface hash: the family word is
// not mixed in (an IPv4 and an IPv6 key with the same stored bytes hash alike; == separates them).
//
// Text: Value('Routing::Pim::Bidir::GroupIntfKey', ** {'groupAddr': 239.1.1.1, 'intfId': Vlan1});
// a field the text leaves out keeps its default (the unset address, the empty interface name).

#include <cstdint>
#include <iosfwd>
#include <tuple>
#include <type_traits>

#include "Kiv/Attribute.h"

#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"

namespace Routing::Pim::Bidir {

class GroupIntfKey {
 public:
  static constexpr char const* typeName = "Routing::Pim::Bidir::GroupIntfKey";

  constexpr GroupIntfKey() = default;
  GroupIntfKey(Lanx::IpGenAddr const& groupAddr, Lanx::IntfId const& intfId) noexcept
      : groupAddr_(groupAddr), intfId_(intfId) {}
  // Reads one key at the cursor and leaves the cursor behind it.
  GroupIntfKey(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end);

  Lanx::IpGenAddr const& groupAddr() const noexcept { return groupAddr_; }
  Lanx::IntfId const& intfId() const noexcept { return intfId_; }

  bool operator==(GroupIntfKey const& other) const noexcept {
    return groupAddr_ == other.groupAddr_ && intfId_ == other.intfId_;
  }
  bool operator!=(GroupIntfKey const& other) const noexcept { return !(*this == other); }
  bool operator<(GroupIntfKey const& other) const noexcept {
    if (auto const order = groupAddr_ <=> other.groupAddr_; order != 0) return order < 0;
    return intfId_ < other.intfId_;
  }
  bool operator<=(GroupIntfKey const& other) const noexcept { return !(other < *this); }
  bool operator>(GroupIntfKey const& other) const noexcept { return !(*this <= other); }
  bool operator>=(GroupIntfKey const& other) const noexcept { return !(*this < other); }
  // True for the unset key (default address and default interface).
  bool operator!() const noexcept { return *this == GroupIntfKey(); }

  std::uint32_t hash() const noexcept { return groupAddr_.hash() ^ intfId_.hash(); }
  static Kiv::TypeDescriptor const& _fwkType();

  static constexpr auto attributes() {
    return std::tuple{
        Kiv::field<&GroupIntfKey::groupAddr_>("groupAddr", 2, "Lanx::IpGenAddr"),
        Kiv::field<&GroupIntfKey::intfId_>("intfId", 3, "Lanx::IntfId"),
        Kiv::property<&GroupIntfKey::hash>("hash", 4, "U32", Kiv::AttributeKind::computed),
    };
  }

 private:
  Lanx::IpGenAddr groupAddr_;
  Lanx::IntfId intfId_;
};

static_assert(sizeof(GroupIntfKey) == 28 && alignof(GroupIntfKey) == 4);
static_assert(std::is_trivially_copyable_v<GroupIntfKey> &&
              std::is_standard_layout_v<GroupIntfKey>);

Kiv::String8 valueToStrep(GroupIntfKey const& v);
std::ostream& operator<<(std::ostream& os, GroupIntfKey const& v);

// Attribute-log form: groupAddr, then intfId, each in its network-type form.
void nboWrite(Kiv::NboAttrLog::Out& out, GroupIntfKey const& v);
GroupIntfKey nboRead(Kiv::NboAttrLog::Cursor& in, GroupIntfKey const*);

}  // namespace Routing::Pim::Bidir
