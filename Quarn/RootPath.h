#pragma once
// The directory of one table: <root directory>/<table name>. Every file of the table ("slots",
// "buckets", "conquer.1", "conquer.2", "fenix", "last-owner", "corruption-detected") lives in it.

#include <string>
#include <string_view>

namespace Quarn {

class RootPath {
 public:
  // `rootDir` empty: Mem::defaultRootDir() ($QUARN_ROOT or "/dev/shm/quarn").
  explicit RootPath(std::string_view tableName, std::string rootDir = {});

  std::string const& str() const noexcept { return path_; }
  std::string const& rootDir() const noexcept { return rootDir_; }
  // <root path>/<name>
  std::string file(std::string_view name) const;

 private:
  std::string rootDir_;
  std::string path_;
};

}  // namespace Quarn
