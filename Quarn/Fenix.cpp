#include "Quarn/Fenix.h"

#include <atomic>
#include <cstring>
#include <string_view>

#include "Quarn/Files.h"

namespace Quarn {
namespace Util {

std::uint32_t encodeFenix(std::uint32_t pidLow16, std::uint32_t instanceId) noexcept {
  // The low half counts 1..0xffff so that the id is never 0 (0 means "no id yet").
  return ((pidLow16 & 0xffffu) << 16) | (instanceId % 0xffffu + 1);
}

std::uint32_t nextInstanceId() noexcept {
  static std::atomic<std::uint32_t> counter{0};
  return counter.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace Util

std::uint32_t FenixFile::read(std::string const& rootPath) {
  std::string const bytes = Util::fileRead(rootPath + "/fenix");
  if (bytes.size() != 4) return 0;
  std::uint32_t fenix;
  std::memcpy(&fenix, bytes.data(), 4);
  return fenix;
}

bool FenixFile::write(std::string const& rootPath, std::uint32_t fenix, unsigned fileMode) {
  char bytes[4];
  std::memcpy(bytes, &fenix, 4);
  return Util::fileWriteAtomic(rootPath + "/fenix", std::string_view(bytes, 4), fileMode);
}

}  // namespace Quarn
