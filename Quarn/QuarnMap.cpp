#include "Quarn/QuarnMap.h"

#include <cstdio>
#include <cstdlib>

#include "Quarn/Files.h"
#include "Quarn/Hash.h"

namespace Quarn {

std::string quarnDebugHandlerName(std::string_view name, QuarnType mode) {
  char hex[5];
  std::snprintf(hex, sizeof hex, "%04x", Util::hash(name) & 0xffffu);
  std::string out = "Quarn-";
  out += hex;
  out += '-';
  out += name;
  out += '-';
  out += quarnTypeWord(mode);
  return out;
}

std::uint32_t quarnLastOwner(std::string const& rootPath) {
  std::string const text = Util::fileRead(rootPath + "/last-owner");
  return static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
}

}  // namespace Quarn
