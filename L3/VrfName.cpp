#include "L3/VrfName.h"

#include <ostream>

#include "Kiv/Exception.h"
#include "Kiv/NboAttrLog.h"

namespace L3 {

VrfName::VrfName(std::string_view name) {
  if (name.size() > kMaxBytes) Kiv::throwRangeException("VrfName::bytes > 100 not allowed");
  name_ = Kiv::String8(name);
}

std::uint32_t VrfName::hash() const noexcept {
  // FNV-1a: names are short, so a byte loop is as fast as anything and deterministic.
  std::uint32_t h = 2166136261u;
  for (unsigned char c : name_) h = (h ^ c) * 16777619u;
  return h;
}

std::ostream& operator<<(std::ostream& os, VrfName const& name) {
  return os << name.string();
}

void nboWrite(Kiv::NboAttrLog::Out& out, VrfName const& v) {
  Kiv::NboAttrLog::nboWrite(out, std::string_view(v.string()));
}

VrfName nboRead(Kiv::NboAttrLog::Cursor& in, VrfName const*) {
  return VrfName(in.string());
}

}  // namespace L3
