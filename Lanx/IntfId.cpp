#include "Lanx/IntfId.h"

#include <cctype>
#include <ostream>

#include "Kiv/Hash.h"
#include "Lanx/Text.h"

namespace Lanx {

namespace {

struct KindInfo {
  IntfId::Kind kind;
  std::string_view prefix;
  unsigned maxComponents;
  unsigned long min;
  unsigned long max;
};

constexpr unsigned kComponentBits = 10;
constexpr unsigned long kComponentMask = (1ul << kComponentBits) - 1;

constexpr KindInfo kKinds[] = {
    {IntfId::ethernet, "Ethernet", 3, 1, kComponentMask},
    {IntfId::vlan, "Vlan", 1, 1, 4094},
    {IntfId::portChannel, "Port-Channel", 1, 1, 999999},
    {IntfId::loopback, "Loopback", 1, 0, 999999},
    {IntfId::management, "Management", 1, 0, 999999},
};

KindInfo const* infoOf(std::uint32_t kind) noexcept {
  for (auto const& k : kKinds) {
    if (k.kind == kind) return &k;
  }
  return nullptr;
}

}  // namespace

IntfId::IntfId(std::string_view name) {
  if (name.empty()) return;
  for (auto const& k : kKinds) {
    if (!name.starts_with(k.prefix)) continue;
    std::string_view rest = name.substr(k.prefix.size());
    std::uint32_t packed = 0;
    unsigned n = 0;
    while (true) {
      auto slash = rest.find('/');
      std::string_view field = rest.substr(0, slash);
      unsigned long v;
      // Leading zeros are refused so that every accepted name is the canonical one.
      if (++n > k.maxComponents || !Text::parseDecimal(field, 6, v) || v < k.min || v > k.max ||
          (field.size() > 1 && field[0] == '0')) {
        Text::throwBadText("invalid interface name", name);
      }
      if (k.maxComponents == 1) {
        packed = static_cast<std::uint32_t>(v);
      } else {
        packed |= static_cast<std::uint32_t>(v) << (kComponentBits * (k.maxComponents - n));
      }
      if (slash == std::string_view::npos) break;
      rest.remove_prefix(slash + 1);
    }
    kind_ = k.kind;
    packed_ = packed;
    return;
  }
  Text::throwBadText("unknown interface name", name);
}

std::string IntfId::name() const {
  if (isDefault()) return {};
  KindInfo const* k = infoOf(kind_);
  // A foreign kind word can only come from a corrupt record: show the raw words.
  if (!k) return "Intf(" + std::to_string(kind_) + "," + std::to_string(packed_) + ")";
  std::string out(k->prefix);
  if (k->maxComponents == 1) return out + std::to_string(packed_);
  for (unsigned i = 0; i < k->maxComponents; ++i) {
    auto v = (packed_ >> (kComponentBits * (k->maxComponents - 1 - i))) & kComponentMask;
    if (i > 0 && v == 0) break;
    if (i > 0) out += '/';
    out += std::to_string(v);
  }
  return out;
}

std::uint32_t IntfId::hash() const noexcept {
  // Both words through a 64-bit multiplicative mix; the high half carries the well-mixed bits.
  std::uint64_t const x = Kiv::mix64((std::uint64_t{kind_} << 32) | packed_);
  return static_cast<std::uint32_t>(x >> 32) ^ static_cast<std::uint32_t>(x);
}

std::ostream& operator<<(std::ostream& os, IntfId const& intf) {
  return os << intf.name();
}

IntfId sequenceToValue(Kiv::String8::IteratorConst& cursor, Kiv::String8::IteratorConst end,
                       IntfId const*) {
  auto token = Text::readToken(cursor, end, [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '/';
  });
  return IntfId(token);
}

}  // namespace Lanx
