#include "Quarn/RootPath.h"

#include "Mem/Shared.h"

namespace Quarn {

RootPath::RootPath(std::string_view tableName, std::string rootDir)
    : rootDir_(rootDir.empty() ? Mem::defaultRootDir() : std::move(rootDir)),
      path_(rootDir_ + "/" + std::string(tableName)) {}

std::string RootPath::file(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

}  // namespace Quarn
