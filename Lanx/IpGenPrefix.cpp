#include "Lanx/IpGenPrefix.h"

#include <ostream>

#include "Lanx/Text.h"

namespace Lanx {

namespace {

IpGenAddr masked(IpGenAddr const& addr, unsigned length) noexcept {
  auto bytes = addr.bytes();
  for (unsigned i = 0; i < 16; ++i) {
    unsigned keep = length > 8 * i ? length - 8 * i : 0;
    if (keep < 8) bytes[i] &= static_cast<std::uint8_t>(0xff00u >> keep);
  }
  if (addr.isIpv4()) {
    std::uint32_t v = (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
                      (std::uint32_t{bytes[2]} << 8) | bytes[3];
    return IpGenAddr::ipv4Addr(v);
  }
  if (addr.isIpv6()) return IpGenAddr::ipv6Addr(bytes);
  return IpGenAddr();
}

}  // namespace

IpGenPrefix::IpGenPrefix(IpGenAddr const& addr, unsigned length) {
  if (length > addr.maxPrefixLength()) {
    Kiv::throwRangeException("prefix length " + std::to_string(length) + " too long for " +
                             (addr.isUnset() ? std::string("an unset address") : addr.toString()));
  }
  addr_ = masked(addr, length);
  length_ = length;
}

IpGenPrefix::IpGenPrefix(std::string_view text) {
  if (text.empty()) return;
  auto slash = text.find('/');
  IpGenAddr addr(text.substr(0, slash));
  if (addr.isUnset()) Text::throwBadText("invalid prefix", text);
  if (slash == std::string_view::npos) {
    *this = IpGenPrefix(addr);
    return;
  }
  unsigned long length;
  if (!Text::parseDecimal(text.substr(slash + 1), 3, length) || length > addr.maxPrefixLength()) {
    Text::throwBadText("invalid prefix length", text);
  }
  *this = IpGenPrefix(addr, static_cast<unsigned>(length));
}

bool IpGenPrefix::contains(IpGenAddr const& addr) const noexcept {
  return addr.family() == addr_.family() && masked(addr, length_) == addr_;
}

std::string IpGenPrefix::toString() const {
  if (addr_.isUnset()) return {};
  return addr_.toString() + "/" + std::to_string(length_);
}

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& prefix) {
  return os << prefix.toString();
}

}  // namespace Lanx
