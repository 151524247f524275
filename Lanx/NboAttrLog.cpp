// Attribute-log forms of the network types.

#include <array>
#include <cstring>
#include <string>

#include "Kiv/NboAttrLog.h"
#include "Lanx/IntfId.h"
#include "Lanx/IpGenAddr.h"

namespace Lanx {

void nboWrite(Kiv::NboAttrLog::Out& out, IpGenAddr const& v) {
  out.put32(v.family());
  std::size_t const n = v.isIpv4() ? 4 : v.isIpv6() ? 16 : 0;
  out.putBytes(std::string_view(reinterpret_cast<char const*>(v.bytes().data()), n));
}

IpGenAddr nboRead(Kiv::NboAttrLog::Cursor& in, IpGenAddr const*) {
  std::uint32_t const family = in.u32();
  if (family == IpGenAddr::unset) return IpGenAddr();
  if (family == IpGenAddr::ipv4) {
    std::string_view b = in.bytes(4);
    std::uint32_t host = 0;
    for (char c : b) host = host << 8 | std::uint8_t(c);
    return IpGenAddr::ipv4Addr(host);
  }
  if (family == IpGenAddr::ipv6) {
    std::array<std::uint8_t, 16> bytes;
    std::memcpy(bytes.data(), in.bytes(16).data(), 16);
    return IpGenAddr::ipv6Addr(bytes);
  }
  throw Kiv::AttrLogRecordException("bad address family " + std::to_string(family));
}

void nboWrite(Kiv::NboAttrLog::Out& out, IntfId const& v) {
  Kiv::NboAttrLog::nboWrite(out, std::string_view(v.name()));
}

IntfId nboRead(Kiv::NboAttrLog::Cursor& in, IntfId const*) {
  return IntfId(std::string_view(in.string()));
}

}  // namespace Lanx
